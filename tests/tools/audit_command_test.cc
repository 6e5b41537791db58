// The audit end to end: the bundled lists against a generated tree that
// holds some of their products, in every report format.

#include <gtest/gtest.h>

#include <functional>
#include <nlohmann/json.hpp>
#include <sstream>

#include "audit/AuditCommand.h"
#include "support/AuditFixtures.h"
#include "support/FileText.h"
#include "support/SettingsSandbox.h"

namespace quarvel::audit {
namespace {

using quarvel::testing::TempTree;

const std::string kSamples = QUARVEL_SAMPLES;

std::string withoutRoot(std::string text, const std::string& root) {
  for (std::size_t at = text.find(root); at != std::string::npos; at = text.find(root, at))
    text.replace(at, root.size(), "<T>");
  return text;
}

class AuditCommand : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!std::filesystem::exists(kSamples + "/macchecklist.dat")) GTEST_SKIP() << "no sample lists";
    machine.executable("usr/bin/photoloom6");
    machine.executable("opt/tidewell/bin/tidewell-writer");  // two programs of one product
    machine.executable("opt/tidewell/bin/tidewell-calc");
    machine.file("usr/share/applications/hangyeol-docs.desktop",
                 "[Desktop Entry]\nExec=/opt/hangyeol/docs/hangyeol-docs %F\n");
    machine.file("var/lib/flatpak/exports/share/applications/com.quillmark.Notes.desktop",
                 "[Desktop Entry]\nExec=/usr/bin/flatpak run --branch=stable --arch=x86_64 "
                 "--command=quillmark com.quillmark.Notes\n");
    machine.executable("usr/bin/clipnest");          // on the filter list
    machine.executable("usr/bin/photoloom-viewer");  // user list, on the filter list
    machine.file("usr/bin/daon-cad");                // listed, but not executable
    machine.file("usr/share/fonts/truetype/nuri/NuriMyeongjo-Regular.ttf");
    machine.file("usr/share/fonts/truetype/nuri/NuriMyeongjo-Bold.ttf");
    machine.file("home/kim/.fonts/KestrelSans-Bold.otf");
    for (int i = 0; i < 60; ++i) machine.executable("usr/bin/other-" + std::to_string(i));
  }

  AuditCommandOptions options(ReportFormat format) {
    AuditCommandOptions o;
    o.trees = {machine.root()};
    o.checkList = kSamples + "/macchecklist.dat";
    o.userCheckList = kSamples + "/userchecklist.dat";
    o.filterList = kSamples + "/macfilterlist.dat";
    o.fontList = kSamples + "/fontchecklist.dat";
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

  TempTree machine;
  TempTree output;
  std::string errors;
};

// Each finding as "id list: maker/product version price type group: places";
// the records and lists behind it show only in the JSON.
TEST_F(AuditCommand, TheBundledListsFindTheirProducts) {
  const auto doc = nlohmann::json::parse(run(options(ReportFormat::Json)));
  std::vector<std::string> rows;
  for (const auto& f : doc["findings"]) {
    std::string row = f["id"].get<std::string>() + " " + f["list"].get<std::string>() + ": " +
                      f["maker"].get<std::string>() + "/" + f["product"].get<std::string>() + " " +
                      f["version"].get<std::string>() + " " + f["price"].dump() + " " +
                      f["type"].get<std::string>() + " " + f["group"].get<std::string>() + ":";
    for (const auto& place : f["where"]) row += " " + place.get<std::string>();
    rows.push_back(row);
  }
  EXPECT_EQ(rows,
            (std::vector<std::string>{
                "SW100102 checklist: Brightpath Labs/PhotoLoom 6 6.0 550000 1 그래픽: "
                "<T>/usr/bin/photoloom6",
                "FT300302 fontlist: Kestrel Type/Kestrel Sans Bold 1.3 120000 1 고딕: "
                "<T>/home/kim/.fonts/KestrelSans-Bold.otf",
                "US000003 userchecklist: Quillmark/Quillmark Notes 4.2 59000 2 사무용: "
                "<T>/var/lib/flatpak/exports/share/applications/com.quillmark.Notes.desktop",
                "SW100201 checklist: Tidewell Software/Tidewell Office 2023 2023 320000 1 사무용: "
                "<T>/opt/tidewell/bin/tidewell-calc <T>/opt/tidewell/bin/tidewell-writer",
                // Both weights are one product; the first record names it.
                "FT300101 fontlist: 누리글꼴/누리명조 Regular 2.0 88000 1 명조: "
                "<T>/usr/share/fonts/truetype/nuri/NuriMyeongjo-Bold.ttf "
                "<T>/usr/share/fonts/truetype/nuri/NuriMyeongjo-Regular.ttf",
                "SW100301 checklist: 한결소프트/한결 문서편집기 3.1 3.1 180000 1 사무용: "
                "<T>/usr/share/applications/hangyeol-docs.desktop",
            }));
  EXPECT_EQ(doc["totals"], nlohmann::json::parse(R"({"groups": [
      {"group": "고딕", "count": 1, "price": 120000}, {"group": "그래픽", "count": 1, "price": 550000},
      {"group": "명조", "count": 1, "price": 88000}, {"group": "사무용", "count": 3, "price": 559000}],
      "count": 6, "price": 1317000})"));
  EXPECT_EQ(doc["scan"]["filteredHits"], 2);
  EXPECT_EQ(doc["scan"]["files"], 71);
  EXPECT_NE(errors.find("files in"), std::string::npos) << errors;
  EXPECT_NE(errors.find("2 filtered"), std::string::npos) << errors;
}

// The table on standard output and the page beside it (the formats
// themselves are the report's own tests).
TEST_F(AuditCommand, TableAndPageBesideIt) {
  AuditCommandOptions o = options(ReportFormat::Table);
  o.htmlFile = output.path("report.html");
  const std::string table = run(o);
  EXPECT_NE(table.find("\nTotal       6  1,317,000\n"), std::string::npos) << table;
  const std::string page = quarvel::testing::readFile(*o.htmlFile);
  EXPECT_NE(page.find("<td class=\"num\">6</td><td class=\"num\">1,317,000</td>"),
            std::string::npos);
}

TEST_F(AuditCommand, OptionsThatNarrowOrStopTheRun) {
  const struct {
    const char* name;
    std::function<void(AuditCommandOptions&)> change;
    int status;
    const char* error;  // on standard error when the run fails
    int count;          // findings when it does not
  } cases[] = {
      {"filter list of another kind",
       [](auto& o) { o.filterList = kSamples + "/userchecklist.dat"; }, 1,
       "cannot open the filter list", 0},
      {"page in a missing folder",
       [&](auto& o) { o.htmlFile = output.path("no-such-folder/report.html"); }, 1, "cannot write",
       0},
      {"fonts left out", [](auto& o) { o.fonts = false; }, 0, "", 4},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    AuditCommandOptions o = options(ReportFormat::Json);
    c.change(o);
    const std::string out = run(o, c.status);
    if (c.status == 0) {
      EXPECT_EQ(nlohmann::json::parse(out)["totals"]["count"], c.count);
    } else {
      EXPECT_NE(errors.find(c.error), std::string::npos) << errors;
    }
  }
}

TEST_F(AuditCommand, ListsComeFromTheLibraryFolderByDefault) {
  quarvel::testing::SettingsSandbox sandbox;
  const std::string library = sandbox.root() + "/data/Quarvel";
  std::filesystem::create_directories(library);
  for (const char* name :
       {"macchecklist.dat", "userchecklist.dat", "macfilterlist.dat", "fontchecklist.dat"})
    std::filesystem::copy_file(kSamples + "/" + name, library + "/" + name);
  AuditCommandOptions o;
  o.trees = {machine.root()};
  o.format = ReportFormat::Json;
  o.progress = false;
  EXPECT_EQ(nlohmann::json::parse(run(o))["totals"]["count"], 6);

  // Without any list there is nothing to compare with.
  for (const char* name : {"macchecklist.dat", "userchecklist.dat", "fontchecklist.dat"})
    std::filesystem::remove(library + "/" + name);
  run(o, 1);
  EXPECT_NE(errors.find("no list to compare with"), std::string::npos) << errors;
}

}  // namespace
}  // namespace quarvel::audit
