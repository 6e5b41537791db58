// Scanning a tree of 100,000 files: `find` listing it, the audit's walker
// alone, and the whole audit of it (walk, name matching against a check
// list and a font list of 500 records each, report data). The tree is made
// once per run in a temporary folder: 100 folders of 10 folders of 100
// files, a tenth of them executable, a few dozen named in the lists.
//
//   bench/audit_scan_bench --benchmark_repetitions=5
// The audit should stay within twice the time of `find`.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "audit/Auditor.h"
#include "common/StringUtil.h"
#include "quarvel/FileCheckList.h"
#include "quarvel/FileFontList.h"

namespace {

using namespace quarvel;
using namespace quarvel::audit;

constexpr int kTop = 100, kSub = 10, kFiles = 100;  // 100,000 files

struct Fixture {
  std::string root;
  std::string checkList;
  std::string fontList;

  Fixture() {
    std::string pattern =
        (std::filesystem::temp_directory_path() / "quarvel-bench-XXXXXX").string();
    if (!::mkdtemp(pattern.data())) std::abort();
    root = pattern + "/tree";
    for (int t = 0; t < kTop; ++t) {
      for (int s = 0; s < kSub; ++s) {
        std::string folder = root + "/pkg" + std::to_string(t) + "/lib" + std::to_string(s);
        std::filesystem::create_directories(folder);
        for (int f = 0; f < kFiles; ++f) {
          int n = (t * kSub + s) * kFiles + f;
          std::string name = n % 997 == 0    ? "tool" + std::to_string(n % 500)
                             : n % 1009 == 0 ? "Font" + std::to_string(n % 500) + ".ttf"
                                             : "file-" + std::to_string(n) + ".dat";
          int fd = ::open((folder + "/" + name).c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
          if (fd >= 0) {
            if (n % 10 == 0 || n % 997 == 0) ::fchmod(fd, 0755);
            ::close(fd);
          }
        }
      }
    }
    checkList = pattern + "/macchecklist.dat";
    fontList = pattern + "/fontchecklist.dat";
    FileCheckList software;
    FileFontList fonts;
    software.getTableByTag("#HEADER")->insertRecord("1", "\t");
    fonts.getTableByTag("#HEADER")->insertRecord("1", "\t");
    for (int i = 0; i < 500; ++i) {
      std::string n = std::to_string(i);
      software.getTableByTag("#CHECKLIST")
          ->insertRecord("S" + n + "\tMaker" + n + "\tTool" + n + "\t1\ttool" + n + "\ttool" + n +
                             "\tMaker " + n + "\tTool " + n + "\t1000\t1\tG\tGroup\t1\t\t\t\t",
                         "\t");
      fonts.getTableByTag("#CHECKLIST")
          ->insertRecord("F" + n + "\tFoundry" + n + "\tFont" + n + "\t1\tFont" + n + "\tFont" + n +
                             ".ttf\tFoundry " + n + "\tFont " + n + "\t500\t1\tF\tFonts\t1\t",
                         "\t");
    }
    if (!software.saveAsFileName(checkList, true) || !fonts.saveAsFileName(fontList, true))
      std::abort();
  }
  ~Fixture() {
    std::error_code ignored;
    std::filesystem::remove_all(std::filesystem::path(root).parent_path(), ignored);
  }
};

Fixture& fixture() {
  static Fixture f;
  return f;
}

void BM_FindListing(benchmark::State& state) {
  const std::string command = "find " + fixture().root + " > /dev/null";
  for (auto _ : state)
    if (std::system(command.c_str()) != 0) state.SkipWithError("find failed");
  state.SetItemsProcessed(state.iterations() * kTop * kSub * kFiles);
}

void BM_TreeWalk(benchmark::State& state) {
  for (auto _ : state) {
    ScanStats stats;
    TreeWalker walker(stats);
    std::uint64_t names = 0;
    walker.walk(fixture().root, {.maxDepth = 40},
                [&](const FoundFile& f) { names += f.name().size(); });
    benchmark::DoNotOptimize(names);
  }
  state.SetItemsProcessed(state.iterations() * kTop * kSub * kFiles);
}

void BM_AuditTree(benchmark::State& state) {
  auto software = openCheckListFile(fixture().checkList);
  auto fonts = openFontListFile(fixture().fontList);
  if (!software || !fonts) {
    state.SkipWithError("lists not readable");
    return;
  }
  ScanPlan plan;
  plan.trees = {fixture().root};
  std::size_t findings = 0;
  for (auto _ : state) {
    Auditor auditor({.checkList = software.get(), .fontList = fonts.get()});
    AuditResult result = auditor.run(plan);
    findings = result.findings.size();
  }
  state.counters["findings"] = static_cast<double>(findings);
  state.SetItemsProcessed(state.iterations() * kTop * kSub * kFiles);
}

BENCHMARK(BM_FindListing)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_TreeWalk)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_AuditTree)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
