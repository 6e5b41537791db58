// Update runs back to back, the rows of the update run's fault table
// (tests/update/UpdateFaultTable.h) picked at random, each checked as the
// fault suite checks it, while the process's resident memory and open file
// descriptors are watched: after a warm-up they must stay flat.
//
//   update_soak [RUNS [SEED]]   RUNS defaults to $QUARVEL_SOAK_RUNS, else 40
//
// Rows run in-process through the platform, those that only a real transfer
// can show against a loopback server made for the run and gone before the
// figures are taken. Samples are taken every RUNS/50 runs (at least every
// run) once a warm-up of RUNS/8 runs, and at least one run per row, is over.
// Flat means: the open descriptors are the same at every sample, and the
// highest resident memory of the last quarter of the samples is at most
// kRssMarginKiB above the highest of the first quarter (shown but not
// judged under the sanitizers, whose allocators keep freed memory). Exit
// status 0 when every run ended as its row says and the figures stayed flat.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "common/Log.h"
#include "update/UpdateFaultTable.h"

namespace {

using quarvel::testing::FaultRow;
using quarvel::testing::kFaultRows;
using quarvel::testing::Transport;
using quarvel::testing::Where;

// Resident memory may end this much above its early peak and still count
// as flat; a leak of a body or a transfer per run exceeds it within a few
// dozen runs.
constexpr long kRssMarginKiB = 512;
constexpr int kRows = sizeof kFaultRows / sizeof kFaultRows[0];

long residentKiB() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line))
    if (line.rfind("VmRSS:", 0) == 0) return std::strtol(line.c_str() + 6, nullptr, 10);
  return -1;
}

int openDescriptors() {
  int n = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
    ++n;
  return n - 1;  // the iterator's own
}

struct Sample {
  int run;
  long rssKiB;
  int fds;
};

long maxRss(const std::vector<Sample>& samples, std::size_t from, std::size_t to) {
  long peak = 0;
  for (std::size_t i = from; i < to; ++i) peak = std::max(peak, samples[i].rssKiB);
  return peak;
}

int soak(int runs, unsigned seed) {
  std::mt19937 pick(seed);
  // One run per row at least before the figures count.
  const int warmUp = std::max(runs / 8, kRows);
  const int every = std::max(1, runs / 50);
  std::vector<Sample> samples;
  const Sample start{0, residentKiB(), openDescriptors()};
  std::map<std::string, int> mix;
  int failures = 0;
  quarvel::LogCapture quiet;  // the runs' log lines, dropped after each run
  const auto began = std::chrono::steady_clock::now();
  for (int run = 1; run <= runs; ++run) {
    const FaultRow& row = kFaultRows[run <= kRows ? run - 1 : pick() % kRows];
    // Rows that run both ways take turns.
    const bool loopback = row.where == Where::kLoopback || (row.where == Where::kBoth && run % 2);
    ++mix[std::string(row.name) + (loopback ? "@loopback" : "")];
    const std::string problems =
        runFaultRow(row, loopback ? Transport::kLoopback : Transport::kInProcess).problems;
    quiet.clear();
    if (!problems.empty()) {
      std::fprintf(stderr, "update_soak: run %d (%s):%s\n", run, row.name, problems.c_str());
      if (++failures >= 5 || problems.find("did not end") != std::string::npos) break;
    }
    if (run > warmUp && run % every == 0)
      samples.push_back({run, residentKiB(), openDescriptors()});
  }
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
  std::printf("update_soak: %d runs in %.1f s (seed %u)\n", runs, seconds, seed);
  std::printf("  mix:");
  for (const auto& [name, count] : mix) std::printf(" %s %d", name.c_str(), count);
  std::printf("\n");
  if (samples.size() < 4) {
    std::printf("  too few samples after the warm-up of %d runs\n", warmUp);
    return failures ? 1 : 0;
  }
  const std::size_t quarter = samples.size() / 4;
  const long early = maxRss(samples, 0, quarter);
  const long late = maxRss(samples, samples.size() - quarter, samples.size());
  const long peak = maxRss(samples, 0, samples.size());
  auto [fewest, most] = std::minmax_element(samples.begin(), samples.end(),
                                            [](auto& a, auto& b) { return a.fds < b.fds; });
  std::printf(
      "  RSS KiB: before %ld, after warm-up (run %d) %ld, last %ld, max %ld; "
      "first-quarter max %ld, last-quarter max %ld\n",
      start.rssKiB, samples.front().run, samples.front().rssKiB, samples.back().rssKiB, peak, early,
      late);
  std::printf("  fds: before %d, after warm-up %d, last %d, range %d..%d over %zu samples\n",
              start.fds, samples.front().fds, samples.back().fds, fewest->fds, most->fds,
              samples.size());

  bool flat = fewest->fds == most->fds;
#if QUARVEL_SOAK_CHECK_RSS
  flat = flat && late <= early + kRssMarginKiB;
#else
  std::printf("  (sanitizer build: resident memory is shown, not judged)\n");
#endif
  std::printf("  %s, %d run(s) with problems\n", flat ? "flat" : "NOT FLAT", failures);
  return flat && failures == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  const char* fromEnvironment = std::getenv("QUARVEL_SOAK_RUNS");
  const int runs = argc > 1          ? std::atoi(argv[1])
                   : fromEnvironment ? std::atoi(fromEnvironment)
                                     : 40;
  const unsigned seed =
      argc > 2 ? static_cast<unsigned>(std::strtoul(argv[2], nullptr, 10)) : std::random_device()();
  if (runs <= 0) {
    std::fprintf(stderr, "usage: update_soak [RUNS [SEED]]\n");
    return 2;
  }
  return soak(runs, seed);
}
