// The monitor against the kernel of this machine, and against routes that a
// test changes in a network namespace of its own.

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <cstdio>
#include <iterator>
#include <map>
#include <sstream>
#include <thread>

#include "quarvel/NotificationCenter.h"
#include "quarvel/Reachability.h"
#include "update/KernelRouteSource.h"
#include "update/MainContextLoop.h"

namespace quarvel {
namespace {

using namespace std::chrono_literals;

std::string run(const std::string& command) {
  std::string out;
  if (FILE* p = popen((command + " 2>/dev/null").c_str(), "r")) {
    char buf[512];
    while (std::fgets(buf, sizeof buf, p)) out += buf;
    pclose(p);
  }
  return out;
}

bool hasWord(const std::string& text, const std::string& word) {
  std::istringstream in(text);
  for (std::string w; in >> w;)
    if (w == word) return true;
  return false;
}

std::unique_ptr<Reachability> forAddress(const char* dotted) {
  sockaddr_in a{};
  a.sin_family = AF_INET;
  inet_pton(AF_INET, dotted, &a.sin_addr);
  return Reachability::reachabilityWithAddress(&a);
}

TEST(ReachabilityKernel, LoopbackIsReachableDirectAndLocal) {
  for (const char* address : {"127.0.0.1", "127.0.0.53"}) {
    SCOPED_TRACE(address);
    auto r = forAddress(address);
    auto flags = r->currentFlags();
    ASSERT_TRUE(flags.has_value());
    constexpr std::uint32_t kExpected =
        kReachabilityFlagReachable | kReachabilityFlagIsDirect | kReachabilityFlagIsLocalAddress;
    EXPECT_EQ(*flags, kExpected);
    EXPECT_EQ(r->currentReachabilityStatus(), ReachabilityViaLocalNetwork);
    EXPECT_FALSE(r->connectionRequired());
  }
  auto byName = Reachability::reachabilityWithHostName("localhost");
  ASSERT_TRUE(byName);
  EXPECT_EQ(byName->currentReachabilityStatus(), ReachabilityViaLocalNetwork);
  auto unresolvable = Reachability::reachabilityWithHostName("no-such-host.invalid");
  ASSERT_TRUE(unresolvable);
  EXPECT_EQ(unresolvable->currentReachabilityStatus(), ReachabilityNone);
}

// What `ip route` says here, the monitors must say too.
TEST(ReachabilityKernel, StatusesAgreeWithIpRoute) {
  std::string defaults = run("ip -4 route show default");
  if (run("ip -V").empty()) GTEST_SKIP() << "no ip command";
  // A default route of either family makes the internet reachable.
  std::string anyDefaults = defaults + run("ip -6 route show default");
  bool usableDefault = false;
  std::istringstream lines(anyDefaults);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::vector<std::string> w{std::istream_iterator<std::string>(words), {}};
    for (std::size_t i = 0; i + 1 < w.size(); ++i)
      if (w[i] == "dev" && !hasWord(line, "linkdown")) {
        std::string link = run("ip -o link show dev " + w[i + 1]);
        bool up = link.find(",UP") != std::string::npos || link.find("<UP") != std::string::npos;
        if (up && link.find("LOWER_UP") != std::string::npos) usableDefault = true;
      }
  }
  auto internet = Reachability::reachabilityForInternetConnection();
  EXPECT_EQ(internet->currentReachabilityStatus() != ReachabilityNone, usableDefault)
      << anyDefaults;

  std::string linkLocal = run("ip -4 route get 169.254.0.0");
  auto local = Reachability::reachabilityForLocalWiFi();
  bool direct =
      !linkLocal.empty() && !hasWord(linkLocal, "via") && !hasWord(linkLocal, "unreachable");
  EXPECT_EQ(local->currentReachabilityStatus(),
            direct ? ReachabilityViaLocalNetwork : ReachabilityNone)
      << linkLocal;

  // Each own address is local; the default gateway is direct, not local.
  std::istringstream addrs(run("ip -4 -o addr show"));
  for (std::string line; std::getline(addrs, line);) {
    std::istringstream words(line);
    std::string w, own;
    while (words >> w)
      if (w == "inet" && words >> own) own = own.substr(0, own.find('/'));
    if (own.empty()) continue;
    SCOPED_TRACE(own);
    auto flags = forAddress(own.c_str())->currentFlags();
    ASSERT_TRUE(flags);
    EXPECT_TRUE(*flags & kReachabilityFlagIsLocalAddress);
  }
  std::istringstream words(defaults);
  for (std::string w; words >> w;) {
    if (w != "via" || !(words >> w)) continue;
    auto flags = forAddress(w.c_str())->currentFlags();
    ASSERT_TRUE(flags);
    EXPECT_EQ(*flags & (kReachabilityFlagIsDirect | kReachabilityFlagIsLocalAddress),
              kReachabilityFlagIsDirect)
        << "gateway " << w;
    break;
  }
}

// A namespace of the test's own, deleted at the end.
class NetworkNamespace {
 public:
  NetworkNamespace() : name_("quarvel-reach-" + std::to_string(getpid())) {
    ok_ = std::system(("ip netns add " + name_ + " 2>/dev/null").c_str()) == 0;
  }
  ~NetworkNamespace() {
    if (ok_) [[maybe_unused]]
      int rc = std::system(("ip netns del " + name_).c_str());
  }
  bool ok() const { return ok_; }
  bool ip(const std::string& args) const {
    return std::system(("ip -n " + name_ + " " + args).c_str()) == 0;
  }
  // Moves the calling thread into the namespace.
  bool enter() const {
    int fd = open(("/run/netns/" + name_).c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    bool entered = setns(fd, CLONE_NEWNET) == 0;
    close(fd);
    return entered;
  }

 private:
  std::string name_;
  bool ok_ = false;
};

TEST(ReachabilityKernel, RouteChangesInANamespaceReachTheObserver) {
  NetworkNamespace ns;
  if (!ns.ok()) GTEST_SKIP() << "cannot create a network namespace here";
  // A thread of its own enters the namespace; the test's thread stays out.
  std::thread worker([&] {
    if (!ns.enter()) {
      ADD_FAILURE() << "cannot enter the namespace";
      return;
    }
    test::MainContextLoop loop;
    auto internet = Reachability::reachabilityForInternetConnection();
    auto neighbour = forAddress("10.77.0.9");
    int internetChanges = 0, neighbourChanges = 0;
    auto& center = NotificationCenter::defaultCenter();
    auto t1 = center.add(kReachabilityChangedNotification, internet.get(),
                         [&](const Notification&) { ++internetChanges; });
    auto t2 = center.add(kReachabilityChangedNotification, neighbour.get(),
                         [&](const Notification&) { ++neighbourChanges; });
    EXPECT_EQ(internet->currentReachabilityStatus(), ReachabilityNone);
    EXPECT_EQ(neighbour->currentFlags(), 0u) << "a fresh namespace has no routes";
    ASSERT_TRUE(internet->startNotifier());
    ASSERT_TRUE(neighbour->startNotifier());

    ASSERT_TRUE(ns.ip("link add v0 type veth peer name v1"));
    ASSERT_TRUE(ns.ip("link set v1 up") && ns.ip("link set v0 up"));
    ASSERT_TRUE(ns.ip("addr add 10.77.0.1/24 dev v0"));
    EXPECT_TRUE(loop.runUntil([&] { return neighbourChanges > 0; }, 5s));
    EXPECT_EQ(neighbour->currentFlags(), kReachabilityFlagReachable | kReachabilityFlagIsDirect);
    EXPECT_EQ(internetChanges, 0) << "no default route yet";

    ASSERT_TRUE(ns.ip("route add default via 10.77.0.2 dev v0"));
    EXPECT_TRUE(loop.runUntil([&] { return internetChanges == 1; }, 5s));
    EXPECT_EQ(internet->currentFlags(), kReachabilityFlagReachable);
    EXPECT_EQ(internet->currentReachabilityStatus(), ReachabilityViaLocalNetwork);

    ASSERT_TRUE(ns.ip("route del default"));
    EXPECT_TRUE(loop.runUntil([&] { return internetChanges == 2; }, 5s));
    EXPECT_EQ(internet->currentReachabilityStatus(), ReachabilityNone);

    // Taking the link down makes the neighbour unreachable again.
    int before = neighbourChanges;
    ASSERT_TRUE(ns.ip("link set v0 down"));
    EXPECT_TRUE(loop.runUntil([&] { return neighbourChanges > before; }, 5s));
    EXPECT_EQ(neighbour->currentReachabilityStatus(), ReachabilityNone);
    center.remove(t1);
    center.remove(t2);
  });
  worker.join();
}

// Output of reach_probe_child: "STEP TARGET LETTERS STATUS" and
// "STEP notified yes|no", keyed by "STEP TARGET".
std::map<std::string, std::string> probeLines(const std::string& output) {
  std::map<std::string, std::string> out;
  std::istringstream lines(output);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string step, target, rest;
    if (!(words >> step >> target)) continue;
    std::getline(words >> std::ws, rest);
    out[step + " " + target] = rest;
  }
  return out;
}

// A machine with IPv6 only: a namespace made by `unshare -n`, with lo up, a
// veth pair (no dummy module needed) carrying 2001:db8::2/64 and, in the
// second step, an IPv6 default route; there is no IPv4 route at any time.
TEST(ReachabilityKernel, Ipv6OnlyNamespaceIsJudgedByItsRoutes) {
  if (run("ip -V").empty() || run("command -v unshare").empty())
    GTEST_SKIP() << "no ip or unshare command";
  if (run("unshare -n true && echo ok") != "ok\n") {
    // Only a refusal to make namespaces excuses the test (no CAP_SYS_ADMIN,
    // a container that forbids it); anything else is a fault to see.
    std::string why = run("sh -c 'unshare -n true 2>&1'");
    ASSERT_TRUE(why.find("Operation not permitted") != std::string::npos ||
                why.find("Permission denied") != std::string::npos)
        << why;
    GTEST_SKIP() << "cannot create a network namespace here: " << why;
  }
  const std::string setup =
      "ip link set lo up && ip link add q6a type veth peer name q6b && ip link set q6b up && "
      "ip link set q6a up && ip -6 addr add 2001:db8::2/64 dev q6a nodad";
  const std::string targets =
      "internet :: 2001:db8::7 2001:db8:ffff::1 ::1 192.0.2.1 name:2001:db8:ffff::1";
  const std::string steps =
      " --then 'ip -6 route add default via 2001:db8::1 dev q6a'"
      " --then 'ip -6 route del default'";
  // Bounded: the child waits 5 s per step at most; the whole run gets 30.
  std::string output = run("timeout -k 5 30 unshare -n sh -ec \"" + setup + "; exec " +
                           QUARVEL_REACH_PROBE_CHILD + " " + targets + steps + "\"");
  auto lines = probeLines(output);
  SCOPED_TRACE(output);
  struct Case {
    const char* key;
    const char* expected;
  } cases[] = {
      // No default route yet: the internet is not reachable, the link is.
      {"0 internet", "--------- 0"},
      {"0 ::", "--------- 0"},
      {"0 2001:db8::7", "-R------d 1"},
      {"0 2001:db8:ffff::1", "--------- 0"},
      {"0 ::1", "-R-----ld 1"},
      {"0 192.0.2.1", "--------- 0"},
      {"0 name:2001:db8:ffff::1", "--------- 0"},
      // An IPv6 default route, through a gateway, and still no IPv4 one.
      {"1 notified", "yes"},
      {"1 internet", "-R------- 1"},
      {"1 ::", "-R------- 1"},
      {"1 2001:db8:ffff::1", "-R------- 1"},
      {"1 name:2001:db8:ffff::1", "-R------- 1"},
      {"1 192.0.2.1", "--------- 0"},
      // Gone again.
      {"2 notified", "yes"},
      {"2 internet", "--------- 0"},
      {"2 2001:db8:ffff::1", "--------- 0"},
      {"2 2001:db8::7", "-R------d 1"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.key);
    auto it = lines.find(c.key);
    ASSERT_NE(it, lines.end());
    EXPECT_EQ(it->second, c.expected);
  }
}

}  // namespace
}  // namespace quarvel
