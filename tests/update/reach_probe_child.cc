// A second process for the namespace tests of the reachability monitor; the
// test starts it inside a network namespace of its own. It prints what the
// monitors say about each target, then runs each --then command with
// /bin/sh, waits (5 s at most) for the internet monitor's change
// notification and prints again.
//
//   reach_probe_child TARGET... [--then COMMAND]...
//
// TARGET is "internet", "name:NAME" (a monitor made from a host name) or an
// IPv4 or IPv6 address literal. Output lines, with STEP 0 before the first
// command:
//   STEP TARGET LETTERS STATUS     LETTERS as in the flag log line, no blank
//   STEP notified yes|no
// Exit status 0, or 2 on bad arguments.
#include <arpa/inet.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "quarvel/NotificationCenter.h"
#include "quarvel/Reachability.h"
#include "update/MainContextLoop.h"

namespace {

using quarvel::Reachability;

std::unique_ptr<Reachability> monitorFor(const std::string& target) {
  if (target == "internet") return Reachability::reachabilityForInternetConnection();
  if (target.rfind("name:", 0) == 0)
    return Reachability::reachabilityWithHostName(target.substr(5));
  sockaddr_in v4{};
  v4.sin_family = AF_INET;
  if (inet_pton(AF_INET, target.c_str(), &v4.sin_addr) == 1)
    return Reachability::reachabilityWithAddress(&v4);
  sockaddr_in6 v6{};
  v6.sin6_family = AF_INET6;
  if (inet_pton(AF_INET6, target.c_str(), &v6.sin6_addr) == 1)
    return Reachability::reachabilityWithAddress(&v6);
  return nullptr;
}

}  // namespace

int main(int argc, char** argv) {
  using namespace std::chrono_literals;
  std::vector<std::pair<std::string, std::unique_ptr<Reachability>>> monitors;
  std::vector<std::string> commands;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--then") == 0 && i + 1 < argc) {
      commands.emplace_back(argv[++i]);
      continue;
    }
    auto monitor = monitorFor(argv[i]);
    if (!monitor) {
      std::fprintf(stderr, "reach_probe_child: unusable target \"%s\"\n", argv[i]);
      return 2;
    }
    monitors.emplace_back(argv[i], std::move(monitor));
  }

  quarvel::test::MainContextLoop loop;
  auto print = [&](std::size_t step) {
    for (auto& [target, monitor] : monitors) {
      auto flags = monitor->currentFlags();
      std::string letters = flags ? quarvel::reachabilityFlagLetters(*flags) : "unreadable";
      letters.erase(std::remove(letters.begin(), letters.end(), ' '), letters.end());
      std::printf("%zu %s %s %lld\n", step, target.c_str(), letters.c_str(),
                  static_cast<long long>(monitor->currentReachabilityStatus()));
    }
    std::fflush(stdout);
  };
  print(0);
  if (commands.empty()) return 0;

  auto internet = Reachability::reachabilityForInternetConnection();
  int changes = 0;
  auto& center = quarvel::NotificationCenter::defaultCenter();
  auto token = center.add(quarvel::kReachabilityChangedNotification, internet.get(),
                          [&](const quarvel::Notification&) { ++changes; });
  if (!internet->startNotifier()) {
    std::fprintf(stderr, "reach_probe_child: cannot watch for changes\n");
    return 2;
  }
  for (std::size_t step = 1; step <= commands.size(); ++step) {
    int before = changes;
    if (std::system(commands[step - 1].c_str()) != 0)
      std::fprintf(stderr, "reach_probe_child: \"%s\" failed\n", commands[step - 1].c_str());
    bool notified = loop.runUntil([&] { return changes > before; }, 5s);
    std::printf("%zu notified %s\n", step, notified ? "yes" : "no");
    print(step);
  }
  internet->stopNotifier();
  center.remove(token);
  return 0;
}
