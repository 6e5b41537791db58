#pragma once
// Where reachability flags come from: for an IPv4 address, the flags of the
// route the system would use now; for a host name, its IPv4 addresses; and a
// watch that wakes up when links, addresses or routes change. The default
// source asks the kernel (KernelRouteSource); tests install their own.

#include <netinet/in.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace quarvel {

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

  // The flags (ReachabilityFlags bits) for reaching `address` (network byte
  // order) now; 0.0.0.0 asks for any route to the internet. nullopt when the
  // flags cannot be read. Safe to call from any thread.
  virtual std::optional<std::uint32_t> flagsForAddress(in_addr address) = 0;

  // The IPv4 addresses of `hostName`, empty when it does not resolve. Safe to
  // call from any thread; may block for as long as name resolution takes.
  virtual std::vector<in_addr> resolve(const std::string& hostName) = 0;

  // A new subscription, or null when none can be made.
  virtual std::unique_ptr<Watch> watch() = 0;

  // The source that new monitors use: the kernel unless a test installed
  // another. Monitors keep the source they were created with.
  static std::shared_ptr<RouteSource> current();
  // Installs `source` for monitors created from now on; null puts the kernel
  // back. Answers the source it replaced (null when that was the kernel).
  static std::shared_ptr<RouteSource> setCurrent(std::shared_ptr<RouteSource> source);
};

}  // namespace quarvel
