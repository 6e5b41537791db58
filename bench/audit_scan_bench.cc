// `quarvel audit` over a tree of 100,000 files beside `find` over the same
// tree, both as whole processes spawned directly (no shell) and timed from
// spawn to exit, with their standard output read through a pipe to the end.
//
// The tree is shaped like installed applications and fonts: 400 application
// folders (bin/, lib/ with versioned libraries and their .so links, locale
// and icon folders, resources), 400 desktop entries, 100 font families. The
// audit reads a generated check list, user check list, filter list and font
// list, all named by options, so no settings are read.
//
// The rows, in interleaved rounds on warm caches:
//   find TREE -printf '%p\n'      lists every path and prints it, about 7 MB
//   find TREE -printf ''          the walk alone, printing nothing
// find does not follow the links (a sixth of the entries) and so stats
// nothing; the audit follows them, as it must. (find -L would stat every
// entry, which the audit does not need.)
//   quarvel audit TREE ...        the audit, its table report on the pipe
// Prints the median of each row and the audit's ratio to each find.
// `--also DIR` adds a row for another build's tool, DIR/quarvel with its
// library beside it (an older build, to compare within one run).
//
//   build/bench/audit_scan_bench [--rounds N] [--records N] [--also DIR] [--keep]

#include <fcntl.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "ListGenerator.h"
#include "quarvel/FileFilter.h"
#include "quarvel/FileFontList.h"
#include "quarvel/Table.h"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kApps = 400;
constexpr int kFamilies = 100;
constexpr int kFacesPerFamily = 104;
constexpr const char* kLocales[] = {"de", "es",    "fr", "it",    "ja",
                                    "ko", "pt_BR", "ru", "zh_CN", "nl"};
constexpr const char* kIconSizes[] = {"16x16", "24x24", "32x32", "48x48", "128x128", "256x256"};

// The tab-separated records of a generated check list.
std::vector<std::vector<std::string>> generatedRecords(std::size_t count, std::uint32_t variant) {
  const std::string text = quarvel::bench::generateCheckListText(count, variant);
  std::vector<std::vector<std::string>> records;
  std::size_t at = text.find("#CHECKLIST_START\r\n") + 18;
  const std::size_t end = text.find("#CHECKLIST_END");
  while (at < end) {
    const std::size_t lineEnd = text.find("\r\n", at);
    std::vector<std::string> fields;
    std::size_t from = at;
    for (;;) {
      const std::size_t tab = text.find('\t', from);
      if (tab == std::string::npos || tab > lineEnd) {
        fields.push_back(text.substr(from, lineEnd - from));
        break;
      }
      fields.push_back(text.substr(from, tab - from));
      from = tab + 1;
    }
    records.push_back(std::move(fields));
    at = lineEnd + 2;
  }
  return records;
}

std::string join(const std::vector<std::string>& fields, std::size_t count) {
  std::string line;
  for (std::size_t i = 0; i < count && i < fields.size(); ++i) {
    if (i) line += '\t';
    line += fields[i];
  }
  return line;
}

void touch(const std::string& path, mode_t mode, const std::string& content = {}) {
  const int fd = ::open(path.c_str(), O_CREAT | O_WRONLY | O_TRUNC | O_CLOEXEC, mode);
  if (fd < 0) std::abort();
  if (!content.empty() && ::write(fd, content.data(), content.size()) < 0) std::abort();
  ::close(fd);
}

void folder(const std::string& path) { std::filesystem::create_directories(path); }

struct Fixture {
  std::string base, tree, checkList, userCheckList, filterList, fontList;
  std::size_t files = 0;

  explicit Fixture(std::size_t records) {
    std::string pattern =
        (std::filesystem::temp_directory_path() / "quarvel-audit-bench-XXXXXX").string();
    if (!::mkdtemp(pattern.data())) std::abort();
    base = pattern;
    tree = base + "/tree";
    checkList = base + "/macchecklist.dat";
    userCheckList = base + "/userchecklist.dat";
    filterList = base + "/macfilterlist.dat";
    fontList = base + "/fontchecklist.dat";

    const auto software = generatedRecords(records, 1);
    const auto fonts = generatedRecords(records / 4, 2);
    if (!quarvel::bench::writeCheckListFile(checkList, records, 1) ||
        !quarvel::bench::writeCheckListFile(userCheckList, records / 20, 3))
      std::abort();
    writeFilterList(software);
    writeFontList(fonts);
    makeApplications(software);
    makeFonts(fonts);
  }

  ~Fixture() {
    std::error_code ignored;
    std::filesystem::remove_all(base, ignored);
  }

  // The filter list leaves out every tenth product of the check list.
  void writeFilterList(const std::vector<std::vector<std::string>>& software) const {
    quarvel::FileFilter filter;
    filter.getTableByTag("#HEADER")->insertRecord("2024.06.14", "\t");
    quarvel::Table* table = filter.getTableByTag("#SWLIST");
    for (std::size_t i = 0; i < software.size(); i += 10) {
      const auto& r = software[i];
      table->insertRecord(r[1] + "\t" + r[2] + "\t" + r[3] + "\t" + r[4], "\t");
    }
    if (!filter.saveAsFileName(filterList, true)) std::abort();
  }

  // Font records have the check list's fields but its last three; the file
  // name is a face of a family.
  void writeFontList(std::vector<std::vector<std::string>> fonts) const {
    quarvel::FileFontList list;
    list.getTableByTag("#HEADER")->insertRecord("2024.06.14", "\t");
    quarvel::Table* table = list.getTableByTag("#CHECKLIST");
    for (std::size_t i = 0; i < fonts.size(); ++i) {
      fonts[i][5] = fontFileName(i);
      table->insertRecord(join(fonts[i], 14), "\t");
    }
    if (!list.saveAsFileName(fontList, true)) std::abort();
  }

  static std::string fontFileName(std::size_t n) {
    static const char* const kFaces[] = {"Regular", "Bold", "Italic", "BoldItalic", "Light"};
    return "Family" + std::to_string(n / 5) + "-" + kFaces[n % 5] + (n % 2 ? ".otf" : ".ttf");
  }

  void file(const std::string& path, mode_t mode = 0644, const std::string& content = {}) {
    touch(path, mode, content);
    ++files;
  }

  // 400 applications of 225 files each, a desktop entry for each.
  void makeApplications(const std::vector<std::vector<std::string>>& software) {
    const std::string apps = tree + "/opt";
    const std::string entries = tree + "/share/applications";
    folder(entries);
    for (int a = 0; a < kApps; ++a) {
      // Every other application's program is on the check list.
      const std::string program = a % 2 == 0 ? software[static_cast<std::size_t>(a) * 7][5]
                                             : "program-" + std::to_string(a);
      const std::string app =
          apps + "/vendor" + std::to_string(a % 40) + "-app" + std::to_string(a);
      folder(app + "/bin");
      file(app + "/bin/" + program, 0755);
      file(app + "/bin/" + program + "-helper", 0755);
      file(app + "/bin/uninstall.sh", 0755);
      folder(app + "/lib");
      for (int l = 0; l < 20; ++l) {
        const std::string lib = "lib" + std::to_string(a) + "x" + std::to_string(l) + ".so";
        file(app + "/lib/" + lib + ".1.2.3");
        for (const std::string& alias : {lib + ".1", lib})
          if (::symlink((lib + ".1.2.3").c_str(), (app + "/lib/" + alias).c_str()) == 0) ++files;
      }
      for (const char* locale : kLocales) {
        const std::string messages = app + "/share/locale/" + locale + "/LC_MESSAGES";
        folder(messages);
        file(messages + "/" + program + ".mo");
      }
      for (const char* size : kIconSizes) {
        const std::string icons = app + "/share/icons/hicolor/" + size + "/apps";
        folder(icons);
        file(icons + "/" + program + ".png");
      }
      folder(app + "/share/doc");
      for (const char* doc : {"README", "LICENSE", "CHANGES", "NOTICE"})
        file(app + "/share/doc/" + doc);
      for (int r = 0; r < 4; ++r) {
        const std::string resources = app + "/resources/part" + std::to_string(r);
        folder(resources);
        for (int f = 0; f < 35; ++f)
          file(resources + "/asset-" + std::to_string(f) + (f % 3 ? ".json" : ".pak"));
      }
      file(entries + "/vendor" + std::to_string(a) + ".desktop", 0644,
           "[Desktop Entry]\nType=Application\nName=App " + std::to_string(a) + "\nExec=" + app +
               "/bin/" + program + " %U\nIcon=" + program + "\nCategories=Office;\n");
    }
  }

  // 100 families of 80 files; a quarter of the faces are on the font list.
  void makeFonts(const std::vector<std::vector<std::string>>& fonts) {
    for (int f = 0; f < kFamilies; ++f) {
      const std::string family = tree + "/share/fonts/family" + std::to_string(f);
      folder(family);
      for (int i = 0; i < kFacesPerFamily; ++i) {
        const std::size_t n = static_cast<std::size_t>(f * kFacesPerFamily + i);
        file(family + "/" +
             (i % 4 == 0 && n < fonts.size() ? fontFileName(n)
                                             : "Other" + std::to_string(n) + ".ttf"));
      }
    }
  }
};

struct Timing {
  double wallMs = -1;  // -1: the process failed
  double cpuMs = 0;    // user and system time of the process
};

// Runs `argv` with standard output on a pipe read to the end (and counted)
// and standard error on /dev/null; answers its wall and CPU time.
Timing runTimed(const std::vector<std::string>& argv, char** env, std::size_t* bytesOut = nullptr) {
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) return {};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, fds[1], 1);
  posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  const Clock::time_point start = Clock::now();
  pid_t pid = -1;
  const int spawned = ::posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), env);
  posix_spawn_file_actions_destroy(&actions);
  ::close(fds[1]);
  std::size_t total = 0;
  static char buffer[1 << 16];
  for (;;) {
    const ssize_t got = ::read(fds[0], buffer, sizeof buffer);
    if (got > 0) {
      total += static_cast<std::size_t>(got);
      continue;
    }
    if (got < 0 && errno == EINTR) continue;
    break;
  }
  ::close(fds[0]);
  int status = 0;
  struct rusage usage {};
  if (spawned != 0 || ::wait4(pid, &status, 0, &usage) != pid) return {};
  Timing t;
  t.wallMs = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
  t.cpuMs = (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1e3 +
            (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e3;
  if (bytesOut) *bytesOut = total;
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) t.wallMs = -1;
  return t;
}

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.empty()      ? 0
         : v.size() % 2 ? v[v.size() / 2]
                        : (v[v.size() / 2 - 1] + v[v.size() / 2]) / 2;
}

}  // namespace

int main(int argc, char** argv) {
  int rounds = 15;
  std::size_t records = 20000;
  bool keep = false;
  std::string also;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if (a == "--rounds" && i + 1 < argc)
      rounds = std::max(1, std::atoi(argv[++i]));
    else if (a == "--records" && i + 1 < argc)
      records = std::max<std::size_t>(3000, std::strtoull(argv[++i], nullptr, 10));
    else if (a == "--also" && i + 1 < argc)
      also = argv[++i];
    else if (a == "--keep")
      keep = true;
    else {
      std::fprintf(stderr, "usage: %s [--rounds N] [--records N] [--also DIR] [--keep]\n", argv[0]);
      return 2;
    }
  }
  const char* tool = std::getenv("QUARVEL_TOOL");
  const std::string quarvel = tool && *tool ? tool : QUARVEL_TOOL;

  Fixture fx(records);
  std::printf("tree: %zu files in %s; lists: %zu check, %zu user, %zu filter, %zu font records\n",
              fx.files, fx.tree.c_str(), records, records / 20, (records + 9) / 10, records / 4);

  struct Row {
    std::string label;
    std::vector<std::string> argv;
    std::vector<double> wall{}, cpu{};
    std::size_t bytes = 0;
    char** env = environ;
  };
  std::vector<Row> rows = {
      {"find TREE -printf '%p\\n'", {"find", fx.tree, "-printf", "%p\n"}, {}},
      {"find TREE -printf ''", {"find", fx.tree, "-printf", ""}, {}},
      {"quarvel audit TREE",
       {quarvel, "audit", fx.tree, "--checklist", fx.checkList, "--user-checklist",
        fx.userCheckList, "--filter", fx.filterList, "--fontlist", fx.fontList, "--no-progress"},
       {}},
      {"quarvel audit (lists only)",
       {quarvel, "audit", fx.base + "/absent", "--checklist", fx.checkList, "--user-checklist",
        fx.userCheckList, "--filter", fx.filterList, "--fontlist", fx.fontList, "--no-progress"},
       {}},
  };
  // The other build's tool finds its own library first.
  std::vector<std::string> alsoEnv;
  std::vector<char*> alsoEnvp;
  if (!also.empty()) {
    alsoEnv.push_back("LD_LIBRARY_PATH=" + also);
    for (char** e = environ; *e; ++e)
      if (std::strncmp(*e, "LD_LIBRARY_PATH=", 16) != 0) alsoEnv.emplace_back(*e);
    for (std::string& e : alsoEnv) alsoEnvp.push_back(e.data());
    alsoEnvp.push_back(nullptr);
    Row other = rows[2];
    other.label = "quarvel audit TREE (" + also + ")";
    other.argv[0] = also + "/quarvel";
    other.env = alsoEnvp.data();
    rows.push_back(other);
  }
  // One warm-up round fills the caches (and checks that each runs).
  for (Row& row : rows) {
    if (runTimed(row.argv, row.env, &row.bytes).wallMs < 0) {
      std::fprintf(stderr, "failed: %s\n", row.label.c_str());
      return 1;
    }
  }
  for (int r = 0; r < rounds; ++r) {
    for (Row& row : rows) {
      const Timing t = runTimed(row.argv, row.env);
      row.wall.push_back(t.wallMs);
      row.cpu.push_back(t.cpuMs);
    }
  }

  std::printf("%-40s %10s %10s %12s\n", "process (medians)", "wall ms", "CPU ms", "stdout bytes");
  for (Row& row : rows)
    std::printf("%-40s %10.1f %10.1f %12zu\n", row.label.c_str(), median(row.wall), median(row.cpu),
                row.bytes);
  auto ratios = [&](const char* what, std::size_t audit) {
    std::printf("%s / find printing every path: %.2f wall, %.2f CPU\n", what,
                median(rows[audit].wall) / median(rows[0].wall),
                median(rows[audit].cpu) / median(rows[0].cpu));
    std::printf("%s / find printing nothing:    %.2f wall, %.2f CPU\n", what,
                median(rows[audit].wall) / median(rows[1].wall),
                median(rows[audit].cpu) / median(rows[1].cpu));
  };
  ratios("audit", 2);
  if (rows.size() > 4) ratios("other build's audit", 4);
  if (keep) fx.base.clear();  // left for a look by hand
  return 0;
}
