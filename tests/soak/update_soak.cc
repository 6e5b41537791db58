// Update runs back to back, the rows of the update run's fault table
// (tests/update/UpdateFaultTable.h) picked at random and each checked as the
// fault suite checks it: in-process through the platform, or against a
// loopback server made for the run and gone before the figures are taken.
// The figures (SoakFigures.h) are sampled every RUNS/50 runs after a warm-up
// of RUNS/8 runs, and at least one run per row and transport, and must stay
// flat.
//
//   update_soak [RUNS [SEED]]   RUNS defaults to 40

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "SoakFigures.h"
#include "common/Log.h"
#include "update/UpdateFaultTable.h"

using namespace quarvel::testing;

int main(int argc, char** argv) {
  const int runs = argc > 1 ? std::atoi(argv[1]) : 40;
  const unsigned seed =
      argc > 2 ? static_cast<unsigned>(std::strtoul(argv[2], nullptr, 10)) : std::random_device()();
  if (runs <= 0) {
    std::fprintf(stderr, "usage: update_soak [RUNS [SEED]]\n");
    return 2;
  }
  std::mt19937 pick(seed);
  // The warm-up runs every row each way it runs, so that nothing a row
  // sets up once (a transport, a thread's heap) first shows in the figures.
  std::vector<std::pair<const FaultRow*, bool>> firstRuns;  // row, over loopback
  for (const FaultRow& row : kFaultRows) {
    if (row.where != Where::kLoopback) firstRuns.emplace_back(&row, false);
    if (row.where != Where::kInProcess) firstRuns.emplace_back(&row, true);
  }
  constexpr int kRows = sizeof kFaultRows / sizeof kFaultRows[0];
  const int warmUp = std::max(runs / 8, static_cast<int>(firstRuns.size()));
  const int every = std::max(1, runs / 50);
  quarvel::soak::Figures figures;
  std::map<std::string, int> mix;
  int failures = 0;
  quarvel::LogCapture quiet;  // the runs' log lines, dropped after each run
  for (int run = 1; run <= runs; ++run) {
    const bool first = run <= static_cast<int>(firstRuns.size());
    const FaultRow& row = first ? *firstRuns[run - 1].first : kFaultRows[pick() % kRows];
    // Later, rows that run both ways take turns.
    const bool loopback =
        first ? firstRuns[run - 1].second
              : row.where == Where::kLoopback || (row.where == Where::kBoth && run % 2);
    ++mix[std::string(row.name) + (loopback ? "@loopback" : "")];
    const std::string problems =
        runFaultRow(row, loopback ? Transport::kLoopback : Transport::kInProcess).problems;
    quiet.clear();
    if (!problems.empty()) {
      std::fprintf(stderr, "update_soak: run %d (%s):%s\n", run, row.name, problems.c_str());
      if (++failures >= 5 || problems.find("did not end") != std::string::npos) break;
    }
    if (run > warmUp && run % every == 0) figures.sample();
  }
  std::printf("update_soak: %d runs in %.1f s (seed %u)\n  mix:", runs, figures.seconds(), seed);
  for (const auto& [name, count] : mix) std::printf(" %s %d", name.c_str(), count);
  std::printf("\n  %d run(s) with problems\n", failures);
  if (figures.count() < 4) {
    std::printf("  too few samples after the warm-up of %d runs\n", warmUp);
    return failures ? 1 : 0;
  }
  return figures.flat() && failures == 0 ? 0 : 1;
}
