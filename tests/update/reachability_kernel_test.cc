// The monitor against the kernel: a network namespace of a thread of its own,
// changed step by step with `ip`, one step per kind of change the kernel
// announces (link up and down, address, default route of each family).

#include <gtest/gtest.h>
#include <sched.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <thread>

#include "quarvel/NotificationCenter.h"
#include "quarvel/Reachability.h"
#include "update/FakeRouteSource.h"
#include "update/MainContextLoop.h"

namespace quarvel {
namespace {

using namespace std::chrono_literals;

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
    test::MainContextLoop loop;
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
