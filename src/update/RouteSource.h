#pragma once
// Where reachability flags come from: for an IPv4 or IPv6 address, the flags
// of the route the system would use now; for a host name, its addresses of
// both families; and a watch that wakes up when links, addresses or routes
// change. The default source asks the kernel (KernelRouteSource); tests
// install their own.

#include <netinet/in.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace quarvel {

// An IPv4 or an IPv6 address, in network byte order.
struct IpAddress {
  int family = AF_INET;  // AF_INET or AF_INET6; the other member stays zero
  in_addr v4{};
  in6_addr v6{};

  IpAddress() = default;
  IpAddress(in_addr address) : family(AF_INET), v4(address) {}
  IpAddress(const in6_addr& address) : family(AF_INET6), v6(address) {}

  // A dotted IPv4 or a textual IPv6 address (no zone index); nullopt for
  // anything else, host names included.
  static std::optional<IpAddress> parse(const std::string& text);
  // 0.0.0.0 or ::, which stand for "any route to the internet".
  bool isUnspecified() const;
  // The address as inet_ntop writes it ("192.0.2.1", "2001:db8::1").
  std::string toString() const;
  friend bool operator==(const IpAddress& a, const IpAddress& b);
};

class RouteSource {
 public:
  // One subscription to changes. fd() becomes readable when something may
  // have changed; drain() consumes what is pending and answers whether it
  // could have changed any route (false for spurious wake-ups). Used by one
  // thread at a time.
  class Watch {
   public:
    virtual ~Watch() = default;
    virtual int fd() const = 0;
    virtual bool drain() = 0;
  };

  virtual ~RouteSource() = default;

  // The flags (ReachabilityFlags bits) for reaching `address` now; 0.0.0.0
  // and :: ask for any route to the internet, over IPv4 or IPv6. nullopt
  // when the flags cannot be read. Safe to call from any thread.
  virtual std::optional<std::uint32_t> flagsForAddress(const IpAddress& address) = 0;

  // The addresses of `hostName` in every family, in the resolver's order of
  // preference, without repeats; empty when it does not resolve. Safe to
  // call from any thread; may block for as long as name resolution takes.
  virtual std::vector<IpAddress> resolve(const std::string& hostName) = 0;

  // A new subscription, or null when none can be made.
  virtual std::unique_ptr<Watch> watch() = 0;

  // The source that new monitors use: the current Platform's, else the
  // kernel. Monitors keep the source they were created with.
  static std::shared_ptr<RouteSource> current();
};

}  // namespace quarvel
