// The change watch and the notification centre, with fed changes.

#include <glib.h>
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <thread>

#include "quarvel/NotificationCenter.h"
#include "quarvel/Reachability.h"
#include "update/FakeRouteSource.h"
#include "update/MainContextLoop.h"

namespace quarvel {
namespace {

using namespace std::chrono_literals;

// Counts the change notifications of one monitor and the threads they came on.
struct ChangeRecorder {
  explicit ChangeRecorder(Reachability* monitor) {
    token = NotificationCenter::defaultCenter().add(
        kReachabilityChangedNotification, monitor, [this, monitor](const Notification& n) {
          EXPECT_EQ(n.object, monitor);
          threads.push_back(std::this_thread::get_id());
          statuses.push_back(monitor->currentReachabilityStatus());
        });
  }
  ~ChangeRecorder() { NotificationCenter::defaultCenter().remove(token); }
  NotificationCenter::Token token;
  std::vector<std::thread::id> threads;
  std::vector<std::int64_t> statuses;
};

TEST(ReachabilityNotifier, ChangeReachesObserverOnTheThreadThatStartedIt) {
  test::ScopedFakeRouteSource fake;
  fake->setFlags("0.0.0.0", 0x2);
  std::promise<void> started;
  std::promise<void> changed;
  std::thread::id loopThread;
  std::vector<std::thread::id> seenOn;
  std::vector<std::int64_t> statuses;

  std::thread worker([&] {
    test::MainContextLoop loop;
    loopThread = std::this_thread::get_id();
    auto monitor = Reachability::reachabilityForInternetConnection();
    ChangeRecorder recorder(monitor.get());
    bool watching = monitor->startNotifier();
    EXPECT_TRUE(watching);
    started.set_value();
    // The announcing thread (the test's) never runs the callback itself.
    if (watching) loop.runUntil([&] { return recorder.threads.size() >= 1; }, 5s);
    seenOn = recorder.threads;
    statuses = recorder.statuses;
    monitor.reset();
    changed.set_value();
  });
  started.get_future().wait();
  fake->setFlags("0.0.0.0", 0x40002);
  fake->announce();
  changed.get_future().wait();
  worker.join();
  ASSERT_EQ(seenOn.size(), 1u);
  EXPECT_EQ(seenOn[0], loopThread);
  EXPECT_NE(seenOn[0], std::this_thread::get_id());
  EXPECT_EQ(statuses, std::vector<std::int64_t>{2});
  EXPECT_EQ(fake->openWatches(), 0u) << "destroying the monitor stops its watch";
}

TEST(ReachabilityNotifier, PostsOnlyWhenFlagsChanged) {
  test::ScopedFakeRouteSource fake;
  fake->setFlags("203.0.113.7", 0x2);
  test::MainContextLoop loop;
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(0xCB007107);  // 203.0.113.7
  auto monitor = Reachability::reachabilityWithAddress(&a);
  ChangeRecorder recorder(monitor.get());
  ASSERT_TRUE(monitor->startNotifier());

  fake->announce();  // a route elsewhere changed; these flags did not
  loop.runFor(100ms);
  EXPECT_TRUE(recorder.threads.empty());

  fake->setFlags("203.0.113.7", 0x20002);
  fake->announce();
  loop.runUntil([&] { return !recorder.threads.empty(); }, 5s);
  fake->setFlags("203.0.113.7", 0);
  fake->announce();
  loop.runUntil([&] { return recorder.threads.size() >= 2; }, 5s);
  EXPECT_EQ(recorder.statuses, (std::vector<std::int64_t>{1, 0}));

  monitor->stopNotifier();
  EXPECT_EQ(fake->openWatches(), 0u);
  fake->setFlags("203.0.113.7", 0x2);
  fake->announce();
  loop.runFor(100ms);
  EXPECT_EQ(recorder.threads.size(), 2u) << "nothing after stopNotifier";

  // Started again, it judges changes against the flags of that moment.
  ASSERT_TRUE(monitor->startNotifier());
  ASSERT_TRUE(monitor->startNotifier()) << "starting twice keeps one watch";
  EXPECT_EQ(fake->openWatches(), 1u);
  fake->setFlags("203.0.113.7", 0x40002);
  fake->announce();
  loop.runUntil([&] { return recorder.threads.size() >= 3; }, 5s);
  EXPECT_EQ(recorder.statuses.back(), 2);
}

TEST(ReachabilityNotifier, ObserverMayDestroyTheMonitor) {
  test::ScopedFakeRouteSource fake;
  test::MainContextLoop loop;
  auto monitor = Reachability::reachabilityForInternetConnection();
  bool called = false;
  auto token = NotificationCenter::defaultCenter().add(kReachabilityChangedNotification,
                                                       monitor.get(), [&](const Notification&) {
                                                         called = true;
                                                         monitor.reset();
                                                       });
  ASSERT_TRUE(monitor->startNotifier());
  fake->setFlags("0.0.0.0", 0x2);
  fake->announce();
  loop.runUntil([&] { return called; }, 5s);
  loop.runFor(50ms);
  NotificationCenter::defaultCenter().remove(token);
  EXPECT_TRUE(called);
  EXPECT_EQ(fake->openWatches(), 0u);
}

TEST(NotificationCenter, FiltersByNameAndObject) {
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
}

TEST(NotificationCenter, ObserversMayChangeTheListWhilePosting) {
  NotificationCenter center;
  std::vector<int> calls;
  NotificationCenter::Token second = 0;
  center.add("n", nullptr, [&](const Notification&) {
    calls.push_back(1);
    center.remove(second);  // skipped in this post
    center.add("n", nullptr,
               [&](const Notification&) { calls.push_back(3); });  // from the next post
  });
  second = center.add("n", nullptr, [&](const Notification&) { calls.push_back(2); });
  center.post("n", nullptr);
  EXPECT_EQ(calls, std::vector<int>{1});
  calls.clear();
  center.post("n", nullptr);
  EXPECT_EQ(calls, (std::vector<int>{1, 3}));
}

}  // namespace
}  // namespace quarvel
