// The HTML report as a browser draws it: headless Chromium takes a
// screenshot and the bars of the chart are measured on it. Skipped where
// Chromium is not installed (it is not a build dependency).

#include <gtest/gtest.h>

#include <array>
#include <cstdlib>

#include "audit/AuditReport.h"
#include "support/AuditFixtures.h"
#include "support/PngImage.h"

namespace quarvel::audit {
namespace {

using quarvel::testing::chromium;

TEST(AuditReportInBrowser, ChartBarsAreDrawnInProportion) {
  const std::string browser = chromium();
  // The page is checked in a real browser wherever the suite runs; only an
  // explicit opt-out lets a machine without one skip it.
  if (browser.empty() && std::getenv("QUARVEL_SKIP_BROWSER_TESTS"))
    GTEST_SKIP() << "no Chromium, and QUARVEL_SKIP_BROWSER_TESTS is set";
  ASSERT_FALSE(browser.empty())
      << "no Chromium: scripts/install-deps.sh installs chromium-headless-shell; set "
         "QUARVEL_SKIP_BROWSER_TESTS=1 to skip this test";
  quarvel::testing::TempTree tree;
  AuditResult result;
  for (auto [maker, price] : {std::pair{"다온테크", "1250000"}, std::pair{"Acme", "625000"},
                              std::pair{"Zeta", "250000"}}) {
    Finding& f = result.findings.emplace_back();
    f.maker = maker, f.priceText = price, f.price = Money::parse(price);
  }
  finishResult(result);
  const std::string page = tree.file("report.html", formatHtml(result));
  const std::string shot = tree.path("shot.png");
  ASSERT_EQ(quarvel::testing::screenshot(browser, "file://" + page, shot, tree.path("profile")), 0);

  auto image = quarvel::testing::readPng(shot);
  ASSERT_TRUE(image) << "screenshot not readable";
  // Bars are filled with #3b7dd8 by the page's style sheet.
  const std::vector<int> widths = quarvel::testing::barWidths(*image, 0x3b7dd8);
  ASSERT_EQ(widths.size(), 3u);
  for (std::size_t i = 0; i < 3; ++i) EXPECT_NEAR(widths[i], (std::array{460, 230, 92}[i]), 2);
}

}  // namespace
}  // namespace quarvel::audit
