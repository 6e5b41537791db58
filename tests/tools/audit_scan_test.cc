// What the audit reads and finds: the folder walk, the programs a desktop
// entry starts, and the matching of names against the lists.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <set>

#include "audit/Auditor.h"
#include "audit/DesktopEntry.h"
#include "audit/TreeWalker.h"
#include "support/AuditFixtures.h"

namespace quarvel::audit {
namespace {

using quarvel::testing::MemoryFilter;
using quarvel::testing::MemoryList;
using quarvel::testing::TempTree;
using NameSet = std::set<std::string>;
using Names = std::vector<std::string>;

NameSet walkNames(TreeWalker& walker, const std::string& root, WalkOptions options) {
  NameSet seen;
  walker.walk(root, options, [&](const FoundFile& f) {
    std::string path(f.path());
    seen.insert(path.substr(root.size() + 1));
    EXPECT_EQ(lastPathComponent(path), f.name());
  });
  return seen;
}

TEST(TreeWalker, FollowsLinksButEndsLinkLoops) {
  TempTree tree;
  tree.file("real/app");
  tree.link("../real/app", "bin/app-link");  // link to a file: reported by its own name
  tree.link("..", "real/up");                // loop back to the root
  tree.link("loop", "real/loop");            // a link to itself
  tree.link("missing", "real/dangling");
  tree.link(tree.path("real"), "bin/real-again");  // a second way into real/
  ScanStats stats;
  TreeWalker walker(stats);
  NameSet names = walkNames(walker, tree.root(), {.maxDepth = 50});
  // The loop through real/up would repeat forever; it is entered once at
  // most per way down and then refused.
  for (const char* name : {"real/app", "bin/app-link", "bin/real-again/app"})
    EXPECT_TRUE(names.contains(name)) << name;
  EXPECT_FALSE(names.contains("real/dangling") || names.contains("real/loop"));
  EXPECT_GT(stats.loopsAvoided, 0u);
  EXPECT_LT(names.size(), 20u);
}

// A folder whose entries take several reads, with deep subfolders met
// between its reads: each level's listing must survive the walks below,
// and a second walk reuses the buffers.
TEST(TreeWalker, BigFoldersAndDeepTreesAreListedWhole) {
  TempTree tree;
  NameSet expected;
  for (int i = 0; i < 1500; ++i) {
    const std::string name = "wide/" + std::string(60, 'n') + std::to_string(i);
    tree.file(name);
    expected.insert(name);
    if (i % 300 == 0) {
      std::string deep = "wide/sub" + std::to_string(i);
      for (int d = 0; d < 12; ++d) deep += "/d" + std::to_string(d);
      tree.file(deep + "/leaf");
      expected.insert(deep + "/leaf");
    }
  }
  ScanStats stats;
  TreeWalker walker(stats);
  for (int pass = 0; pass < 2; ++pass)
    EXPECT_EQ(walkNames(walker, tree.root(), {.maxDepth = 20}), expected) << "pass " << pass;
  EXPECT_EQ(stats.files, 2 * expected.size());
  EXPECT_EQ(stats.unreadableFolders, 0u);
}

TEST(TreeWalker, NeverEntersExcludedFoldersHoweverReached) {
  TempTree tree;
  tree.file("keep/file");
  tree.file("private/secret");
  tree.link(tree.path("private"), "keep/door");
  ScanStats stats;
  TreeWalker walker(stats);
  walker.exclude({tree.path("private"), tree.path("no-such-folder")});
  EXPECT_EQ(walkNames(walker, tree.root(), {.maxDepth = 5}), NameSet{"keep/file"});
  EXPECT_EQ(stats.excludedFolders, 2u);

  // The system's own exclusions: /proc is its own file system, so nothing
  // on it is entered even through another name for it.
  walker.exclude({"/proc"});
  EXPECT_TRUE(walkNames(walker, "/proc/self", {.maxDepth = 3}).empty());
}

TEST(TreeWalker, UnreadableFoldersAreCountedAndSkipped) {
  TempTree tree;
  for (const char* name : {"open/a", "locked/b", "open/deeper/locked/c", "open/deeper/d"})
    tree.file(name);
  ScanStats stats;
  TreeWalker walker(stats);
  walker.setFolderOpener([](int dirFd, const char* name, const std::string& path) {
    if (lastPathComponent(path) != "locked") return openFolder(dirFd, name, path);
    errno = EACCES;
    return -1;
  });
  EXPECT_EQ(walkNames(walker, tree.root(), {.maxDepth = 5}), (NameSet{"open/a", "open/deeper/d"}));
  EXPECT_EQ(stats.unreadableFolders, 2u);
  EXPECT_EQ(NameSet(stats.unreadablePaths.begin(), stats.unreadablePaths.end()),
            (NameSet{tree.path("locked"), tree.path("open/deeper/locked")}));

  // A missing root is not an unreadable one; a file root is reported.
  walker.walk(tree.path("absent"), {}, [](const FoundFile&) {});
  EXPECT_EQ(stats.unreadableFolders, 2u);
  Names names;
  walker.walk(tree.path("open/a"), {}, [&](const FoundFile& f) {
    struct stat st {};
    EXPECT_TRUE(f.stat(st) && S_ISREG(st.st_mode));
    names.emplace_back(f.name());
  });
  EXPECT_EQ(names, Names{"a"});

  // Past the first 50, unreadable folders are counted but no longer named.
  for (int i = 0; i <= 50; ++i) tree.file("many/" + std::to_string(i) + "/locked/x");
  walker.walk(tree.path("many"), {.maxDepth = 5}, [](const FoundFile&) {});
  EXPECT_EQ(stats.unreadableFolders, 53u);
  EXPECT_EQ(stats.unreadablePaths.size(), ScanStats::kMaxUnreadableListed);
}

TEST(DesktopEntry, ProgramOfExecSeesThroughQuotingAndWrappers) {
  for (const auto& [exec, program] :
       std::vector<std::pair<std::string, std::optional<std::string>>>{
           {"/opt/acme/bin/acme-editor --new-window %F", "acme-editor"},
           // \s is a space in every string value (and separates unless quoted);
           // \\\" is a quote inside quotes.
           {"\"/opt/Acme\\sSuite/run\"", "run"},
           {"/opt/Acme\\sSuite/run", "Acme"},
           {"\"/opt/odd \\\\\"name\\\\\"/tool\" -x", "tool"},
           {"env -u FOO LANG=C acme", "acme"},
           {"/usr/bin/env --unset=FOO -C /tmp acme", "acme"},
           {"/usr/bin/flatpak run --branch=stable --arch=x86_64 --command=acme-bin "
            "--file-forwarding com.acme.Editor @@u %U @@",
            "acme-bin"},
           {"flatpak run --branch=stable com.acme.Editor %U", "com.acme.Editor"},
           // An empty command or app id is passed over, never answered.
           {"flatpak run --command= com.acme.Editor", "com.acme.Editor"},
           {"flatpak run \"\" com.acme.Editor", "com.acme.Editor"},
           {"  spaced   ", "spaced"},
           {"", std::nullopt},
           {"env FOO=1", std::nullopt}})
    EXPECT_EQ(programOfExec(exec), program) << exec;
}

// Each program counts once, from every Exec line of the first mebibyte.
TEST(DesktopEntry, EveryExecLineOfTheFirstMebibyteCountsOnce) {
  TempTree tree;
  const std::size_t limit = 1 << 20;
  const std::string exec = "\nExec=far-tool\n";
  for (const auto& [name, text, expected] :
       std::vector<std::tuple<std::string, std::string, Names>>{
           {"empty", "", {}},
           {"every exec",
            "[Desktop Entry]\r\nName=Acme Editor\r\nExecutable=not-this\r\n"
            "TryExec=not-this-either\r\nExec = acme-editor %U\r\n\n"
            "[Desktop Action new-window]\nExec=/opt/acme/acme-helper --new\n"
            "[Desktop Action again]\nExec=acme-editor --again\n# Exec=commented-out\n",
            {"acme-editor", "acme-helper"}},
           {"ends at the limit", std::string(limit - exec.size(), '#') + exec, {"far-tool"}},
           {"cut at the limit", std::string(limit - 3, '#') + exec, {}},  // "\nEx" fits
           {"far past the limit", std::string(3 * limit, '#') + exec, {}}})
    EXPECT_EQ(execProgramsOfFile(tree.file(name + ".desktop", text)), expected) << name;
  EXPECT_TRUE(execProgramsOfFile("/nonexistent/entry.desktop").empty());
}

// A check list record; `original` is the program's file name where it is not `exe`.
MemoryList::Row product(std::string exe, std::string company, std::string product,
                        std::string version, std::string price, std::string group,
                        std::string original = "") {
  MemoryList::Row row{{"DB_ID", "ID-" + exe},    {"COMPANY", company},      {"PRODUCT", product},
                      {"VERSION", version},      {"ORIGINAL_FILE", exe},    {"EXE_FILE", exe},
                      {"DISP_COMPANY", company}, {"DISP_PRODUCT", product}, {"PRICE", price},
                      {"SW_TYPE", "Commercial"}, {"GRP_ID", group},         {"GRP_NAME", group}};
  if (!original.empty()) row["ORIGINAL_FILE"] = original;
  return row;
}

struct FixedFonts : FontCatalog {
  Names fontFiles() override {
    return {"/elsewhere/fonts/FancySans.otf", "/elsewhere/fonts/Unknown.ttf"};
  }
};

// Each finding as "maker/product/list: places", relative to `root`.
Names rowsOf(const AuditResult& result, const std::string& root) {
  Names rows;
  for (const Finding& f : result.findings) {
    std::string row = f.maker + "/" + f.product + "/" + f.list + ":";
    for (const std::string& place : f.places)
      row += " " + (place.starts_with(root) ? place.substr(root.size() + 1) : place);
    rows.push_back(row);
  }
  return rows;
}

// One small machine with a bit of everything, and what should be found on it.
class AuditorMachine : public ::testing::Test {
 protected:
  AuditorMachine() {
    tree.executable("path1/acmeedit");
    tree.executable("path1/ACMEVIEW");
    tree.file("path1/notexec-tool");         // on the list but not executable
    tree.executable("path1/sub/deep-tool");  // PATH folders are not searched below
    tree.executable("path2/acme-editor-user");
    tree.executable("opt/vendor/app/bin/zcad");
    tree.executable("opt/a/b/c/d/e/f/toodeep");  // one level too deep
    tree.file("apps/post-mailer.desktop", "[Desktop Entry]\nExec=env X=1 /snap/bin/mailer %U\n");
    tree.file("apps/filt.desktop", "[Desktop Entry]\nExec=filtered-tool\n");
    tree.file("apps/not-an-entry.txt", "Exec=toodeep\n");
    tree.file("home/Apps/Painter-1.2-x86_64.AppImage");  // AppImages need no x bit
    tree.file("home/.cache/Hidden.AppImage");
    tree.file("fonts/truetype/NanumMyeongjo.ttf");
    plan.pathFolders = {tree.path("path1"), tree.path("path2")};
    plan.softwareTrees = {tree.path("opt")};
    plan.softwareDepth = 5;
    plan.desktopFolders = {tree.path("apps")};
    plan.appImageFolders = {tree.path("home")};
    plan.fontFolders = {tree.path("fonts")};
    plan.fontCatalog = &catalog;
  }

  TempTree tree;
  MemoryList checkList{
      {product("acmeedit", "Acme", "Editor", "2.0", "1,200,000", "Office"),
       product("acmeview", "Acme", "Viewer", "1.0", "50000", "Office"),
       product("notexec-tool", "Nox", "Tool", "1", "10", "Office"),
       product("deep-tool", "Deep", "Tool", "1", "10", "Office"),
       product("zcad", "Zeta", "CAD", "7", "3000000", "Design"),
       product("toodeep", "Far", "Away", "1", "10", "Design"),
       product("filtered-tool", "Filt", "Ered", "1", "999", "Office"),
       product("Painter-1.2-x86_64.AppImage", "brush co", "Painter", "1.2", "80000", "Design"),
       product("Hidden.AppImage", "Hid", "Den", "1", "10", "Design")}};
  MemoryList userList{
      {product("mailer", "Post", "Mailer", "3", "free", ""),
       // The check list's Acme Editor again, under another file name.
       product("acme-editor-user", "ACME", "editor", "2.0", "1", "Other", "acmeedit")}};
  MemoryList fontList{{product("NanumMyeongjo.ttf", "나눔", "명조", "1", "30000", "Fonts"),
                       product("FancySans.otf", "Fancy", "Sans", "2", "12.5", "Fonts")}};
  MemoryFilter filter{{"FILT\tered\t1\tfiltered-tool"}};
  AuditSources sources{.checkList = &checkList,
                       .userCheckList = &userList,
                       .fontList = &fontList,
                       .filter = &filter};
  FixedFonts catalog;
  ScanPlan plan;
};

TEST_F(AuditorMachine, FindsExactlyTheListedProductsWhereTheyAre) {
  for (int i = 0; i < 200; ++i) tree.executable("path1/unlisted-" + std::to_string(i));
  AuditResult result = Auditor(sources).run(plan);
  // acmeedit, ACMEVIEW, zcad, filtered-tool and the Painter AppImage reach
  // the look-up; notexec-tool is refused for its mode before it, and none
  // of the 200 unlisted names gets that far.
  EXPECT_EQ(checkList.lookups, 5);
  EXPECT_EQ(rowsOf(result, tree.root()),
            (Names{
                // One finding for Acme Editor, from the check list, with both places.
                "Acme/Editor/checklist: path1/acmeedit path2/acme-editor-user",
                "Acme/Viewer/checklist: path1/ACMEVIEW",
                "brush co/Painter/checklist: home/Apps/Painter-1.2-x86_64.AppImage",
                "Fancy/Sans/fontlist: /elsewhere/fonts/FancySans.otf",
                "Post/Mailer/userchecklist: apps/post-mailer.desktop",
                "Zeta/CAD/checklist: opt/vendor/app/bin/zcad",
                "나눔/명조/fontlist: fonts/truetype/NanumMyeongjo.ttf",
            }));
  EXPECT_EQ(result.filteredHits, 1u);
  EXPECT_EQ(result.fontFilesListed, 2u);
  // Totals: the mailer's "free" is no amount and adds nothing.
  Names groups;
  for (const auto& g : result.totals.groups)
    groups.push_back(g.group + " " + std::to_string(g.count) + " " + g.price.toString());
  groups.push_back("Total " + std::to_string(result.totals.count) + " " +
                   result.totals.price.toString());
  EXPECT_EQ(groups, (Names{" 1 0", "Design 2 3080000", "Fonts 2 30012.50", "Office 2 1250000",
                           "Total 7 4360012.50"}));

  // Without a software list no software folder is walked.
  const AuditResult fonts = Auditor({.fontList = &fontList}).run(plan);
  EXPECT_EQ(rowsOf(fonts, tree.root()),
            (Names{"Fancy/Sans/fontlist: /elsewhere/fonts/FancySans.otf",
                   "나눔/명조/fontlist: fonts/truetype/NanumMyeongjo.ttf"}));
  EXPECT_EQ(fonts.stats.folders, 2u);
}

TEST(Auditor, NamesMatchTheListsThatHoldThemInAnyLetterCase) {
  MemoryList software({product("Acme-Edit", "Acme", "Editor", "1", "10", "Office"),
                       product("ÉDITEUR", "Éd", "Iteur", "1", "10", "Office")});
  MemoryList user({product("mailer", "Post", "Mailer", "1", "10", "Office")});
  MemoryList fonts({product("Serif.TTF", "Type", "Serif", "1", "5", "Fonts"),
                    product("acme-edit", "Type", "Acme Font", "1", "5", "Fonts")});
  // (name, as a font, products found); a software name is no font and back.
  for (const auto& [name, asFont, found] : std::vector<std::tuple<std::string, bool, Names>>{
           {"ACME-EDIT", false, {"Editor"}},
           {"acme-edit", true, {"Acme Font"}},
           {"éditeur", false, {"Iteur"}},  // lower-cased beyond ASCII
           {"MAILER", false, {"Mailer"}},
           {"serif.ttf", true, {"Serif"}},
           {"Serif.ttf", false, {}}}) {
    Auditor auditor({.checkList = &software, .userCheckList = &user, .fontList = &fonts});
    asFont ? auditor.considerFont(name, "/x") : auditor.considerSoftware(name, "/x");
    Names products;
    for (const Finding& f : auditor.takeResult().findings) products.push_back(f.product);
    EXPECT_EQ(products, found) << name;
  }
}

TEST(ScanPlanTest, SystemPlanFromTheEnvironment) {
  // PATH and HOME; XDG_DATA_HOME and XDG_DATA_DIRS unset.
  ScanPlan plan = systemScanPlan({"/usr/bin:relative:/usr/bin/::", "/home/kim", "", ""});
  // Relative and empty entries are left out, and a folder counts once.
  EXPECT_EQ(plan.pathFolders, Names{"/usr/bin"});
  // Unset XDG folders take their documented defaults.
  EXPECT_THAT(
      plan.desktopFolders,
      ::testing::IsSupersetOf({"/home/kim/.local/share/applications", "/usr/share/applications",
                               "/home/kim/.local/share/flatpak/exports/share/applications"}));
  EXPECT_THAT(plan.fontFolders,
              ::testing::IsSupersetOf({"/home/kim/.local/share/fonts", "/usr/local/share/fonts"}));
}

}  // namespace
}  // namespace quarvel::audit
