// Opens and saves data files back to back through the public data-file API,
// as a host that reloads its lists all day would, and watches the process's
// resident memory and open file descriptors: after a warm-up they must stay
// flat.
//
//   datafile_soak [CYCLES]   CYCLES defaults to $QUARVEL_SOAK_CYCLES, else 300
//
// One cycle opens a generated check list of kRecords records, checks its
// count and one record, and saves it over itself; then it opens and saves the
// sample package, filter and font check list files the same way. Each object
// is new, so every cycle builds and frees whole tables.
//
// Flat means: the open descriptors at every sample after the warm-up equal,
// exactly, their number at the end of the warm-up; and the highest resident
// memory of the last quarter of the samples is at most kRssMarginKiB above
// the highest of the first quarter (not checked under the sanitizers, whose
// allocators hold memory their own way; LeakSanitizer watches leaks there).
// Exit status 0 when every cycle succeeded and the figures stayed flat.

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <system_error>
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

int openFds() {
  int count = 0;
  std::error_code ec;
  for (fs::directory_iterator it("/proc/self/fd", ec), end; !ec && it != end; it.increment(ec))
    ++count;
  return count;
}

long fileSize(const std::string& path) {
  struct stat info;
  return ::stat(path.c_str(), &info) == 0 ? static_cast<long>(info.st_size) : -1;
}

struct Sample {
  int cycle;
  long rssKiB;
  int fds;
};

// One data file of the cycle: opened into a new object of its class, its
// tables' record count compared with the first cycle's, saved over itself.
template <typename File>
struct Round {
  std::string path;
  std::vector<const char*> tags;
  std::uint64_t records = 0;  // 0 until the first cycle counted them
  long size = -1;             // the size the first save left

  bool run(int cycle) {
    File file;
    if (!file.openWithFileName(path, true)) return report(cycle, "open failed");
    std::uint64_t count = 0;
    for (const char* tag : tags)
      if (quarvel::Table* table = file.getTableByTag(tag)) count += table->getCount();
    if (records == 0) records = count;
    if (count != records || count == 0) return report(cycle, "record count changed");
    return save(file, cycle);
  }
  bool save(File& file, int cycle) {
    if (!file.saveAsFileName(path, true)) return report(cycle, "save failed");
    // The round trip is stable: every save writes the same bytes.
    if (size < 0) size = fileSize(path);
    if (fileSize(path) != size) return report(cycle, "file size changed");
    return true;
  }
  bool report(int cycle, const char* what) const {
    std::printf("  cycle %d: %s: %s\n", cycle, path.c_str(), what);
    return false;
  }
};

// The check list also has one record per cycle read back by its identifier,
// so that a round trip that garbled records would show.
bool checkListCycle(Round<quarvel::FileCheckList>& round, int cycle) {
  quarvel::FileCheckList list;
  if (!list.openWithFileName(round.path, true)) return round.report(cycle, "open failed");
  quarvel::Table* records = list.getTableByTag("#CHECKLIST");
  if (records->getCount() != kRecords) return round.report(cycle, "record count changed");
  const auto row = static_cast<std::int64_t>(static_cast<std::size_t>(cycle) % kRecords);
  const std::string id = "SW" + std::to_string(100000 + row);
  if (records->select(row, "DB_ID") != id || list.getIndex(id) != row)
    return round.report(cycle, "record read back wrong");
  return round.save(list, cycle);
}

long maxRss(const std::vector<Sample>& samples, std::size_t from, std::size_t to) {
  long peak = 0;
  for (std::size_t i = from; i < to; ++i) peak = std::max(peak, samples[i].rssKiB);
  return peak;
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
  struct RemoveFolder {
    std::string path;
    ~RemoveFolder() {
      std::error_code ignored;
      fs::remove_all(path, ignored);
    }
  } cleanup{folder};

  Round<quarvel::FileCheckList> checkList{folder + "/macchecklist.dat", {}};
  Round<quarvel::FilePackage> package{folder + "/macpcklist.dat", {"#PACKAGE", "#SUB"}};
  Round<quarvel::FileFilter> filter{folder + "/macfilterlist.dat", {"#SWLIST"}};
  Round<quarvel::FileFontList> fonts{folder + "/fontchecklist.dat", {"#CHECKLIST"}};
  if (!quarvel::bench::writeCheckListFile(checkList.path, kRecords)) return 2;
  for (const char* name : {"macpcklist.dat", "macfilterlist.dat", "fontchecklist.dat"}) {
    std::error_code ec;
    fs::copy_file(std::string(QUARVEL_SAMPLES) + "/" + name, folder + "/" + name, ec);
    if (ec) return 2;
  }

  const int warmUp = std::max(cycles / 10, 20);
  const int every = std::max(1, (cycles - warmUp) / 200);
  const Sample start{0, rssKiB(), openFds()};
  std::vector<Sample> samples;
  int failures = 0;
  const auto began = std::chrono::steady_clock::now();
  for (int cycle = 1; cycle <= cycles; ++cycle) {
    bool ok = checkListCycle(checkList, cycle) && package.run(cycle) && filter.run(cycle) &&
              fonts.run(cycle);
    if (!ok && ++failures >= 5) break;
    if (cycle >= warmUp && (cycle - warmUp) % every == 0)
      samples.push_back({cycle, rssKiB(), openFds()});
  }
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();

  std::printf("datafile_soak: %d cycles in %.1f s (%.2f ms a cycle)\n", cycles, seconds,
              1000 * seconds / cycles);
  std::printf("  files: check list %ld bytes (%zu records), package %ld, filter %ld, fonts %ld\n",
              checkList.size, kRecords, package.size, filter.size, fonts.size);
  if (samples.size() < 8) {
    std::printf("  too few samples after the warm-up of %d cycles\n", warmUp);
    return 1;
  }
  const std::size_t quarter = samples.size() / 4;
  const long early = maxRss(samples, 0, quarter);
  const long late = maxRss(samples, samples.size() - quarter, samples.size());
  std::printf(
      "  RSS KiB: before %ld, after warm-up (cycle %d) %ld, last %ld, max %ld; "
      "first quarter max %ld, last quarter max %ld\n",
      start.rssKiB, samples.front().cycle, samples.front().rssKiB, samples.back().rssKiB,
      maxRss(samples, 0, samples.size()), early, late);
  auto [fewest, most] =
      std::minmax_element(samples.begin(), samples.end(),
                          [](const Sample& a, const Sample& b) { return a.fds < b.fds; });
  std::printf("  fds: before %d, after warm-up %d, last %d, range %d..%d over %zu samples\n",
              start.fds, samples.front().fds, samples.back().fds, fewest->fds, most->fds,
              samples.size());

  bool flat = fewest->fds == most->fds;
  if (QUARVEL_SOAK_CHECK_RSS) flat = flat && late <= early + kRssMarginKiB;
  std::printf("  %s, %d cycle(s) failed\n", flat ? "flat" : "NOT FLAT", failures);
  return flat && failures == 0 ? 0 : 1;
}
