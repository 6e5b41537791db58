#include "audit/Auditor.h"

#include <gtest/gtest.h>

#include "support/AuditFixtures.h"

namespace quarvel::audit {
namespace {

using quarvel::testing::MemoryFilter;
using quarvel::testing::MemoryList;
using quarvel::testing::TempTree;

MemoryList::Row product(std::string exe, std::string company, std::string product,
                        std::string version, std::string price, std::string group) {
  return {{"DB_ID", "ID-" + exe},    {"COMPANY", company},      {"PRODUCT", product},
          {"VERSION", version},      {"ORIGINAL_FILE", exe},    {"EXE_FILE", exe},
          {"DISP_COMPANY", company}, {"DISP_PRODUCT", product}, {"PRICE", price},
          {"SW_TYPE", "Commercial"}, {"GRP_ID", group},         {"GRP_NAME", group}};
}

// The record names the same product (company, product, version, original
// file) as a record whose original file is `originalFile`.
MemoryList::Row sameProductAs(std::string originalFile, MemoryList::Row row) {
  row["ORIGINAL_FILE"] = std::move(originalFile);
  return row;
}

class FixedFonts : public FontCatalog {
 public:
  explicit FixedFonts(std::vector<std::string> files) : files_(std::move(files)) {}
  std::vector<std::string> fontFiles() override { return files_; }

 private:
  std::vector<std::string> files_;
};

// Each finding as "maker/product/list: places", relative to `root`.
std::vector<std::string> rowsOf(const AuditResult& result, const std::string& root) {
  std::vector<std::string> rows;
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
  AuditorMachine()
      : checkList({
            product("acmeedit", "Acme", "Editor", "2.0", "1,200,000", "Office"),
            product("acmeview", "Acme", "Viewer", "1.0", "50000", "Office"),
            product("notexec-tool", "Nox", "Tool", "1", "10", "Office"),
            product("deep-tool", "Deep", "Tool", "1", "10", "Office"),
            product("zcad", "Zeta", "CAD", "7", "3000000", "Design"),
            product("toodeep", "Far", "Away", "1", "10", "Design"),
            product("filtered-tool", "Filt", "Ered", "1", "999", "Office"),
            product("Painter-1.2-x86_64.AppImage", "brush co", "Painter", "1.2", "80000", "Design"),
            product("Hidden.AppImage", "Hid", "Den", "1", "10", "Design"),
        }),
        userList({
            product("mailer", "Post", "Mailer", "3", "free", ""),
            // The check list's Acme Editor again, under another file name.
            sameProductAs("acmeedit",
                          product("acme-editor-user", "ACME", "editor", "2.0", "1", "Other")),
        }),
        fontList({
            product("NanumMyeongjo.ttf", "나눔", "명조", "1", "30000", "Fonts"),
            product("FancySans.otf", "Fancy", "Sans", "2", "12.5", "Fonts"),
        }),
        filter({"FILT\tered\t1\tfiltered-tool"}) {
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

  AuditSources sources() {
    return {.checkList = &checkList,
            .userCheckList = &userList,
            .fontList = &fontList,
            .filter = &filter};
  }

  TempTree tree;
  MemoryList checkList, userList, fontList;
  MemoryFilter filter;
  FixedFonts catalog{{"/elsewhere/fonts/FancySans.otf", "/elsewhere/fonts/Unknown.ttf"}};
  ScanPlan plan;
};

TEST_F(AuditorMachine, FindsExactlyTheListedProductsWhereTheyAre) {
  for (int i = 0; i < 200; ++i) tree.executable("path1/unlisted-" + std::to_string(i));
  Auditor auditor(sources());
  AuditResult result = auditor.run(plan);
  // acmeedit, ACMEVIEW, zcad, filtered-tool and the Painter AppImage reach
  // the look-up; notexec-tool is refused for its mode before it, and none
  // of the 200 unlisted names gets that far.
  EXPECT_EQ(checkList.lookups, 5);

  EXPECT_EQ(rowsOf(result, tree.root()),
            (std::vector<std::string>{
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
  std::vector<std::string> groups;
  for (const auto& g : result.totals.groups)
    groups.push_back(g.group + " " + std::to_string(g.count) + " " + g.price.toString());
  EXPECT_EQ(groups, (std::vector<std::string>{" 1 0", "Design 2 3080000", "Fonts 2 30012.50",
                                              "Office 2 1250000"}));
  EXPECT_EQ(result.totals.count, 7u);
  EXPECT_EQ(result.totals.price.toString(), "4360012.50");
}

TEST_F(AuditorMachine, TreesGivenByTheUserTakeEveryKindOfFile) {
  ScanPlan trees;
  trees.trees = {tree.root()};
  trees.excluded = {tree.path("apps")};
  Auditor auditor(sources());
  AuditResult result = auditor.run(trees);
  std::vector<std::string> products;
  for (const Finding& f : result.findings) products.push_back(f.product);
  // Everything below the root counts, the deep tool and the hidden AppImage
  // included; the desktop entries are in an excluded folder.
  EXPECT_EQ(products, (std::vector<std::string>{"Editor", "Viewer", "Painter", "Tool", "Away",
                                                "Den", "CAD", "명조"}));
  EXPECT_EQ(result.filteredHits, 0u);
  EXPECT_EQ(result.stats.excludedFolders, 1u);
}

TEST(Auditor, NamesMatchTheListsThatHoldThemInAnyLetterCase) {
  MemoryList software({product("Acme-Edit", "Acme", "Editor", "1", "10", "Office"),
                       product("ÉDITEUR", "Éd", "Iteur", "1", "10", "Office")});
  MemoryList user({product("mailer", "Post", "Mailer", "1", "10", "Office")});
  MemoryList fonts({product("Serif.TTF", "Type", "Serif", "1", "5", "Fonts"),
                    product("acme-edit", "Type", "Acme Font", "1", "5", "Fonts")});
  struct Case {
    const char* name;
    bool asFont;
    std::vector<std::string> products;  // found, in report order
  } cases[] = {
      {"ACME-EDIT", false, {"Editor"}},
      {"acme-edit", true, {"Acme Font"}},  // the same name on the font list
      {"éditeur", false, {"Iteur"}},       // lower-cased beyond ASCII
      {"MAILER", false, {"Mailer"}},
      {"mailer", true, {}},  // a software name is no font
      {"serif.ttf", true, {"Serif"}},
      {"Serif.ttf", false, {}},  // a font name is no program
      {"acme-edit2", false, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Auditor auditor({.checkList = &software, .userCheckList = &user, .fontList = &fonts});
    if (c.asFont)
      auditor.considerFont(c.name, "/x");
    else
      auditor.considerSoftware(c.name, "/x");
    std::vector<std::string> products;
    for (const Finding& f : auditor.takeResult().findings) products.push_back(f.product);
    EXPECT_EQ(products, c.products);
  }
}

TEST(Auditor, WithoutListsOfAKindThatKindIsNotScanned) {
  TempTree tree;
  tree.file("fonts/A.ttf");
  MemoryList fonts({product("A.ttf", "Type", "A", "1", "5", "Fonts")});
  ScanPlan plan;
  plan.pathFolders = {tree.path("fonts")};
  plan.fontFolders = {tree.path("fonts")};
  Auditor auditor({.fontList = &fonts});
  AuditResult result = auditor.run(plan);
  ASSERT_EQ(result.findings.size(), 1u);
  EXPECT_EQ(result.findings[0].kind, FindingKind::Font);
  EXPECT_EQ(result.stats.folders, 1u);  // the PATH folder was not listed
}

TEST(ScanPlanTest, SystemPlanFromTheEnvironment) {
  ScanPlan plan = systemScanPlan({.path = "/usr/bin:relative:/usr/bin/::",
                                  .home = "/home/kim",
                                  .xdgDataHome = "",
                                  .xdgDataDirs = ""});
  // Relative and empty entries are left out, and a folder counts once.
  EXPECT_EQ(plan.pathFolders, std::vector<std::string>{"/usr/bin"});
  auto has = [](const std::vector<std::string>& v, const std::string& s) {
    return std::find(v.begin(), v.end(), s) != v.end();
  };
  // Unset XDG folders take their documented defaults.
  for (const char* folder : {"/home/kim/.local/share/applications", "/usr/share/applications",
                             "/home/kim/.local/share/flatpak/exports/share/applications"})
    EXPECT_TRUE(has(plan.desktopFolders, folder)) << folder;
  EXPECT_TRUE(has(plan.fontFolders, "/home/kim/.local/share/fonts"));
  EXPECT_TRUE(has(plan.fontFolders, "/usr/local/share/fonts"));
}

}  // namespace
}  // namespace quarvel::audit
