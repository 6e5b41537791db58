#pragma once
// The service list on Linux, read from sysfs: which interfaces count as
// network services, their hardware-port names and their order.
//
// Port names, first rule that applies:
//   loopback                                  not a service
//   wireless (wireless/, phy80211, wlan)      "Wi-Fi"
//   bridge (bridge/, DEVTYPE=bridge)          "Bridge"
//   on a USB bus                              "USB <product>" ("USB Ethernet"
//                                             when the product is unknown)
//   bond (bonding/, DEVTYPE=bond)             "Bond"
//   DEVTYPE=vlan                              "VLAN"
//   tun/tap (tun_flags), DEVTYPE=wireguard    "VPN"
//   other hardware-backed (device link):      "WWAN", "Bluetooth PAN",
//     by DEVTYPE or link type                 "InfiniBand", "FireWire",
//                                             else "Ethernet"
//   virtual, linked to another interface      "Virtual Ethernet" (veth,
//     and not a bridge port                   macvlan: a container's eth0)
//   any other virtual interface               not a service (ifb, dummy,
//                                             bridge ports, ...)
// Order: lowest metric of the interface's IPv4 default route first
// (interfaces without one last), then interface index.

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "settings/NetworkSources.h"

namespace quarvel {

// What sysfs tells about one interface (/sys/class/net/<name>).
struct DeviceFacts {
  std::string name;
  int ifindex = 0;
  int iflink = 0;
  int type = 0;             // ARPHRD_* link type
  std::uint32_t flags = 0;  // IFF_* flags
  std::string devtype;      // DEVTYPE= of uevent
  bool wireless = false;    // wireless/ or phy80211
  bool bridge = false;      // bridge/
  bool bond = false;        // bonding/
  bool bridgePort = false;  // brport/: enslaved to a bridge
  bool tun = false;         // tun_flags
  bool hasDevice = false;   // device link: backed by hardware
  std::string bus;          // subsystem of the device: "pci", "usb", "virtio", ...
  std::string product;      // product text of the USB device, trimmed
};

// KEY=VALUE lines; the value runs from the first '=' to the line end.
std::map<std::string, std::string> parseUevent(std::string_view text);

// Interface -> lowest metric among its IPv4 default routes that are up, from
// the text of /proc/net/route. Malformed lines are skipped.
std::map<std::string, std::uint32_t> parseDefaultRouteMetrics(std::string_view text);

// The hardware-port name, or nothing when the interface is not a service.
std::optional<std::string> hardwarePortName(const DeviceFacts& facts);

// The services among `devices`, named and ordered as described above.
ServiceList orderServices(const std::vector<DeviceFacts>& devices,
                          const std::map<std::string, std::uint32_t>& routeMetrics);

// Reads one interface directory; unreadable facts keep their defaults.
DeviceFacts readDeviceFacts(const std::filesystem::path& interfaceDir);

class SysfsServiceSource final : public ServiceSource {
 public:
  explicit SysfsServiceSource(std::filesystem::path classNet = "/sys/class/net",
                              std::filesystem::path routeTable = "/proc/net/route");
  ServiceList services() override;

 private:
  std::filesystem::path classNet_;
  std::filesystem::path routeTable_;
};

}  // namespace quarvel
