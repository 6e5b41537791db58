// Opens and saves data files back to back through the public data-file API,
// as a host that reloads its lists all day would; after a warm-up of a tenth
// of the cycles the figures (SoakFigures.h) must stay flat.
//
//   datafile_soak [CYCLES]   CYCLES defaults to 300
//
// A cycle opens, into new objects, a generated check list of kRecords
// records (reading one back by its identifier) and the sample package,
// filter and font lists, and saves each over itself: every file must keep
// its record count and, once saved, its size.

#include <stdlib.h>

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
    if (auto* list = dynamic_cast<quarvel::FileCheckList*>(file.get())) {
      const auto row = static_cast<std::int64_t>(static_cast<std::size_t>(cycle) % kRecords);
      const std::string id = "SW" + std::to_string(100000 + row);
      if (list->getTableByTag("#CHECKLIST")->select(row, "DB_ID") != id ||
          list->getIndex(id) != row)
        return report(cycle, "record read back wrong");
    }
    if (!file->saveAsFileName(path, true)) return report(cycle, "save failed");
    std::error_code error;  // a size of -1 when it cannot be told
    const auto saved = static_cast<long>(fs::file_size(path, error));
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
  const int cycles = argc > 1 ? std::atoi(argv[1]) : 300;
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
  for (int i = 1; i < 4; ++i)
    fs::copy_file(QUARVEL_SAMPLES + rounds[i].path.substr(folder.size()), rounds[i].path, ec);
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
