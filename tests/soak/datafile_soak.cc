// Opens and saves data files back to back through the public data-file API,
// as a host that reloads its lists all day would, and watches the process's
// resident memory and open file descriptors (SoakFigures.h): after a warm-up
// of a tenth of the cycles they must stay flat.
//
//   datafile_soak [CYCLES]   CYCLES defaults to $QUARVEL_SOAK_CYCLES, else 300
//
// One cycle opens a generated check list of kRecords records, reads one
// record back by its identifier, and saves it over itself; then it opens and
// saves the sample package, filter and font check list files the same way.
// Each object is new, so every cycle builds and frees whole tables. Every
// file keeps its record count and, once saved, its size.
//
// Exit status 0 when every cycle succeeded and the figures stayed flat.

#include <stdlib.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "../../bench/ListGenerator.h"
#include "SoakFigures.h"
#include "quarvel/FileCheckList.h"
#include "quarvel/FileFilter.h"
#include "quarvel/FileFontList.h"
#include "quarvel/FilePackage.h"

namespace {

namespace fs = std::filesystem;
using quarvel::FileFramework;

constexpr std::size_t kRecords = 2000;  // about 400 KB once stored

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
  quarvel::soak::Figures figures;
  int failures = 0;
  for (int cycle = 1; cycle <= cycles; ++cycle) {
    const bool ok = std::all_of(std::begin(rounds), std::end(rounds),
                                [&](Round& round) { return round.run(cycle); });
    if (!ok && ++failures >= 5) break;
    if (cycle >= warmUp && (cycle - warmUp) % every == 0) figures.sample();
  }
  std::printf("datafile_soak: %d cycles in %.1f s (%.2f ms a cycle), %d failed\n", cycles,
              figures.seconds(), 1000 * figures.seconds() / cycles, failures);
  std::printf("  files: check list %ld bytes (%zu records), package %ld, filter %ld, fonts %ld\n",
              rounds[0].size, kRecords, rounds[1].size, rounds[2].size, rounds[3].size);
  if (figures.count() < 8) {
    std::printf("  too few samples after the warm-up of %d cycles\n", warmUp);
    return 1;
  }
  return figures.flat() && failures == 0 ? 0 : 1;
}
