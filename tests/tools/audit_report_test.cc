// The audit's report in every format, and the whole command: the bundled
// lists against a generated tree that holds some of their products.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>

#include "audit/AuditCommand.h"
#include "audit/AuditReport.h"
#include "support/AuditFixtures.h"
#include "support/FileText.h"
#include "support/SettingsSandbox.h"

namespace quarvel::audit {
namespace {

using Json = nlohmann::json;
using ::testing::HasSubstr;
const std::string kSamples = QUARVEL_SAMPLES;

TEST(Money, ReadsListPrices) {
  const std::pair<const char*, std::int64_t> prices[] = {
      {"1200000", 120000000}, {"1,200,000", 120000000},
      {" 12.5 ", 1250},       {"0.07", 7},
      {"-3", -300},           {"0", 0}};
  for (const auto& [text, hundredths] : prices)
    EXPECT_EQ(Money::parse(text).value_or(Money{-1}).hundredths, hundredths) << text;
  for (const char* bad : {"", "free", "12.345", "1.", ",100", "12a", "--1", "99999999999999999999"})
    EXPECT_FALSE(Money::parse(bad)) << bad;
  EXPECT_EQ(Money{123456789}.toString(true), "1,234,567.89");
  EXPECT_EQ(Money{-100000}.toString(true), "-1,000");
  EXPECT_EQ(Money{100000}.toString(), "1000");
}

// A result with a wide maker, text that needs quoting, a price that is no
// number and a finding seen in two places.
AuditResult sampleResult() {
  AuditResult result;
  auto add = [&](std::string maker, std::string product, std::string version, std::string price,
                 std::string group, std::vector<std::string> places) {
    result.findings.push_back({FindingKind::Software, "checklist", -1, "", maker, product, version,
                               price, Money::parse(price), "Commercial", group, places});
  };
  add("한컴", "오피스", "2024", "250000", "Office", {"/opt/hoffice/bin/hword"});
  add("Acme", "Editor, \"Pro\"", "2.0", "1200000.5", "Office", {"/usr/bin/a", "/usr/local/bin/a"});
  add("Zeta <&>", "CAD", "7", "ask", "", {"/opt/zcad"});
  result.stats.files = 42;
  result.stats.folders = 5;
  finishResult(result);
  return result;
}

TEST(AuditReport, TableAndCsvAlignQuoteAndTotal) {
  EXPECT_EQ(
      formatReport(sampleResult(), ReportFormat::Table),
      "Maker     Product        Version         Price  Type        Group   Where\n"
      "--------  -------------  -------  ------------  ----------  ------  "
      "----------------------------\n"
      "Acme      Editor, \"Pro\"  2.0      1,200,000.50  Commercial  Office  /usr/bin/a; "
      "/usr/local/bin/a\n"
      "Zeta <&>  CAD            7                 ask  Commercial          /opt/zcad\n"
      "한컴      오피스         2024          250,000  Commercial  Office  /opt/hoffice/bin/hword\n"
      "\n"
      "Group   Count         Price\n"
      "------  -----  ------------\n"
      "(none)      1             0\n"
      "Office      2  1,450,000.50\n"
      "Total       3  1,450,000.50\n");
  EXPECT_EQ(formatTable(AuditResult{}),
            "No findings.\n\nGroup  Count  Price\n-----  -----  -----\nTotal      0      0\n");
  EXPECT_EQ(formatReport(sampleResult(), ReportFormat::Csv),
            "Row,Maker,Product,Version,Price,Type,Group,Where,Count\r\n"
            "finding,Acme,\"Editor, \"\"Pro\"\"\",2.0,1200000.50,Commercial,Office,"
            "/usr/bin/a; /usr/local/bin/a,\r\n"
            "finding,Zeta <&>,CAD,7,ask,Commercial,,/opt/zcad,\r\n"
            "finding,한컴,오피스,2024,250000,Commercial,Office,/opt/hoffice/bin/hword,\r\n"
            "group,,,,0,,,,1\r\n"
            "group,,,,1450000.50,,Office,,2\r\n"
            "total,,,,1450000.50,,,,3\r\n");
}

// Amounts are numbers, whole ones integers; a price that is none is null
// beside its text.
TEST(AuditReport, JsonCarriesAmountsAndPlaces) {
  auto doc = Json::parse(formatReport(sampleResult(), ReportFormat::Json));
  Json& f = doc["findings"];
  EXPECT_EQ(
      Json::array({f.size(), f[0]["price"], f[0]["where"], f[1]["price"], f[1]["priceText"],
                   f[2]["price"]}),
      Json::parse(R"([3, 1200000.5, ["/usr/bin/a", "/usr/local/bin/a"], null, "ask", 250000])"));
  EXPECT_EQ(doc["totals"]["groups"][1],
            (Json{{"group", "Office"}, {"count", 2}, {"price", 1450000.5}}));
}

TEST(AuditReport, HtmlIsSelfContainedWithAChartPerMaker) {
  std::string page =
      formatReport(sampleResult(), ReportFormat::Html,
                   {.title = "Audit", .generatedAt = "2026-11-23 12:00", .host = "pc-7"});
  // Text is escaped; no scripts, links or remote addresses.
  for (const char* inside :
       {"<meta charset=\"utf-8\">", "pc-7 \u00b7 2026-11-23 12:00", "<td>Zeta &lt;&amp;&gt;</td>"})
    EXPECT_THAT(page, HasSubstr(inside));
  for (const char* outside : {"Zeta <&>", "<script", "<link", "src=", "@import", "url(", "https:"})
    EXPECT_THAT(page, ::testing::Not(HasSubstr(outside)));

  // One bar per maker, longest first, widths in proportion to the sums
  // (250000 / 1200000.5 of 460).
  std::vector<std::pair<std::string, int>> bars;  // (title, bar width)
  const std::regex bar(R"re(<g><title>([^<]*)</title>.*?<rect class="bar"[^>]* width="(\d+)")re");
  for (std::sregex_iterator it(page.begin(), page.end(), bar), end; it != end; ++it)
    bars.emplace_back((*it)[1], std::stoi((*it)[2]));
  EXPECT_EQ(bars,
            (std::vector<std::pair<std::string, int>>{
                {"Acme: 1,200,000.50", 460}, {"한컴: 250,000", 95}, {"Zeta &lt;&amp;&gt;: 0", 0}}));
  EXPECT_EQ(formatHtml(AuditResult{}).find("<svg"), std::string::npos);
}

TEST(AuditReport, ChartLabelsFitThirtyCellsWithTheirEllipsis) {
  std::string han;  // 20 characters of two cells each
  for (int i = 0; i < 20; ++i) han += "\ud55c";
  const std::pair<std::string, std::string> cases[] = {
      // (maker, label)
      {std::string(30, 'm'), std::string(30, 'm')},
      {std::string(31, 'm'), std::string(29, 'm') + "\u2026"},
      {han, han.substr(0, 14 * 3) + "\u2026"}};
  AuditResult result;
  for (const auto& [maker, label] : cases) {
    Finding& f = result.findings.emplace_back();
    f.maker = maker, f.priceText = "1", f.price = Money{100};
  }
  finishResult(result);
  const std::string page = formatHtml(result);
  for (const auto& [maker, label] : cases)
    EXPECT_THAT(page, HasSubstr("\"middle\">" + label + "</text>"));
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

  // A JSON report of the machine's tree with the bundled lists, or with no list named.
  AuditCommandOptions options(bool lists = true) {
    AuditCommandOptions o;
    o.trees = {machine.root()}, o.format = ReportFormat::Json, o.progress = false;
    if (!lists) return o;
    o.checkList = kSamples + "/macchecklist.dat";
    o.userCheckList = kSamples + "/userchecklist.dat";
    o.filterList = kSamples + "/macfilterlist.dat";
    o.fontList = kSamples + "/fontchecklist.dat";
    return o;
  }

  // Standard output with the tree's root written <T>; standard error is kept in `errors`.
  std::string run(const AuditCommandOptions& o, int expectedStatus = 0) {
    std::ostringstream out, err;
    EXPECT_EQ(runAudit(o, out, err, nullptr), expectedStatus) << err.str();
    errors = err.str();
    std::string text = out.str();
    const std::string& root = machine.root();
    for (std::size_t at = text.find(root); at != std::string::npos; at = text.find(root, at))
      text.replace(at, root.size(), "<T>");
    return text;
  }

  quarvel::testing::TempTree machine, output;
  std::string errors;
};

// Each finding as "id list: maker/product version price type group: places";
// the records and lists behind it show only in the JSON. The page is written beside it.
TEST_F(AuditCommand, TheBundledListsFindTheirProducts) {
  AuditCommandOptions o = options();
  o.htmlFile = output.path("report.html");
  const auto doc = Json::parse(run(o));
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
  EXPECT_EQ(doc["totals"], Json::parse(R"({"groups": [
      {"group": "고딕", "count": 1, "price": 120000}, {"group": "그래픽", "count": 1, "price": 550000},
      {"group": "명조", "count": 1, "price": 88000}, {"group": "사무용", "count": 3, "price": 559000}],
      "count": 6, "price": 1317000})"));
  EXPECT_EQ(doc["scan"]["filteredHits"], 2);
  EXPECT_EQ(doc["scan"]["files"], 71);
  EXPECT_THAT(errors, ::testing::AllOf(HasSubstr("files in"), HasSubstr("2 filtered")));
  EXPECT_THAT(quarvel::testing::readFile(*o.htmlFile),
              HasSubstr("<td class=\"num\">6</td><td class=\"num\">1,317,000</td>"));
}

// Each option in turn on top of the ones before it.
TEST_F(AuditCommand, OptionsThatNarrowOrStopTheRun) {
  AuditCommandOptions o = options();
  o.fonts = false;
  EXPECT_EQ(Json::parse(run(o))["totals"]["count"], 4);
  o.htmlFile = output.path("no-such-folder/report.html");
  run(o, 1);
  EXPECT_THAT(errors, HasSubstr("cannot write"));
  o.filterList = kSamples + "/userchecklist.dat";
  run(o, 1);
  EXPECT_THAT(errors, HasSubstr("cannot open the filter list"));
}

TEST_F(AuditCommand, ListsComeFromTheLibraryFolderByDefault) {
  quarvel::testing::SettingsSandbox sandbox;
  const std::string library = sandbox.root() + "/data/Quarvel";
  std::filesystem::create_directories(library);
  std::filesystem::copy(kSamples, library);  // the bundled lists, as installed
  const AuditCommandOptions o = options(false);
  EXPECT_EQ(Json::parse(run(o))["totals"]["count"], 6);
  // Without any list there is nothing to compare with.
  for (const char* name : {"macchecklist.dat", "userchecklist.dat", "fontchecklist.dat"})
    std::filesystem::remove(library + "/" + name);
  run(o, 1);
  EXPECT_THAT(errors, HasSubstr("no list to compare with"));
}

}  // namespace
}  // namespace quarvel::audit
