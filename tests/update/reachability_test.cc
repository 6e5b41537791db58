// The status rules, the flag log line and the factories, from fed flags.

#include "quarvel/Reachability.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include "common/Log.h"
#include "update/FakeRouteSource.h"

namespace quarvel {
namespace {

std::unique_ptr<Reachability> forAddress(const char* dotted) {
  sockaddr_in a{};
  a.sin_family = AF_INET;
  inet_pton(AF_INET, dotted, &a.sin_addr);
  return Reachability::reachabilityWithAddress(&a);
}

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
  auto r = forAddress("192.0.2.9");
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
  auto r = forAddress("192.0.2.9");
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    LogCapture capture;
    c.local ? r->localWiFiStatusForFlags(c.flags) : r->networkStatusForFlags(c.flags);
    ASSERT_EQ(capture.lines().size(), 1u);
    EXPECT_EQ(capture.lines()[0], c.line);
  }
  EXPECT_EQ(reachabilityFlagLetters(0x10000), "-- -----l-");
}

TEST(Reachability, MonitorKindSelectsTheRule) {
  test::ScopedFakeRouteSource fake;
  // Reachable through a gateway: fine for the internet, not for the local link.
  fake->setFlags("169.254.0.0", 0x2);
  fake->setFlags("0.0.0.0", 0x2);
  auto local = Reachability::reachabilityForLocalWiFi();
  auto sameAddress = forAddress("169.254.0.0");
  auto internet = Reachability::reachabilityForInternetConnection();
  LogCapture capture;
  EXPECT_EQ(local->currentReachabilityStatus(), 0);
  EXPECT_TRUE(capture.contains("localWiFiStatusForFlags"));
  EXPECT_EQ(sameAddress->currentReachabilityStatus(), 1);
  EXPECT_EQ(internet->currentReachabilityStatus(), 1);

  fake->setFlags("169.254.0.0", 0x20002);
  EXPECT_EQ(local->currentReachabilityStatus(), 1);
  fake->setFlags("0.0.0.0", 0x40002);
  EXPECT_EQ(internet->currentReachabilityStatus(), 2);
}

TEST(Reachability, UnreadableFlagsGiveNoneAndNoLogLine) {
  test::ScopedFakeRouteSource fake;
  fake->setFlags("0.0.0.0", std::nullopt);
  auto internet = Reachability::reachabilityForInternetConnection();
  LogCapture capture;
  EXPECT_EQ(internet->currentReachabilityStatus(), 0);
  EXPECT_FALSE(internet->connectionRequired());
  EXPECT_TRUE(capture.lines().empty());

  fake->setFlags("0.0.0.0", 0x6);
  EXPECT_TRUE(internet->connectionRequired());
  EXPECT_TRUE(capture.lines().empty()) << "connectionRequired computes no status";
}

TEST(Reachability, HostNameIsResolvedAtEveryRead) {
  test::ScopedFakeRouteSource fake;
  fake->setFlags("198.51.100.1", 0x2);
  fake->setFlags("198.51.100.2", 0x40002);
  auto r = Reachability::reachabilityWithHostName("updates.example");
  ASSERT_TRUE(r);
  LogCapture capture;
  EXPECT_EQ(r->currentReachabilityStatus(), 0) << "a name that does not resolve is not reachable";
  EXPECT_EQ(capture.lines().size(), 1u);

  fake->setName("updates.example", {"192.0.2.50", "198.51.100.2", "198.51.100.1"});
  EXPECT_EQ(r->currentReachabilityStatus(), 2) << "the first reachable address counts";
  fake->setName("updates.example", {"198.51.100.1"});
  EXPECT_EQ(r->currentReachabilityStatus(), 1);
  EXPECT_EQ(fake->resolveCount(), 3);
}

TEST(Reachability, NamesAreJudgedOverEveryFamily) {
  test::ScopedFakeRouteSource fake;
  fake->setFlags("192.0.2.1", 0x2);
  fake->setFlags("2001:db8::1", 0x2);
  fake->setFlags("2001:db8::2", 0x40002);
  // 192.0.2.9 and 2001:db8::9 have no route (flags 0).
  struct Case {
    std::vector<const char*> addresses;
    std::int64_t status;
  } cases[] = {
      {{"2001:db8::1"}, 1},
      {{"2001:db8::9"}, 0},
      {{"192.0.2.9", "2001:db8::1"}, 1},
      {{"2001:db8::9", "192.0.2.1"}, 1},
      {{"2001:db8::2", "192.0.2.1"}, 2},
      {{"192.0.2.1", "2001:db8::2"}, 1},
      {{"2001:db8::9", "192.0.2.9"}, 0},
  };
  auto r = Reachability::reachabilityWithHostName("dual.example");
  ASSERT_TRUE(r);
  LogCapture quiet;
  for (const auto& c : cases) {
    std::string what;
    for (const char* a : c.addresses) what += std::string(a) + " ";
    SCOPED_TRACE(what);
    fake->setName("dual.example", c.addresses);
    EXPECT_EQ(r->currentReachabilityStatus(), c.status);
  }
}

TEST(Reachability, Ipv6AddressesAndLiterals) {
  test::ScopedFakeRouteSource fake;
  fake->setFlags("2001:db8::1", 0x20002);
  fake->setFlags("::", 0x2);
  struct Case {
    const char* address;
    std::int64_t status;
  } cases[] = {{"2001:db8::1", 1}, {"2001:db8::5", 0}, {"::", 1}};
  LogCapture quiet;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.address);
    sockaddr_in6 a{};
    a.sin6_family = AF_INET6;
    ASSERT_EQ(inet_pton(AF_INET6, c.address, &a.sin6_addr), 1);
    auto byAddress = Reachability::reachabilityWithAddress(&a);
    ASSERT_TRUE(byAddress);
    EXPECT_EQ(byAddress->currentReachabilityStatus(), c.status);
    EXPECT_EQ(fake->asked().back(), c.address) << "asked for that address, not an IPv4 one";
    // A literal given as a host name resolves to itself; the fake knows no
    // names, so it is not reachable here, but it is a usable target.
    EXPECT_NE(Reachability::reachabilityWithHostName(c.address), nullptr);
  }

  for (const char* bad :
       {"2001:db8:::1", "2001:db8::1%eth0", "fe80::1/64", "[2001:db8::1]", ":", "1:2:3"}) {
    SCOPED_TRACE(bad);
    EXPECT_EQ(Reachability::reachabilityWithHostName(bad), nullptr);
  }
  sockaddr_in6 wrongFamily{};
  wrongFamily.sin6_family = AF_INET;
  EXPECT_EQ(Reachability::reachabilityWithAddress(&wrongFamily), nullptr);
  EXPECT_EQ(Reachability::reachabilityWithAddress(static_cast<const sockaddr_in6*>(nullptr)),
            nullptr);
}

TEST(Reachability, FactoriesRefuseUnusableTargets) {
  const char* bad[] = {"",          ".",        "a..b",    ".example.com",    "has space.example",
                       "tab\there", "exa/mple", "name:80", "ünicode.example", "\x01"};
  for (const char* name : bad) {
    SCOPED_TRACE(name);
    EXPECT_EQ(Reachability::reachabilityWithHostName(name), nullptr);
  }
  EXPECT_EQ(Reachability::reachabilityWithHostName(std::string(64, 'a') + ".example"), nullptr);
  std::string longName;
  for (int i = 0; i < 51; ++i) longName += "abcd.";  // 255 bytes
  EXPECT_EQ(Reachability::reachabilityWithHostName(longName + "x"), nullptr);
  const std::string name253 = longName.substr(0, 250) + "abc";
  EXPECT_NE(Reachability::reachabilityWithHostName(name253), nullptr);
  EXPECT_EQ(Reachability::reachabilityWithHostName(name253 + "d"), nullptr);

  for (const char* name : {"example.com.", "under_score-and-dash.example", "192.0.2.1", "x"}) {
    SCOPED_TRACE(name);
    EXPECT_NE(Reachability::reachabilityWithHostName(name), nullptr);
  }
  EXPECT_NE(Reachability::reachabilityWithHostName(std::string(63, 'a') + ".example"), nullptr);

  EXPECT_EQ(Reachability::reachabilityWithAddress(static_cast<const sockaddr_in*>(nullptr)),
            nullptr);
  sockaddr_in wrongFamily{};
  wrongFamily.sin_family = AF_INET6;
  EXPECT_EQ(Reachability::reachabilityWithAddress(&wrongFamily), nullptr);
}

}  // namespace
}  // namespace quarvel
