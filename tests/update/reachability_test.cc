// The status rules, the flag log line, the factories and the change watch,
// from fed flags and changes; the notification centre.

#include "quarvel/Reachability.h"

#include <gtest/gtest.h>

#include <chrono>

#include "common/Log.h"
#include "quarvel/NotificationCenter.h"
#include "update/FakeRouteSource.h"
#include "update/MainContextLoop.h"

namespace quarvel {
namespace {

using namespace std::chrono_literals;

TEST(Reachability, StatusRulesAndTheirLogLine) {
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
    EXPECT_EQ(r->networkStatusForFlags(c.flags), c.general) << std::hex << c.flags;
    EXPECT_EQ(r->localWiFiStatusForFlags(c.flags), c.local) << std::hex << c.flags;
  }
  EXPECT_EQ(capture.lines().size(), 2 * std::size(cases));

  // Each judgement logs one line: the flags as letters and the rule's name.
  struct Line {
    std::uint32_t flags;
    bool local;
    const char* line;
  } lines[] = {
      {0x20002, true, "Reachability Flag Status: -R ------d localWiFiStatusForFlags\n"},
      {0, false, "Reachability Flag Status: -- ------- networkStatusForFlags\n"},
      {0x7003F, false, "Reachability Flag Status: WR tcCiDld networkStatusForFlags\n"},
  };
  for (const auto& c : lines) {
    LogCapture one;
    c.local ? r->localWiFiStatusForFlags(c.flags) : r->networkStatusForFlags(c.flags);
    EXPECT_EQ(one.lines(), std::vector<std::string>{c.line});
  }
}

TEST(Reachability, MonitorsJudgeTheirTargetsFlags) {
  // Flags of every row, unless the row overrides one address.
  const std::pair<const char*, std::uint32_t> world[] = {
      {"0.0.0.0", 0x2}, {"169.254.0.0", 0x2}, {"192.0.2.1", 0x2}, {"2001:db8::1", 0x2}};
  struct Case {
    const char* what;
    const char* target;  // as test::monitorFor takes it; names resolve to `addresses`
    std::int64_t status;
    std::vector<const char*> addresses = {};
    const char* at = nullptr;  // the address whose flags the row overrides
    std::optional<std::uint32_t> flags = {};
  } const cases[] = {
      {"local link through a gateway", "wifi", 0},
      {"local link direct", "wifi", 1, {}, "169.254.0.0", 0x20002},
      {"internet through a gateway", "internet", 1},
      {"unreadable flags", "internet", 0, {}, "0.0.0.0", std::nullopt},
      {"IPv6 address", "2001:db8::1", 1},
      {"name that does not resolve", "name:dual.example", 0},
      // A name counts as its first reachable address, whatever the family.
      {"IPv4 without route first", "name:dual.example", 1, {"192.0.2.9", "2001:db8::1"}},
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
  for (auto [address, status] : {std::pair{"198.51.100.2", 2}, {"198.51.100.1", 1}}) {
    fake->setName("updates.example", {address});
    EXPECT_EQ(byName->currentReachabilityStatus(), status) << address;
  }

  auto internet = Reachability::reachabilityForInternetConnection();
  LogCapture capture;
  for (auto [flags, required] :
       {std::pair{std::optional<std::uint32_t>(), false}, {0x6u, true}, {0x2u, false}}) {
    fake->setFlags("0.0.0.0", flags);
    EXPECT_EQ(internet->connectionRequired(), required) << flags.value_or(-1);
  }
  EXPECT_TRUE(capture.lines().empty()) << "connectionRequired computes no status";
}

TEST(Reachability, FactoriesRefuseUnusableTargets) {
  std::string name253;  // the longest a name may be
  for (int i = 0; i < 50; ++i) name253 += "abcd.";
  name253 += "abc";
  const std::string label64 = std::string(64, 'a') + ".example";
  const auto usable = [](const std::string& name) {
    return Reachability::reachabilityWithHostName(name) != nullptr;
  };
  for (const std::string name : {"", ".", "a..b", ".example.com", "has space.example", "tab\there",
                                 "exa/mple", "name:80", "ünicode.example", "\x01", "2001:db8:::1",
                                 "2001:db8::1%eth0", "fe80::1/64", "[2001:db8::1]", ":", "1:2:3"})
    EXPECT_FALSE(usable(name)) << name;
  for (const std::string& name : {name253 + "d", label64}) EXPECT_FALSE(usable(name)) << name;
  for (const std::string name :
       {"example.com.", "under_score-and-dash.example", "x", "192.0.2.1", "2001:db8::1", "::"})
    EXPECT_TRUE(usable(name)) << name;
  for (const std::string& name : {name253, label64.substr(1)}) EXPECT_TRUE(usable(name)) << name;
  sockaddr_in wrong4{};
  sockaddr_in6 wrong6{};
  wrong4.sin_family = AF_INET6;
  wrong6.sin6_family = AF_INET;
  EXPECT_FALSE(Reachability::reachabilityWithAddress(&wrong4) ||
               Reachability::reachabilityWithAddress(&wrong6) ||
               Reachability::reachabilityWithAddress(static_cast<const sockaddr_in*>(nullptr)) ||
               Reachability::reachabilityWithAddress(static_cast<const sockaddr_in6*>(nullptr)));
}

// Changes reach observers through the main context of the thread that
// started the notifier, and only when the target's flags changed.
TEST(ReachabilityNotifier, PostsOnlyWhenFlagsChanged) {
  test::ScopedFakeRouteSource fake;
  fake->setFlags("203.0.113.7", 0x2);
  test::MainContextLoop loop;
  auto monitor = test::monitorFor("203.0.113.7");
  auto& center = NotificationCenter::defaultCenter();
  std::vector<std::int64_t> statuses;
  const auto recorder = center.add(kReachabilityChangedNotification, monitor.get(),
                                   [&, watched = monitor.get()](const Notification& n) {
                                     EXPECT_EQ(n.object, watched);
                                     statuses.push_back(watched->currentReachabilityStatus());
                                   });
  // Announces a change, with these flags if given, and runs the loop until
  // the posts have reached `posted`, or for a while when none should come.
  auto change = [&](std::optional<std::uint32_t> flags, std::vector<std::int64_t> posted) {
    if (flags) fake->setFlags("203.0.113.7", *flags);
    fake->announce();
    if (posted.size() == statuses.size())
      loop.runFor(100ms);
    else
      loop.runUntil([&] { return statuses.size() >= posted.size(); }, 5s);
    EXPECT_EQ(statuses, posted);
  };
  EXPECT_TRUE(monitor->startNotifier());
  change(std::nullopt, {});  // a route elsewhere changed; these flags did not
  change(0x20002, {1});
  change(0, {1, 0});
  monitor->stopNotifier();
  EXPECT_EQ(fake->openWatches(), 0u);
  change(0x2, {1, 0});  // nothing after stopNotifier

  // Started again, it judges changes against the flags of that moment.
  EXPECT_TRUE(monitor->startNotifier());
  EXPECT_TRUE(monitor->startNotifier()) << "starting twice keeps one watch";
  EXPECT_EQ(fake->openWatches(), 1u);
  change(0x2, {1, 0});
  change(0x40002, {1, 0, 2});

  // An observer after the recorder destroys the monitor, and with it the watch.
  auto token = center.add(kReachabilityChangedNotification, monitor.get(),
                          [&](const Notification&) { monitor.reset(); });
  change(0x2, {1, 0, 2, 1});
  loop.runFor(50ms);
  center.remove(token);
  center.remove(recorder);
  EXPECT_EQ(monitor, nullptr);
  EXPECT_EQ(fake->openWatches(), 0u);
}

TEST(NotificationCenter, FiltersByNameAndObjectAndToleratesChangesWhilePosting) {
  NotificationCenter center;
  int a = 0, b = 0;
  std::vector<std::string> calls;
  auto record = [&](const char* who) {
    return
        [&calls, who](const Notification& n) { calls.push_back(std::string(who) + ":" + n.name); };
  };
  center.add("x", &a, record("x/a"));
  center.add("x", nullptr, record("x/any"));
  center.add("", &b, record("any/b"));
  auto gone = center.add("x", nullptr, record("removed"));
  center.remove(gone);
  center.remove(9999);

  center.post("x", &a);
  center.post("x", &b);
  center.post("y", &b);
  center.post("y", &a);
  EXPECT_EQ(calls, (std::vector<std::string>{"x/a:x", "x/any:x", "x/any:x", "any/b:x", "any/b:y"}));

  // Observers may change the list while a post runs: one removed is skipped
  // in that post, one added is called from the next.
  calls.clear();
  NotificationCenter::Token second = 0;
  center.add("n", nullptr, [&](const Notification&) {
    calls.push_back("first");
    center.remove(second);
    center.add("n", nullptr, [&](const Notification&) { calls.push_back("added"); });
  });
  second = center.add("n", nullptr, [&](const Notification&) { calls.push_back("removed"); });
  center.post("n", nullptr);
  EXPECT_EQ(calls, std::vector<std::string>{"first"});
  center.post("n", nullptr);
  EXPECT_EQ(calls, (std::vector<std::string>{"first", "first", "added"}));
}

}  // namespace
}  // namespace quarvel
