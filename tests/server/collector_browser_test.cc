// The collector's page as a browser draws it, fetched from the collector on
// loopback (so under its own Content-Security-Policy): headless Chromium
// takes a screenshot and the chart's bars are measured on it.

#include <gtest/gtest.h>

#include "common/Log.h"
#include "server/Collector.h"
#include "server/ReportFixtures.h"
#include "support/AuditFixtures.h"
#include "support/PngImage.h"

namespace quarvel::server {
namespace {

using testing::finding;
using testing::Json;

TEST(CollectorPageInBrowser, ChartBarsAreDrawnInProportion) {
  const std::string browser = quarvel::testing::chromium();
  if (browser.empty() && std::getenv("QUARVEL_SKIP_BROWSER_TESTS"))
    GTEST_SKIP() << "no Chromium, and QUARVEL_SKIP_BROWSER_TESTS is set";
  ASSERT_FALSE(browser.empty())
      << "no Chromium: scripts/install-deps.sh installs chromium-headless-shell; set "
         "QUARVEL_SKIP_BROWSER_TESTS=1 to skip this test";
  quarvel::testing::TempTree tree;
  LogCapture quiet;
  auto store = openSqliteStore(tree.path("collect.sqlite"));
  ASSERT_TRUE(store);
  // Per maker, over two machines: 1,000,000, 500,000 and 200,000.
  const Json one =
      Json::array({finding("다온테크", "Font", 600000), finding("Acme", "Paint", 500000),
                   finding("<b>Zeta</b>", "Z", 200000)});
  const Json two = Json::array({finding("다온테크", "Font", 400000)});
  for (const auto& [n, findings] : {std::pair(1u, one), std::pair(2u, two)})
    ASSERT_EQ(
        testing::send(*store, 1, n, "pc-" + std::to_string(n), "2026-11-18T08:00:00Z", findings),
        ReportStore::Insert::kStored);
  CollectorOptions options;
  options.secret = "secret";
  Collector collector(*store, options);
  const int port = collector.start("127.0.0.1", 0);
  ASSERT_GT(port, 0);

  const std::string shot = tree.path("shot.png");
  ASSERT_EQ(quarvel::testing::screenshot(browser, "http://127.0.0.1:" + std::to_string(port) + "/",
                                         shot, tree.path("profile")),
            0);
  collector.stop();
  EXPECT_TRUE(quiet.contains("\"GET /\" 200"));

  auto image = quarvel::testing::readPng(shot);
  ASSERT_TRUE(image) << "screenshot not readable";
  // Bars are filled with #3b7dd8 by the page's style sheet.
  const std::vector<int> widths = quarvel::testing::barWidths(*image, 0x3b7dd8);
  ASSERT_EQ(widths.size(), 3u);
  const int expected[] = {460, 230, 92};
  for (size_t i = 0; i < 3; ++i) EXPECT_NEAR(widths[i], expected[i], 2) << i;
}

}  // namespace
}  // namespace quarvel::server
