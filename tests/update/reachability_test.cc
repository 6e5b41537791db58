// The status rules, the flag log line, the factories and the change watch,
// from fed flags and changes; the notification centre; and the monitor
// against the kernel, in a network namespace of a thread of its own, changed
// step by step with `ip`, one step per kind of change the kernel announces
// (link up and down, address, default route of each family).

#include "quarvel/Reachability.h"

#include <glib.h>
#include <gtest/gtest.h>
#include <sched.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <map>
#include <thread>

#include "common/Log.h"
#include "quarvel/NotificationCenter.h"
#include "update/FakeRouteSource.h"

namespace quarvel {
namespace {

using namespace std::chrono_literals;

// A private GLib main context, the thread's default while the object lives,
// run until a condition holds or a limit has passed.
class MainContextLoop {
 public:
  MainContextLoop() { g_main_context_push_thread_default(context_); }
  ~MainContextLoop() {
    while (g_main_context_iteration(context_, FALSE)) {
    }
    g_main_context_pop_thread_default(context_);
    g_main_context_unref(context_);
  }
  bool runUntil(const std::function<bool()>& done, std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!done() && std::chrono::steady_clock::now() < deadline)
      if (!g_main_context_iteration(context_, FALSE)) std::this_thread::sleep_for(2ms);
    return done();
  }
  void runFor(std::chrono::milliseconds duration) {
    runUntil([] { return false; }, duration);
  }

 private:
  GMainContext* context_ = g_main_context_new();
};

TEST(Reachability, StatusRulesAndTheirLogLine) {
  // (flags, status, local Wi-Fi status)
  const std::tuple<std::uint32_t, std::int64_t, std::int64_t> cases[] = {
      {0x0, 0, 0},     {0x2, 1, 0},        {0x6, 0, 0},     {0x26, 1, 0},    {0xE, 1, 0},
      {0x1E, 0, 0},    {0x36, 0, 0},       {0x40002, 2, 0}, {0x40006, 2, 0}, {0x4001E, 2, 0},
      {0x40000, 0, 0}, {0x20000, 0, 0},    {0x20002, 1, 1}, {0x60002, 2, 1}, {0x20006, 0, 1},
      {0x2000C, 0, 0}, {0xFFFFFFFD, 0, 0},
  };
  auto r = test::monitorFor("192.0.2.9");
  LogCapture capture;
  for (const auto& [flags, general, local] : cases) {
    EXPECT_EQ(r->networkStatusForFlags(flags), general) << std::hex << flags;
    EXPECT_EQ(r->localWiFiStatusForFlags(flags), local) << std::hex << flags;
  }
  EXPECT_EQ(capture.lines().size(), 2 * std::size(cases));

  // Each judgement logs one line: the flags as letters and the rule's name.
  for (const auto& [flags, local, line] : std::vector<std::tuple<std::uint32_t, bool, std::string>>{
           {0x20002, true, "Reachability Flag Status: -R ------d localWiFiStatusForFlags\n"},
           {0, false, "Reachability Flag Status: -- ------- networkStatusForFlags\n"},
           {0x7003F, false, "Reachability Flag Status: WR tcCiDld networkStatusForFlags\n"}}) {
    LogCapture one;
    local ? r->localWiFiStatusForFlags(flags) : r->networkStatusForFlags(flags);
    EXPECT_EQ(one.lines(), std::vector<std::string>{line});
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
  std::string name253(253, 'a');  // the longest a name may be, in labels of four
  for (std::size_t dot = 4; dot < name253.size(); dot += 5) name253[dot] = '.';
  const std::string label64 = std::string(64, 'a') + ".example";
  const auto usable = [](const std::string& name) {
    return Reachability::reachabilityWithHostName(name) != nullptr;
  };
  for (const std::string name : {"", ".", "a..b", "has space.example", "ünicode.example", "name:80",
                                 "2001:db8::1%eth0", "[2001:db8::1]"})
    EXPECT_FALSE(usable(name)) << name;
  for (const std::string& name : {name253 + "d", label64}) EXPECT_FALSE(usable(name)) << name;
  for (const std::string name : {"example.com.", "under_score-and-dash.example", "192.0.2.1", "::"})
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
  MainContextLoop loop;
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

  for (auto [name, object] : {std::pair{"x", &a}, {"x", &b}, {"y", &b}, {"y", &a}})
    center.post(name, object);
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

// What each target's flags read after a step: '-' nothing, 'g' reachable
// through a gateway, 'd' direct, 'l' an own address.
std::string code(const std::optional<std::uint32_t>& flags) {
  constexpr std::uint32_t R = kReachabilityFlagReachable, d = kReachabilityFlagIsDirect;
  static const std::map<std::uint32_t, std::string> codes = {
      {0, "-"}, {R, "g"}, {R | d, "d"}, {R | d | kReachabilityFlagIsLocalAddress, "l"}};
  if (!flags) return "?";
  auto it = codes.find(*flags);
  return it != codes.end() ? it->second : reachabilityFlagLetters(*flags);
}

TEST(ReachabilityKernel, NamespaceChangesReachTheObserver) {
  if (std::system("ip -V >/dev/null 2>&1") != 0) GTEST_SKIP() << "no ip command";
  const char* targets[] = {
      "internet",         "10.77.0.1", "10.77.0.9",  "192.0.2.1",      "2001:db8::7",
      "2001:db8:ffff::1", "::1",       "127.0.0.53", "name:localhost", "name:2001:db8:ffff::1"};
  struct Step {
    const char* command;
    const char* waitFor;  // the target whose notification ends the step
    const char* codes;    // one per target, in order
  } const steps[] = {
      {nullptr, nullptr, "----------"},
      {"ip link set lo up", "::1", "------lll-"},
      {"ip link add v0 type veth peer name v1 && ip link set v1 up && ip link set v0 up && "
       "ip addr add 10.77.0.1/24 dev v0 && ip -6 addr add 2001:db8::2/64 dev v0 nodad",
       "10.77.0.9", "-ld-d-lll-"},
      {"ip route add default via 10.77.0.2 dev v0", "internet", "gldgd-lll-"},
      {"ip route del default", "internet", "-ld-d-lll-"},
      {"ip -6 route add default via 2001:db8::1 dev v0", "internet", "gld-dglllg"},
      {"ip -6 route del default", "internet", "-ld-d-lll-"},
      {"ip link set v0 down", "10.77.0.9", "-l----lll-"},
  };
  bool refused = false;
  // Only this thread, and the `ip` commands it starts, enter the new namespace.
  std::thread worker([&] {
    if (unshare(CLONE_NEWNET) != 0) {
      refused = errno == EPERM;  // no CAP_SYS_ADMIN here: a skip, anything else a fault
      if (refused) return;
      FAIL() << "unshare: " << std::strerror(errno);
    }
    MainContextLoop loop;
    std::map<std::string, int> changes;
    std::vector<std::unique_ptr<Reachability>> monitors;
    std::vector<NotificationCenter::Token> tokens;
    auto& center = NotificationCenter::defaultCenter();
    for (const char* target : targets) {
      monitors.push_back(test::monitorFor(target));
      ASSERT_TRUE(monitors.back()) << target;
      tokens.push_back(center.add(kReachabilityChangedNotification, monitors.back().get(),
                                  [&changes, target](const Notification&) { ++changes[target]; }));
      ASSERT_TRUE(monitors.back()->startNotifier());
    }
    for (const auto& step : steps) {
      SCOPED_TRACE(step.command ? step.command : "fresh namespace");
      if (step.command) {
        int before = changes[step.waitFor];
        ASSERT_EQ(std::system(step.command), 0);
        EXPECT_TRUE(loop.runUntil([&] { return changes[step.waitFor] > before; }, 5s));
      }
      std::string codes;
      for (std::size_t i = 0; i < monitors.size(); ++i) {
        codes += code(monitors[i]->currentFlags());
        EXPECT_EQ(monitors[i]->currentReachabilityStatus(), step.codes[i] == '-' ? 0 : 1)
            << targets[i];
      }
      EXPECT_EQ(codes, step.codes);
    }
    for (auto token : tokens) center.remove(token);
  });
  worker.join();
  if (refused) GTEST_SKIP() << "cannot create a network namespace here";
}

}  // namespace
}  // namespace quarvel
