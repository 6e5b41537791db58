// The status rules, the flag log line and the factories, from fed flags.

#include "quarvel/Reachability.h"

#include <gtest/gtest.h>

#include <cctype>

#include "common/Log.h"
#include "update/FakeRouteSource.h"

namespace quarvel {
namespace {

TEST(Reachability, StatusRules) {
  struct Case {
    std::uint32_t flags;
    std::int64_t general, local;
  } cases[] = {
      {0x0, 0, 0},     {0x2, 1, 0},        {0x6, 0, 0},     {0x26, 1, 0},    {0xE, 1, 0},
      {0x1E, 0, 0},    {0x36, 0, 0},       {0x40002, 2, 0}, {0x40006, 2, 0}, {0x4001E, 2, 0},
      {0x40000, 0, 0}, {0x20000, 0, 0},    {0x20002, 1, 1}, {0x60002, 2, 1}, {0x20006, 0, 1},
      {0x2000C, 0, 0}, {0xFFFFFFFD, 0, 0},
  };
  auto r = test::monitorFor("192.0.2.9");
  LogCapture capture;
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::Message() << std::hex << "flags 0x" << c.flags);
    EXPECT_EQ(r->networkStatusForFlags(c.flags), c.general);
    EXPECT_EQ(r->localWiFiStatusForFlags(c.flags), c.local);
  }
  EXPECT_EQ(capture.lines().size(), 2 * std::size(cases));
}

TEST(Reachability, FlagLogLine) {
  struct Case {
    std::uint32_t flags;
    bool local;
    const char* line;
  } cases[] = {
      {0x20002, true, "Reachability Flag Status: -R ------d localWiFiStatusForFlags\n"},
      {0x2, false, "Reachability Flag Status: -R ------- networkStatusForFlags\n"},
      {0, false, "Reachability Flag Status: -- ------- networkStatusForFlags\n"},
      {0x7003F, false, "Reachability Flag Status: WR tcCiDld networkStatusForFlags\n"},
      {0x40001, true, "Reachability Flag Status: W- t------ localWiFiStatusForFlags\n"},
  };
  auto r = test::monitorFor("192.0.2.9");
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    LogCapture capture;
    c.local ? r->localWiFiStatusForFlags(c.flags) : r->networkStatusForFlags(c.flags);
    ASSERT_EQ(capture.lines().size(), 1u);
    EXPECT_EQ(capture.lines()[0], c.line);
  }
  EXPECT_EQ(reachabilityFlagLetters(0x10000), "-- -----l-");
}

TEST(Reachability, MonitorsJudgeTheirTargetsFlags) {
  // Flags of every row, unless the row overrides one address.
  const std::pair<const char*, std::uint32_t> world[] = {
      {"0.0.0.0", 0x2},   {"169.254.0.0", 0x2}, {"::", 0x2},
      {"192.0.2.1", 0x2}, {"2001:db8::1", 0x2}, {"2001:db8::2", 0x40002}};
  struct Case {
    const char* what;
    const char* target;  // as test::monitorFor takes it; names resolve to `addresses`
    std::int64_t status;
    std::vector<const char*> addresses = {};
    const char* at = nullptr;  // the address whose flags the row overrides
    std::optional<std::uint32_t> flags = {};
  } const cases[] = {
      {"local link through a gateway", "wifi", 0},
      {"same address, general rule", "169.254.0.0", 1},
      {"local link direct", "wifi", 1, {}, "169.254.0.0", 0x20002},
      {"internet through a gateway", "internet", 1},
      {"internet over WWAN", "internet", 2, {}, "0.0.0.0", 0x40002},
      {"unreadable flags", "internet", 0, {}, "0.0.0.0", std::nullopt},
      {"IPv6 address", "2001:db8::1", 1},
      {"IPv6 address without route", "2001:db8::5", 0},
      {"IPv6 any address", "::", 1},
      {"name that does not resolve", "name:dual.example", 0},
      // A name counts as its first reachable address, whatever the family.
      {"IPv6 only", "name:dual.example", 1, {"2001:db8::1"}},
      {"IPv6 without route", "name:dual.example", 0, {"2001:db8::9"}},
      {"IPv4 without route first", "name:dual.example", 1, {"192.0.2.9", "2001:db8::1"}},
      {"IPv6 without route first", "name:dual.example", 1, {"2001:db8::9", "192.0.2.1"}},
      {"WWAN IPv6 first", "name:dual.example", 2, {"2001:db8::2", "192.0.2.1"}},
      {"IPv4 first", "name:dual.example", 1, {"192.0.2.1", "2001:db8::2"}},
      {"no route in either family", "name:dual.example", 0, {"2001:db8::9", "192.0.2.9"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    test::ScopedFakeRouteSource fake;
    for (const auto& [address, flags] : world) fake->setFlags(address, flags);
    if (c.at) fake->setFlags(c.at, c.flags);
    fake->setName("dual.example", c.addresses);
    auto monitor = test::monitorFor(c.target);
    ASSERT_TRUE(monitor);
    LogCapture capture;
    EXPECT_EQ(monitor->currentReachabilityStatus(), c.status);
    if (std::isdigit(c.target[0]) || c.target[0] == ':')
      EXPECT_EQ(fake->asked().back(), c.target) << "asked for that address, in its family";
    if (c.at && !c.flags)
      EXPECT_TRUE(capture.lines().empty()) << "no status line from unreadable flags";
    else
      EXPECT_TRUE(capture.contains(c.target == std::string("wifi") ? "localWiFiStatusForFlags"
                                                                   : "networkStatusForFlags"));
  }
}

TEST(Reachability, OneMonitorRereadsItsTarget) {
  test::ScopedFakeRouteSource fake;
  fake->setFlags("198.51.100.1", 0x2);
  fake->setFlags("198.51.100.2", 0x40002);
  auto byName = Reachability::reachabilityWithHostName("updates.example");
  LogCapture capture;
  for (auto [address, status] : {std::pair{"198.51.100.2", 2}, {"198.51.100.1", 1}}) {
    fake->setName("updates.example", {address});
    EXPECT_EQ(byName->currentReachabilityStatus(), status) << address;
  }
  EXPECT_EQ(fake->resolveCount(), 2) << "resolved at every read, and only then";

  auto internet = Reachability::reachabilityForInternetConnection();
  capture.clear();
  for (auto [flags, required] :
       {std::pair{std::optional<std::uint32_t>(), false}, {0x6u, true}, {0x2u, false}}) {
    fake->setFlags("0.0.0.0", flags);
    EXPECT_EQ(internet->connectionRequired(), required) << flags.value_or(-1);
  }
  EXPECT_TRUE(capture.lines().empty()) << "connectionRequired computes no status";
}

TEST(Reachability, FactoriesRefuseUnusableTargets) {
  auto usable = [](const std::string& name) {
    return Reachability::reachabilityWithHostName(name) != nullptr;
  };
  for (const char* name : {"", ".", "a..b", ".example.com", "has space.example", "tab\there",
                           "exa/mple", "name:80", "ünicode.example", "\x01", "2001:db8:::1",
                           "2001:db8::1%eth0", "fe80::1/64", "[2001:db8::1]", ":", "1:2:3"})
    EXPECT_FALSE(usable(name)) << name;
  for (const char* name :
       {"example.com.", "under_score-and-dash.example", "x", "192.0.2.1", "2001:db8::1", "::"})
    EXPECT_TRUE(usable(name)) << name;
  std::string longName;
  for (int i = 0; i < 51; ++i) longName += "abcd.";  // 255 bytes
  EXPECT_FALSE(usable(longName + "x"));
  EXPECT_FALSE(usable(std::string(64, 'a') + ".example"));
  EXPECT_TRUE(usable(std::string(63, 'a') + ".example"));
  EXPECT_EQ(Reachability::reachabilityWithAddress(static_cast<const sockaddr_in*>(nullptr)),
            nullptr);
  EXPECT_EQ(Reachability::reachabilityWithAddress(static_cast<const sockaddr_in6*>(nullptr)),
            nullptr);
  sockaddr_in wrong4{};
  wrong4.sin_family = AF_INET6;
  EXPECT_EQ(Reachability::reachabilityWithAddress(&wrong4), nullptr);
  sockaddr_in6 wrong6{};
  wrong6.sin6_family = AF_INET;
  EXPECT_EQ(Reachability::reachabilityWithAddress(&wrong6), nullptr);
}

}  // namespace
}  // namespace quarvel
