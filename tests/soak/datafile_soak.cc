// Opens and saves data files back to back through the public data-file API,
// as a host that reloads its lists all day would, and watches the process's
// resident memory and open file descriptors: after a warm-up they must stay
// flat.
//
//   datafile_soak [CYCLES]   CYCLES defaults to $QUARVEL_SOAK_CYCLES, else 300
//
// One cycle opens a generated check list of kRecords records, reads one
// record back by its identifier, and saves it over itself; then it opens and
// saves the sample package, filter and font check list files the same way.
// Each object is new, so every cycle builds and frees whole tables. Every
// file keeps its record count and, once saved, its size.
//
// Flat means: the open descriptors at every sample after the warm-up are
// all equal; and the highest resident memory of the last quarter of the
// samples is at most kRssMarginKiB above the highest of the first quarter
// (not checked under the sanitizers, whose allocators hold memory their own
// way; LeakSanitizer watches leaks there). Exit status 0 when every cycle
// succeeded and the figures stayed flat.

#include <stdlib.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "../../bench/ListGenerator.h"
#include "quarvel/FileCheckList.h"
#include "quarvel/FileFilter.h"
#include "quarvel/FileFontList.h"
#include "quarvel/FilePackage.h"

#ifndef QUARVEL_SOAK_CHECK_RSS
#define QUARVEL_SOAK_CHECK_RSS 1
#endif

namespace {

namespace fs = std::filesystem;
using quarvel::FileFramework;

constexpr std::size_t kRecords = 2000;  // about 400 KB once stored
// A leak of one record per cycle exceeds this within the full run, one of
// a file's buffer or table within a few cycles.
constexpr long kRssMarginKiB = 512;

long rssKiB() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);)
    if (line.rfind("VmRSS:", 0) == 0) return std::strtol(line.c_str() + 6, nullptr, 10);
  return -1;
}

long openFds() {
  std::error_code ec;
  const fs::directory_iterator fds("/proc/self/fd", ec);
  return ec ? -1 : std::distance(fds, fs::directory_iterator());
}

// One data file of the cycle, opened into a new object of its class.
struct Round {
  std::string path;
  std::unique_ptr<FileFramework> (*make)();
  std::vector<const char*> tags;
  std::uint64_t records = 0;  // 0 until the first cycle counted them
  long size = -1;             // the size the first save left

  bool run(int cycle) {
    std::unique_ptr<FileFramework> file = make();
    if (!file->openWithFileName(path, true)) return report(cycle, "open failed");
    std::uint64_t count = 0;
    for (const char* tag : tags) count += file->getTableByTag(tag)->getCount();
    if (records == 0) records = count;
    if (count != records || count == 0) return report(cycle, "record count changed");
    // A round trip that garbled records would show in the check list.
    if (auto* list = dynamic_cast<quarvel::FileCheckList*>(file.get())) {
      const auto row = static_cast<std::int64_t>(static_cast<std::size_t>(cycle) % kRecords);
      const std::string id = "SW" + std::to_string(100000 + row);
      if (list->getTableByTag("#CHECKLIST")->select(row, "DB_ID") != id ||
          list->getIndex(id) != row)
        return report(cycle, "record read back wrong");
    }
    if (!file->saveAsFileName(path, true)) return report(cycle, "save failed");
    struct stat info {};
    const long saved = ::stat(path.c_str(), &info) == 0 ? static_cast<long>(info.st_size) : -1;
    if (size < 0) size = saved;
    return saved == size || report(cycle, "file size changed");
  }
  bool report(int cycle, const char* what) const {
    std::printf("  cycle %d: %s: %s\n", cycle, path.c_str(), what);
    return false;
  }
};

template <typename File>
std::unique_ptr<FileFramework> make() {
  return std::make_unique<File>();
}

}  // namespace

int main(int argc, char** argv) {
  int cycles = 300;
  if (const char* fromEnv = std::getenv("QUARVEL_SOAK_CYCLES")) cycles = std::atoi(fromEnv);
  if (argc > 1) cycles = std::atoi(argv[1]);
  if (cycles < 40) {
    std::fprintf(stderr, "usage: datafile_soak [CYCLES >= 40]\n");
    return 2;
  }
  std::string folder = (fs::temp_directory_path() / "quarvel-datafile-soak-XXXXXX").string();
  if (!::mkdtemp(folder.data())) return 2;
  const std::shared_ptr<void> cleanup(nullptr, [&](void*) { fs::remove_all(folder); });

  Round rounds[] = {
      {folder + "/macchecklist.dat", make<quarvel::FileCheckList>, {"#CHECKLIST"}, kRecords},
      {folder + "/macpcklist.dat", make<quarvel::FilePackage>, {"#PACKAGE", "#SUB"}},
      {folder + "/macfilterlist.dat", make<quarvel::FileFilter>, {"#SWLIST"}},
      {folder + "/fontchecklist.dat", make<quarvel::FileFontList>, {"#CHECKLIST"}},
  };
  if (!quarvel::bench::writeCheckListFile(rounds[0].path, kRecords)) return 2;
  std::error_code ec;
  for (const Round& round : rounds)
    if (round.path != rounds[0].path)
      fs::copy_file(QUARVEL_SAMPLES + round.path.substr(folder.size()), round.path, ec);
  if (ec) return 2;

  const int warmUp = std::max(cycles / 10, 20);
  const int every = std::max(1, (cycles - warmUp) / 200);
  const long startRss = rssKiB(), startFds = openFds();
  std::vector<std::pair<long, long>> samples;  // resident KiB, open descriptors
  int failures = 0;
  const auto began = std::chrono::steady_clock::now();
  for (int cycle = 1; cycle <= cycles; ++cycle) {
    const bool ok = std::all_of(std::begin(rounds), std::end(rounds),
                                [&](Round& round) { return round.run(cycle); });
    if (!ok && ++failures >= 5) break;
    if (cycle >= warmUp && (cycle - warmUp) % every == 0) samples.emplace_back(rssKiB(), openFds());
  }
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
  std::printf("datafile_soak: %d cycles in %.1f s (%.2f ms a cycle)\n", cycles, seconds,
              1000 * seconds / cycles);
  std::printf("  files: check list %ld bytes (%zu records), package %ld, filter %ld, fonts %ld\n",
              rounds[0].size, kRecords, rounds[1].size, rounds[2].size, rounds[3].size);
  if (samples.size() < 8) {
    std::printf("  too few samples after the warm-up of %d cycles\n", warmUp);
    return 1;
  }
  const std::size_t quarter = samples.size() / 4;
  const auto peak = [&](std::size_t from, std::size_t to) {
    return std::max_element(samples.begin() + from, samples.begin() + to)->first;
  };
  const long early = peak(0, quarter), late = peak(samples.size() - quarter, samples.size());
  std::printf(
      "  RSS KiB: before %ld, after warm-up %ld, last %ld, max %ld; "
      "first quarter max %ld, last quarter max %ld\n",
      startRss, samples.front().first, samples.back().first, peak(0, samples.size()), early, late);
  const auto [fewest, most] =
      std::minmax_element(samples.begin(), samples.end(),
                          [](const auto& a, const auto& b) { return a.second < b.second; });
  std::printf("  fds: before %ld, after warm-up %ld, last %ld, range %ld..%ld over %zu samples\n",
              startFds, samples.front().second, samples.back().second, fewest->second, most->second,
              samples.size());
  const bool flat =
      fewest->second == most->second && (!QUARVEL_SOAK_CHECK_RSS || late <= early + kRssMarginKiB);
  std::printf("  %s, %d cycle(s) failed\n", flat ? "flat" : "NOT FLAT", failures);
  return flat && failures == 0 ? 0 : 1;
}
