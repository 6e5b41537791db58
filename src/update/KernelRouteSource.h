#pragma once
// The route source of a Linux machine: the kernel's own routing decision,
// asked over rtnetlink for IPv4 and IPv6 alike, and a netlink subscription
// to link, address and route changes of both families.
//
// Each question opens its own netlink socket, so the source may be used from
// any thread, and answers for the network namespace of the calling thread.

#include <cstdint>
#include <string>

#include "update/RouteSource.h"

namespace quarvel {

class KernelRouteSource : public RouteSource {
 public:
  // `sysfsRoot` is where sysfs is mounted ("/sys"); it is read for the
  // device type of the outgoing interface.
  explicit KernelRouteSource(std::string sysfsRoot = "/sys");

  std::optional<std::uint32_t> flagsForAddress(const IpAddress& address) override;
  std::vector<IpAddress> resolve(const std::string& hostName) override;
  std::unique_ptr<Watch> watch() override;

  // Whether the interface `name` with hardware type `arphrdType` is a
  // mobile-broadband link: its uevent says DEVTYPE=wwan, or it is a ppp link
  // on a machine that has a cellular modem (an entry in class/wwan, or some
  // interface with DEVTYPE=wwan).
  static bool isCellularLink(const std::string& sysfsRoot, const std::string& name,
                             std::uint16_t arphrdType);

 private:
  std::string sysfsRoot_;
};

}  // namespace quarvel
