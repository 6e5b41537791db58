#include <gtest/gtest.h>

#include <chrono>
#include <nlohmann/json.hpp>

#include "NetIdCommand.h"
#include "settings/NetworkFakes.h"
#include "support/LoopbackHttpServer.h"

namespace quarvel::cli {
namespace {

using namespace std::chrono_literals;

NetworkSources fakeMachine() {
  return {std::make_shared<testing::FakeInterfaces>(std::vector<InterfaceAddress>{
              {"eth0", "18", "52:54:00:12:34:56"},
              {"eth0", "2", "10.0.2.15"},
              {"wlan0", "2", "192.168.1.9"},
              {"enx1", "18", "00:E0:4C:68:00:01"},
          }),
          std::make_shared<testing::FakeServices>(
              ServiceList{{"wlan0", "Wi-Fi"}, {"eth0", "Ethernet"}, {"enx1", "USB Ethernet"}}),
          nullptr};
}

TEST(NetIdCommand, JsonHoldsTheRecordsBehindTheText) {
  testing::LoopbackHttpServer echo(
      [](const testing::HttpReceived&) { return testing::HttpReply::text("198.51.100.4\n"); });
  NetIdResult result =
      gatherNetId({.json = true, .echoHost = echo.hostAndPort(), .wait = 10s}, fakeMachine());
  EXPECT_EQ(renderNetId(result, false),
            "내부 IP : 192.168.1.9<br>외부 IP : 198.51.100.4<br>52:54:00:12:34:56<br>");

  auto doc = nlohmann::json::parse(renderNetId(result, true));
  EXPECT_EQ(doc["text"], result.run.ipStr);
  EXPECT_EQ(doc["external"], "198.51.100.4\n");
  ASSERT_EQ(doc["adapters"].size(), 2u);
  EXPECT_EQ(doc["adapters"][0],
            nlohmann::json({{"device", "wlan0"}, {"ADAPTER", "Wi-Fi"}, {"2", "192.168.1.9"}}));
  EXPECT_EQ(doc["adapters"][1]["18"], "52:54:00:12:34:56");
  EXPECT_EQ(doc["services"].size(), 3u);
}

TEST(NetIdCommand, FailedLookupEndsTheWaitAndShowsNull) {
  auto start = std::chrono::steady_clock::now();
  NetIdResult result =
      gatherNetId({.json = true, .echoHost = "127.0.0.1:1", .wait = 20s}, fakeMachine());
  EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);
  EXPECT_FALSE(result.external);
  EXPECT_EQ(nlohmann::json::parse(renderNetId(result, true))["external"], nullptr);
  EXPECT_NE(result.run.ipStr.find("외부 IP : (null)<br>"), std::string::npos);
}

}  // namespace
}  // namespace quarvel::cli
