#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "audit/AuditReport.h"

namespace quarvel::audit {
namespace {

TEST(Money, ReadsListPrices) {
  struct Case {
    const char* text;
    std::optional<std::int64_t> hundredths;
  } good[] = {
      {"1200000", 120000000}, {"1,200,000", 120000000},
      {" 12.5 ", 1250},       {"0.07", 7},
      {"-3", -300},           {"0", 0},
  };
  for (const Case& c : good) {
    SCOPED_TRACE(c.text);
    auto money = Money::parse(c.text);
    ASSERT_TRUE(money);
    EXPECT_EQ(money->hundredths, *c.hundredths);
  }
  for (const char* bad :
       {"", "free", "12.345", "1.", ",100", "12a", "--1", "99999999999999999999"}) {
    SCOPED_TRACE(bad);
    EXPECT_FALSE(Money::parse(bad));
  }
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
    Finding f;
    f.list = "checklist";
    f.maker = std::move(maker);
    f.product = std::move(product);
    f.version = std::move(version);
    f.priceText = std::move(price);
    f.price = Money::parse(f.priceText);
    f.softwareType = "Commercial";
    f.group = std::move(group);
    f.places = std::move(places);
    result.findings.push_back(std::move(f));
  };
  add("한컴", "오피스", "2024", "250000", "Office", {"/opt/hoffice/bin/hword"});
  add("Acme", "Editor, \"Pro\"", "2.0", "1200000.5", "Office", {"/usr/bin/a", "/usr/local/bin/a"});
  add("Zeta <&>", "CAD", "7", "ask", "", {"/opt/zcad"});
  result.stats.files = 42;
  result.stats.folders = 5;
  finishResult(result);
  return result;
}

TEST(AuditReport, TableAlignsColumnsAndTotals) {
  const std::string expected =
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
      "Total       3  1,450,000.50\n";
  EXPECT_EQ(formatReport(sampleResult(), ReportFormat::Table), expected);
  EXPECT_EQ(formatTable(AuditResult{}),
            "No findings.\n\nGroup  Count  Price\n-----  -----  -----\nTotal      0      0\n");
}

TEST(AuditReport, CsvQuotesAndLabelsEachRow) {
  const std::string expected =
      "Row,Maker,Product,Version,Price,Type,Group,Where,Count\r\n"
      "finding,Acme,\"Editor, \"\"Pro\"\"\",2.0,1200000.50,Commercial,Office,"
      "/usr/bin/a; /usr/local/bin/a,\r\n"
      "finding,Zeta <&>,CAD,7,ask,Commercial,,/opt/zcad,\r\n"
      "finding,한컴,오피스,2024,250000,Commercial,Office,/opt/hoffice/bin/hword,\r\n"
      "group,,,,0,,,,1\r\n"
      "group,,,,1450000.50,,Office,,2\r\n"
      "total,,,,1450000.50,,,,3\r\n";
  EXPECT_EQ(formatReport(sampleResult(), ReportFormat::Csv), expected);
}

TEST(AuditReport, JsonCarriesAmountsAndPlaces) {
  auto doc = nlohmann::json::parse(formatReport(sampleResult(), ReportFormat::Json));
  ASSERT_EQ(doc["findings"].size(), 3u);
  const auto& acme = doc["findings"][0];
  EXPECT_EQ(acme["maker"], "Acme");
  EXPECT_EQ(acme["product"], "Editor, \"Pro\"");
  EXPECT_DOUBLE_EQ(acme["price"].get<double>(), 1200000.5);
  EXPECT_EQ(acme["where"], (nlohmann::json{"/usr/bin/a", "/usr/local/bin/a"}));
  EXPECT_EQ(acme["kind"], "software");
  EXPECT_TRUE(doc["findings"][1]["price"].is_null());
  EXPECT_EQ(doc["findings"][1]["priceText"], "ask");
  EXPECT_EQ(doc["findings"][2]["price"], 250000);  // whole amounts are integers
  EXPECT_EQ(doc["totals"]["count"], 3);
  EXPECT_DOUBLE_EQ(doc["totals"]["price"].get<double>(), 1450000.5);
  EXPECT_EQ(doc["totals"]["groups"][1],
            (nlohmann::json{{"group", "Office"}, {"count", 2}, {"price", 1450000.5}}));
  EXPECT_EQ(doc["scan"]["files"], 42);
}

TEST(AuditReport, HtmlIsSelfContainedWithAChartPerMaker) {
  std::string page =
      formatReport(sampleResult(), ReportFormat::Html,
                   {.title = "Audit", .generatedAt = "2026-11-23 12:00", .host = "pc-7"});
  EXPECT_NE(page.find("<meta charset=\"utf-8\">"), std::string::npos);
  EXPECT_NE(page.find("pc-7 \u00b7 2026-11-23 12:00"), std::string::npos);
  // Text is escaped; no scripts, links or remote addresses.
  EXPECT_NE(page.find("<td>Zeta &lt;&amp;&gt;</td>"), std::string::npos);
  EXPECT_EQ(page.find("Zeta <&>"), std::string::npos);
  for (const char* outside : {"<script", "<link", "src=", "@import", "url(", "https:"})
    EXPECT_EQ(page.find(outside), std::string::npos) << outside;

  // One bar per maker, longest first, widths in proportion to the sums.
  std::vector<std::pair<std::string, int>> bars;  // (title, bar width)
  for (std::size_t at = page.find("<g><title>"); at != std::string::npos;
       at = page.find("<g><title>", at + 1)) {
    const std::size_t titleStart = at + 10;
    const std::string title = page.substr(titleStart, page.find("</title>", at) - titleStart);
    const std::size_t width = page.find("width=\"", page.find("<rect class=\"bar\"", at)) + 7;
    bars.emplace_back(title, std::stoi(page.substr(width, page.find('"', width) - width)));
  }
  ASSERT_EQ(bars.size(), 3u);
  EXPECT_EQ(bars[0].first, "Acme: 1,200,000.50");
  EXPECT_EQ(bars[1].first, "한컴: 250,000");
  EXPECT_EQ(bars[2].first, "Zeta &lt;&amp;&gt;: 0");
  EXPECT_EQ(bars[0].second, 460);
  EXPECT_EQ(bars[1].second, 95);  // 250000 / 1200000.5 of 460
  EXPECT_EQ(bars[2].second, 0);

  EXPECT_EQ(formatHtml(AuditResult{}).find("<svg"), std::string::npos);
}

// A chart label is cut to 30 terminal cells, the ellipsis among them.
TEST(AuditReport, ChartLabelsFitThirtyCellsWithTheirEllipsis) {
  auto repeat = [](std::string_view piece, int times) {
    std::string out;
    for (int i = 0; i < times; ++i) out += piece;
    return out;
  };
  const struct {
    std::string maker, label;
  } cases[] = {
      {repeat("m", 30), repeat("m", 30)},
      {repeat("m", 31), repeat("m", 29) + "\u2026"},
      {repeat("\ud55c", 20), repeat("\ud55c", 14) + "\u2026"},  // two cells each
  };
  AuditResult result;
  for (const auto& c : cases) {
    Finding f;
    f.maker = c.maker;
    f.priceText = "1";
    f.price = Money::parse(f.priceText);
    result.findings.push_back(f);
  }
  finishResult(result);
  const std::string page = formatHtml(result);
  for (const auto& c : cases)
    EXPECT_NE(page.find("\"middle\">" + c.label + "</text>"), std::string::npos) << c.maker;
}

}  // namespace
}  // namespace quarvel::audit
