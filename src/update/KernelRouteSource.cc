#include "update/KernelRouteSource.h"

#include <arpa/inet.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string_view>

#include "update/RouteMessages.h"

namespace quarvel {

namespace {

namespace fs = std::filesystem;

constexpr std::size_t kReceiveBufferSize = 64 * 1024;

std::atomic<std::uint32_t> nextSeq{1};

class NetlinkSocket {
 public:
  // groups: multicast groups to join (0 for a request socket).
  explicit NetlinkSocket(std::uint32_t groups, bool nonBlocking) {
    int type = SOCK_RAW | SOCK_CLOEXEC | (nonBlocking ? SOCK_NONBLOCK : 0);
    fd_ = ::socket(AF_NETLINK, type, NETLINK_ROUTE);
    if (fd_ < 0) return;
    sockaddr_nl local{};
    local.nl_family = AF_NETLINK;
    local.nl_groups = groups;
    if (::bind(fd_, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0) {
      close();
      return;
    }
    if (!nonBlocking) {
      // Every answer is bounded: the kernel answers at once, but never hang.
      timeval timeout{2, 0};
      ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    }
  }
  ~NetlinkSocket() { close(); }
  NetlinkSocket(const NetlinkSocket&) = delete;
  NetlinkSocket& operator=(const NetlinkSocket&) = delete;

  int fd() const { return fd_; }
  bool ok() const { return fd_ >= 0; }

  bool send(const std::vector<std::uint8_t>& message) {
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    ssize_t n = ::sendto(fd_, message.data(), message.size(), 0,
                         reinterpret_cast<sockaddr*>(&kernel), sizeof kernel);
    return n == static_cast<ssize_t>(message.size());
  }

  // One datagram from the kernel; nullopt on error or time-out (errno set).
  // Datagrams from other senders are dropped.
  std::optional<netlink::Batch> receive(int flags = 0) {
    for (;;) {
      sockaddr_nl from{};
      socklen_t fromLen = sizeof from;
      ssize_t n = ::recvfrom(fd_, buffer_.data(), buffer_.size(), flags,
                             reinterpret_cast<sockaddr*>(&from), &fromLen);
      if (n < 0) {
        if (errno == EINTR) continue;
        return std::nullopt;
      }
      if (from.nl_pid != 0) continue;
      return netlink::parseBatch(std::span(buffer_.data(), static_cast<std::size_t>(n)));
    }
  }

 private:
  void close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }
  int fd_ = -1;
  std::vector<std::uint8_t> buffer_ = std::vector<std::uint8_t>(kReceiveBufferSize);
};

class KernelWatch : public RouteSource::Watch {
 public:
  KernelWatch()
      : socket_(RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_IFADDR |
                    RTMGRP_IPV6_ROUTE,
                true) {}
  bool ok() const { return socket_.ok(); }
  int fd() const override { return socket_.fd(); }
  bool drain() override {
    bool changed = false;
    for (;;) {
      auto batch = socket_.receive(MSG_DONTWAIT);
      if (batch) {
        changed = changed || batch->changed;
        continue;
      }
      // The kernel dropped messages for us: something changed.
      if (errno == ENOBUFS) {
        changed = true;
        continue;
      }
      return changed;
    }
  }

 private:
  NetlinkSocket socket_;
};

bool readsDevTypeWwan(const fs::path& uevent) {
  std::ifstream in(uevent);
  std::string line;
  while (std::getline(in, line))
    if (line == "DEVTYPE=wwan") return true;
  return false;
}

// Every route of `family`; nullopt when the dump fails or is damaged. A
// socket of its own, so that the remains of a failed dump cannot be read as
// the answer to the next one.
std::optional<std::vector<netlink::RouteEntry>> dumpRoutes(std::uint8_t family) {
  NetlinkSocket socket(0, false);
  if (!socket.ok() || !socket.send(netlink::routeDumpRequest(nextSeq++, family)))
    return std::nullopt;
  std::vector<netlink::RouteEntry> all;
  for (;;) {
    auto batch = socket.receive();
    if (!batch || batch->malformed || !batch->errors.empty()) return std::nullopt;
    all.insert(all.end(), batch->routes.begin(), batch->routes.end());
    if (batch->done) return all;
  }
}

bool isPlainName(std::string_view name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string_view::npos;
}

}  // namespace

KernelRouteSource::KernelRouteSource(std::string sysfsRoot) : sysfsRoot_(std::move(sysfsRoot)) {}

bool KernelRouteSource::isCellularLink(const std::string& sysfsRoot, const std::string& name,
                                       std::uint16_t arphrdType) {
  std::error_code ec;
  fs::path net = fs::path(sysfsRoot) / "class" / "net";
  if (isPlainName(name) && readsDevTypeWwan(net / name / "uevent")) return true;
  if (arphrdType != ARPHRD_PPP) return false;
  // A ppp link carries no device of its own; it counts as cellular when the
  // machine has a modem for it to run over.
  fs::path wwanClass = fs::path(sysfsRoot) / "class" / "wwan";
  if (fs::is_directory(wwanClass, ec) &&
      fs::directory_iterator(wwanClass, ec) != fs::directory_iterator())
    return true;
  for (fs::directory_iterator it(net, ec), end; !ec && it != end; it.increment(ec))
    if (readsDevTypeWwan(it->path() / "uevent")) return true;
  return false;
}

std::optional<std::uint32_t> KernelRouteSource::flagsForAddress(const IpAddress& address) {
  NetlinkSocket socket(0, false);
  if (!socket.ok()) return std::nullopt;

  std::vector<netlink::RouteEntry> candidates;
  if (address.isUnspecified()) {
    // The kernel answers a lookup of 0.0.0.0 or :: with the loopback; "any
    // route" means a usable default route of either family instead. A family
    // that cannot be dumped simply offers none; the flags are unreadable only
    // when neither can be.
    std::vector<netlink::RouteEntry> all;
    bool anyRead = false;
    for (std::uint8_t family : {AF_INET, AF_INET6}) {
      if (auto routes = dumpRoutes(family)) {
        anyRead = true;
        all.insert(all.end(), routes->begin(), routes->end());
      }
    }
    if (!anyRead) return std::nullopt;
    candidates = netlink::defaultRoutes(all);
  } else {
    auto request = address.family == AF_INET6 ? netlink::routeGetRequest(address.v6, nextSeq++)
                                              : netlink::routeGetRequest(address.v4, nextSeq++);
    if (!socket.send(request)) return std::nullopt;
    auto batch = socket.receive();
    if (!batch || batch->malformed) return std::nullopt;
    // ENETUNREACH, EHOSTUNREACH, EACCES (a prohibit rule)...: a clear answer
    // that there is no route.
    if (!batch->errors.empty()) return 0u;
    if (batch->routes.empty()) return std::nullopt;
    candidates.push_back(batch->routes.front());
  }

  for (const auto& route : candidates) {
    std::optional<netlink::LinkTraits> traits;
    if (route.oif != 0 && socket.send(netlink::linkGetRequest(route.oif, nextSeq++))) {
      auto batch = socket.receive();
      if (batch && !batch->links.empty()) {
        const auto& link = batch->links.front();
        traits = netlink::LinkTraits{
            .up = (link.flags & IFF_UP) && (link.flags & IFF_RUNNING),
            .pointToPoint = (link.flags & IFF_POINTOPOINT) != 0,
            .wwan = isCellularLink(sysfsRoot_, link.name, link.type),
        };
      }
    }
    if (std::uint32_t flags = netlink::flagsForRoute(route, traits); flags != 0) return flags;
  }
  return 0u;
}

std::vector<IpAddress> KernelRouteSource::resolve(const std::string& hostName) {
  // Every family, and no AI_ADDRCONFIG: each address is judged by its route
  // afterwards, and one of a family the machine cannot use has none.
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* list = nullptr;
  std::vector<IpAddress> out;
  if (::getaddrinfo(hostName.c_str(), nullptr, &hints, &list) != 0) return out;
  for (addrinfo* ai = list; ai; ai = ai->ai_next) {
    IpAddress a;
    if (ai->ai_family == AF_INET && ai->ai_addrlen >= sizeof(sockaddr_in))
      a = IpAddress(reinterpret_cast<const sockaddr_in*>(ai->ai_addr)->sin_addr);
    else if (ai->ai_family == AF_INET6 && ai->ai_addrlen >= sizeof(sockaddr_in6))
      a = IpAddress(reinterpret_cast<const sockaddr_in6*>(ai->ai_addr)->sin6_addr);
    else
      continue;
    if (std::find(out.begin(), out.end(), a) == out.end()) out.push_back(a);
  }
  ::freeaddrinfo(list);
  return out;
}

std::unique_ptr<RouteSource::Watch> KernelRouteSource::watch() {
  auto w = std::make_unique<KernelWatch>();
  if (!w->ok()) return nullptr;
  return w;
}

}  // namespace quarvel
