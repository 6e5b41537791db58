#pragma once
// A route source fed by the test: flags per address (IPv4 or IPv6, written
// as text), addresses per name, and change announcements that wake every
// open watch through an eventfd, from whichever thread announces.

#include <arpa/inet.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <map>
#include <mutex>
#include <set>

#include "quarvel/Reachability.h"
#include "support/TestPlatform.h"
#include "update/RouteSource.h"

namespace quarvel::test {

class FakeRouteSource : public RouteSource, public std::enable_shared_from_this<FakeRouteSource> {
 public:
  void setFlags(const char* address, std::optional<std::uint32_t> flags) {
    std::lock_guard lock(mutex_);
    flags_[parse(address).toString()] = flags;
  }
  void setName(const std::string& name, std::vector<const char*> addresses) {
    std::lock_guard lock(mutex_);
    names_[name].clear();
    for (const char* a : addresses) names_[name].push_back(parse(a));
  }
  // Wakes every watch, as the kernel does when a link, address or route
  // changed (whether or not the flags of any target did).
  void announce() {
    std::lock_guard lock(mutex_);
    for (int fd : watchFds_) {
      std::uint64_t one = 1;
      [[maybe_unused]] auto n = ::write(fd, &one, sizeof one);
    }
  }
  std::size_t openWatches() {
    std::lock_guard lock(mutex_);
    return watchFds_.size();
  }

  std::optional<std::uint32_t> flagsForAddress(const IpAddress& address) override {
    std::lock_guard lock(mutex_);
    auto it = flags_.find(address.toString());
    return it == flags_.end() ? std::optional<std::uint32_t>(0u) : it->second;
  }
  std::vector<IpAddress> resolve(const std::string& hostName) override {
    std::lock_guard lock(mutex_);
    auto it = names_.find(hostName);
    return it == names_.end() ? std::vector<IpAddress>{} : it->second;
  }
  std::unique_ptr<Watch> watch() override {
    const int fd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (fd < 0) return nullptr;
    std::lock_guard lock(mutex_);
    watchFds_.insert(fd);
    return std::make_unique<FakeWatch>(shared_from_this(), fd);
  }

 private:
  struct FakeWatch : Watch {
    FakeWatch(std::shared_ptr<FakeRouteSource> source, int fd)
        : source(std::move(source)), fd_(fd) {}
    ~FakeWatch() override {
      std::lock_guard lock(source->mutex_);
      source->watchFds_.erase(fd_);
      ::close(fd_);
    }
    int fd() const override { return fd_; }
    bool drain() override {
      std::uint64_t count = 0;
      return ::read(fd_, &count, sizeof count) == sizeof count && count > 0;
    }
    std::shared_ptr<FakeRouteSource> source;
    int fd_;
  };

  static IpAddress parse(const char* text) { return IpAddress::parse(text).value_or(IpAddress()); }

  std::mutex mutex_;
  std::map<std::string, std::optional<std::uint32_t>> flags_;
  std::map<std::string, std::vector<IpAddress>> names_;
  std::set<int> watchFds_;
};

// A monitor for "internet", "wifi", "name:NAME" or an address literal of
// either family; null when the factory refuses it.
inline std::unique_ptr<Reachability> monitorFor(const std::string& target) {
  if (target == "internet") return Reachability::reachabilityForInternetConnection();
  if (target == "wifi") return Reachability::reachabilityForLocalWiFi();
  if (target.starts_with("name:")) return Reachability::reachabilityWithHostName(target.substr(5));
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

// Installs a fresh fake for monitors created while it lives.
struct ScopedFakeRouteSource {
  ScopedFakeRouteSource() { platform->routes = fake; }
  FakeRouteSource* operator->() { return fake.get(); }
  quarvel::testing::TestPlatform platform;
  std::shared_ptr<FakeRouteSource> fake = std::make_shared<FakeRouteSource>();
};

}  // namespace quarvel::test
