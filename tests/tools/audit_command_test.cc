// The audit end to end: enciphered lists written with the library's own
// save, a generated tree, every report format.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <sstream>

#include "audit/AuditCommand.h"
#include "common/StringUtil.h"
#include "quarvel/FileCheckList.h"
#include "quarvel/FileFilter.h"
#include "quarvel/FileFontList.h"
#include "support/AuditFixtures.h"
#include "support/SettingsSandbox.h"

namespace quarvel::audit {
namespace {

using quarvel::testing::TempTree;

template <class File>
void writeList(const std::string& path, const char* recordTag,
               const std::vector<std::vector<std::string>>& records) {
  File file;
  file.getTableByTag("#HEADER")->insertRecord("20261123", "\t");
  for (const auto& values : records)
    ASSERT_GE(file.getTableByTag(recordTag)->insertRecord(join(values, "\t"), "\t"), 0)
        << join(values, "|");
  ASSERT_TRUE(file.saveAsFileName(path, true)) << path;
}

// The 17 values of a check list record (the last three, registry, web and
// licence, are carried but not reported).
std::vector<std::string> software(std::string id, std::string company, std::string product,
                                  std::string version, std::string original, std::string exe,
                                  std::string dispCompany, std::string dispProduct,
                                  std::string price, std::string type, std::string group) {
  return {id,   company, product, version, original, exe, dispCompany, dispProduct, price,
          type, "G",     group,   "1",     "",       "",  "",          ""};
}

// Writes the four lists into `folder` and a machine tree into `tree` that
// holds five of the listed products (one of them filtered) among other files.
void buildListsAndTree(const std::string& folder, const TempTree& tree) {
  writeList<FileCheckList>(folder + "/macchecklist.dat", "#CHECKLIST",
                           {software("DB1", "Hancom", "Hoffice", "2022", "hwp", "hwp",
                                     "한글과컴퓨터", "한컴오피스 한글", "250000", "상용", "오피스"),
                            software("DB2", "Acme", "Editor", "2.0", "acmeedit", "acmeedit", "Acme",
                                     "Editor", "1200000", "Commercial", "Office"),
                            software("DB3", "Zeta", "CAD", "7", "zcad", "zcad", "Zeta", "CAD",
                                     "3000000", "Commercial", "Design"),
                            software("DB4", "Ahnlab", "V3", "9.0", "v3", "v3scan", "안랩",
                                     "V3 백신", "0", "Free", "Security"),
                            software("DB5", "Absent", "Thing", "1", "absent", "absent", "Absent",
                                     "Thing", "1", "X", "Office")});
  writeList<FileCheckList>(folder + "/userchecklist.dat", "#CHECKLIST",
                           {software("U1", "Local", "Tool", "1", "ltool", "ltool", "Local Co",
                                     "In-house Tool", "500", "Commercial", "Office")});
  writeList<FileFilter>(folder + "/macfilterlist.dat", "#SWLIST",
                        {{"AHNLAB", "v3", "9.0", "V3"}, {"Nobody", "Nothing", "0", "none"}});
  writeList<FileFontList>(folder + "/fontchecklist.dat", "#CHECKLIST",
                          {{"F1", "Sandoll", "Gothic", "1", "SDGothic.ttf", "SDGothic.ttf", "산돌",
                            "고딕 네오", "33000", "Font", "G", "Fonts", "1", ""}});

  tree.executable("bin/hwp");
  tree.executable("bin/v3scan");
  tree.executable("bin/ltool");
  tree.executable("opt/acme/2.0/bin/acmeedit");
  tree.file("share/applications/zeta.desktop",
            "[Desktop Entry]\nName=Zeta CAD\nExec=\"/opt/Zeta CAD/zcad\" %F\n");
  tree.file("share/fonts/truetype/SDGothic.ttf");
  for (int i = 0; i < 60; ++i) tree.executable("bin/other-" + std::to_string(i));
  tree.file("opt/acme/2.0/README");
}

std::string withoutRoot(std::string text, const std::string& root) {
  for (std::size_t at = text.find(root); at != std::string::npos; at = text.find(root, at))
    text.replace(at, root.size(), "<T>");
  return text;
}

class AuditCommand : public ::testing::Test {
 protected:
  void SetUp() override { buildListsAndTree(lists.root(), machine); }

  AuditCommandOptions options(ReportFormat format) {
    AuditCommandOptions o;
    o.trees = {machine.root()};
    o.checkList = lists.path("macchecklist.dat");
    o.userCheckList = lists.path("userchecklist.dat");
    o.filterList = lists.path("macfilterlist.dat");
    o.fontList = lists.path("fontchecklist.dat");
    o.format = format;
    o.progress = false;
    return o;
  }

  std::string run(const AuditCommandOptions& o, int expectedStatus = 0) {
    std::ostringstream out;
    std::ostringstream err;
    EXPECT_EQ(runAudit(o, out, err, nullptr), expectedStatus) << err.str();
    errors = err.str();
    return withoutRoot(out.str(), machine.root());
  }

  TempTree lists;
  TempTree machine;
  std::string errors;
};

TEST_F(AuditCommand, TableReportOverEncipheredLists) {
  // The rule under "Where" is as long as the longest place, the font's.
  const std::string whereRule(machine.root().size() + 34, '-');
  EXPECT_EQ(
      run(options(ReportFormat::Table)),
      "Maker         Product          Version      Price  Type        Group   Where\n"
      "------------  ---------------  -------  ---------  ----------  ------  " +
          whereRule +
          "\n"
          "Acme          Editor           2.0      1,200,000  Commercial  Office  "
          "<T>/opt/acme/2.0/bin/acmeedit\n"
          "Local Co      In-house Tool    1              500  Commercial  Office  <T>/bin/ltool\n"
          "Zeta          CAD              7        3,000,000  Commercial  Design  "
          "<T>/share/applications/zeta.desktop\n"
          "산돌          고딕 네오        1           33,000  Font        Fonts   "
          "<T>/share/fonts/truetype/SDGothic.ttf\n"
          "한글과컴퓨터  한컴오피스 한글  2022       250,000  상용        오피스  <T>/bin/hwp\n"
          "\n"
          "Group   Count      Price\n"
          "------  -----  ---------\n"
          "Design      1  3,000,000\n"
          "Fonts       1     33,000\n"
          "Office      2  1,200,500\n"
          "오피스      1    250,000\n"
          "Total       5  4,483,500\n");
  EXPECT_NE(errors.find("files in"), std::string::npos);
  EXPECT_NE(errors.find("1 filtered"), std::string::npos);
}

TEST_F(AuditCommand, JsonCarriesTheSameFindings) {
  auto doc = nlohmann::json::parse(run(options(ReportFormat::Json)));
  std::vector<std::string> ids, lists;
  for (const auto& f : doc["findings"]) {
    ids.push_back(f["id"]);
    lists.push_back(f["list"]);
  }
  EXPECT_EQ(ids, (std::vector<std::string>{"DB2", "U1", "DB3", "F1", "DB1"}));
  EXPECT_EQ(lists, (std::vector<std::string>{"checklist", "userchecklist", "checklist", "fontlist",
                                             "checklist"}));
  EXPECT_EQ(doc["findings"][4]["where"], (nlohmann::json{"<T>/bin/hwp"}));
  EXPECT_EQ(doc["totals"]["count"], 5);
  EXPECT_EQ(doc["totals"]["price"], 4483500);
  EXPECT_EQ(doc["scan"]["filteredHits"], 1);
  EXPECT_EQ(doc["scan"]["files"], 67);
}

TEST_F(AuditCommand, HtmlPageIsWrittenBesideTheReport) {
  AuditCommandOptions o = options(ReportFormat::Table);
  o.htmlFile = lists.path("report.html");
  run(o);
  std::ifstream in(*o.htmlFile);
  std::string page((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  EXPECT_NE(page.find("<td>한컴오피스 한글</td>"), std::string::npos);
  std::size_t bars = 0;
  for (std::size_t at = page.find("class=\"bar\""); at != std::string::npos;
       at = page.find("class=\"bar\"", at + 1))
    ++bars;
  EXPECT_EQ(bars, 5u);

  o.htmlFile = lists.path("no-such-folder/report.html");
  run(o, 1);
  EXPECT_NE(errors.find("cannot write"), std::string::npos);
}

TEST_F(AuditCommand, FilterAndFontsCanBeLeftOut) {
  AuditCommandOptions o = options(ReportFormat::Json);
  o.filterList = lists.path("userchecklist.dat");  // not a filter list: cannot be opened
  run(o, 1);
  EXPECT_NE(errors.find("cannot open the filter list"), std::string::npos);

  o = options(ReportFormat::Json);
  o.fonts = false;
  auto doc = nlohmann::json::parse(run(o));
  EXPECT_EQ(doc["totals"]["count"], 4);
}

TEST(AuditCommandDefaults, ListsComeFromTheLibraryFolder) {
  quarvel::testing::SettingsSandbox sandbox;
  TempTree machine;
  std::string library = sandbox.root() + "/data/Quarvel";
  std::filesystem::create_directories(library);
  buildListsAndTree(library, machine);

  AuditCommandOptions o;
  o.trees = {machine.root()};
  o.format = ReportFormat::Json;
  o.progress = false;
  std::ostringstream out, err;
  ASSERT_EQ(runAudit(o, out, err, nullptr), 0) << err.str();
  EXPECT_EQ(nlohmann::json::parse(out.str())["totals"]["count"], 5);

  // Without any list there is nothing to compare with.
  for (const char* name : {"macchecklist.dat", "userchecklist.dat", "fontchecklist.dat"})
    std::filesystem::remove(library + "/" + name);
  std::ostringstream out2, err2;
  EXPECT_EQ(runAudit(o, out2, err2, nullptr), 1);
  EXPECT_NE(err2.str().find("no list to compare with"), std::string::npos);
}

// The bundled sample lists against a tree that holds some of their products.
TEST(AuditSamples, BundledListsFindTheirProducts) {
  const std::string samples = QUARVEL_SAMPLES;
  if (!std::filesystem::exists(samples + "/macchecklist.dat")) GTEST_SKIP() << "no sample lists";
  TempTree tree;
  tree.executable("usr/bin/photoloom6");
  tree.executable("opt/tidewell/bin/tidewell-writer");  // two programs of one product
  tree.executable("opt/tidewell/bin/tidewell-calc");
  tree.file("usr/share/applications/hangyeol-docs.desktop",
            "[Desktop Entry]\nExec=/opt/hangyeol/docs/hangyeol-docs %F\n");
  tree.file("var/lib/flatpak/exports/share/applications/com.quillmark.Notes.desktop",
            "[Desktop Entry]\nExec=/usr/bin/flatpak run --branch=stable --arch=x86_64 "
            "--command=quillmark com.quillmark.Notes\n");
  tree.executable("usr/bin/clipnest");          // on the filter list
  tree.executable("usr/bin/photoloom-viewer");  // user list, on the filter list
  tree.file("usr/bin/daon-cad");                // listed, but not executable
  tree.file("usr/share/fonts/truetype/nuri/NuriMyeongjo-Regular.ttf");
  tree.file("usr/share/fonts/truetype/nuri/NuriMyeongjo-Bold.ttf");
  tree.file("home/kim/.fonts/KestrelSans-Bold.otf");

  AuditCommandOptions o;
  o.trees = {tree.root()};
  o.checkList = samples + "/macchecklist.dat";
  o.userCheckList = samples + "/userchecklist.dat";
  o.filterList = samples + "/macfilterlist.dat";
  o.fontList = samples + "/fontchecklist.dat";
  o.format = ReportFormat::Csv;
  o.progress = false;
  std::ostringstream out, err;
  ASSERT_EQ(runAudit(o, out, err, nullptr), 0) << err.str();
  EXPECT_EQ(withoutRoot(out.str(), tree.root()),
            "Row,Maker,Product,Version,Price,Type,Group,Where,Count\r\n"
            "finding,Brightpath Labs,PhotoLoom 6,6.0,550000,1,그래픽,<T>/usr/bin/photoloom6,\r\n"
            "finding,Kestrel Type,Kestrel Sans "
            "Bold,1.3,120000,1,고딕,<T>/home/kim/.fonts/KestrelSans-Bold.otf,\r\n"
            "finding,Quillmark,Quillmark Notes,4.2,59000,2,사무용,"
            "<T>/var/lib/flatpak/exports/share/applications/com.quillmark.Notes.desktop,\r\n"
            "finding,Tidewell Software,Tidewell Office 2023,2023,320000,1,사무용,"
            "<T>/opt/tidewell/bin/tidewell-calc; <T>/opt/tidewell/bin/tidewell-writer,\r\n"
            // Both weights are one product; the first record names it.
            "finding,누리글꼴,누리명조 Regular,2.0,88000,1,명조,"
            "<T>/usr/share/fonts/truetype/nuri/NuriMyeongjo-Bold.ttf; "
            "<T>/usr/share/fonts/truetype/nuri/NuriMyeongjo-Regular.ttf,\r\n"
            "finding,한결소프트,한결 문서편집기 3.1,3.1,180000,1,사무용,"
            "<T>/usr/share/applications/hangyeol-docs.desktop,\r\n"
            "group,,,,120000,,고딕,,1\r\n"
            "group,,,,550000,,그래픽,,1\r\n"
            "group,,,,88000,,명조,,1\r\n"
            "group,,,,559000,,사무용,,3\r\n"
            "total,,,,1317000,,,,6\r\n");
  EXPECT_NE(err.str().find("2 filtered"), std::string::npos) << err.str();

  // The other formats carry the same six findings and totals.
  std::ostringstream json, table, ignored;
  o.format = ReportFormat::Json;
  ASSERT_EQ(runAudit(o, json, ignored, nullptr), 0);
  auto doc = nlohmann::json::parse(json.str());
  std::vector<std::string> ids;
  for (const auto& f : doc["findings"]) ids.push_back(f["id"]);
  EXPECT_EQ(ids, (std::vector<std::string>{"SW100102", "FT300302", "US000003", "SW100201",
                                           "FT300101", "SW100301"}));
  EXPECT_EQ(doc["totals"]["price"], 1317000);
  o.format = ReportFormat::Table;
  o.htmlFile = tree.path("report.html");
  ASSERT_EQ(runAudit(o, table, ignored, nullptr), 0);
  EXPECT_NE(table.str().find("\nTotal       6  1,317,000\n"), std::string::npos) << table.str();
  std::ifstream in(*o.htmlFile);
  std::string page((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  EXPECT_NE(page.find("<td>누리명조 Regular</td>"), std::string::npos);
  EXPECT_NE(page.find("<td class=\"num\">6</td><td class=\"num\">1,317,000</td>"),
            std::string::npos);
}

}  // namespace
}  // namespace quarvel::audit
