#pragma once
// Where the network identity takes its facts from: the kernel's interface
// list (addresses per interface) and the service list (which interfaces are
// network services, their hardware-port names and their order). Both sit
// behind small interfaces so that tests can feed them.

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace quarvel {

// Address-family keys as the identity records spell them.
inline constexpr const char* kFamilyIPv4 = "2";
inline constexpr const char* kFamilyLink = "18";

// One address of one interface, in the order the kernel lists them.
struct InterfaceAddress {
  std::string name;     // "eth0"
  std::string family;   // kFamilyIPv4 or kFamilyLink
  std::string address;  // "192.168.0.7" or "00:1C:42:0A:0B:0C"
};

class InterfaceSource {
 public:
  virtual ~InterfaceSource() = default;
  // The IPv4 and link-level addresses of every interface, or nothing when
  // the list cannot be read at all (the source logs why).
  virtual std::optional<std::vector<InterfaceAddress>> addresses() = 0;
};

// (device, hardware-port name) pairs in service order: "eth0" -> "Ethernet".
using ServiceList = std::vector<std::pair<std::string, std::string>>;

class ServiceSource {
 public:
  virtual ~ServiceSource() = default;
  virtual ServiceList services() = 0;
};

// The facts one identity run consults, and how it waits for the external
// address. Any member left empty falls back to the system's own.
struct NetworkSources {
  std::shared_ptr<InterfaceSource> interfaces;
  std::shared_ptr<ServiceSource> services;
  std::function<void(std::chrono::milliseconds)> sleep;
};

// Linux: getifaddrs (AF_INET, and AF_PACKET hardware addresses of six bytes).
std::shared_ptr<InterfaceSource> systemInterfaceSource();
// Linux: /sys/class/net and /proc/net/route (see SysfsServices.h).
std::shared_ptr<ServiceSource> systemServiceSource();
// `sources` with every empty member replaced by the system's own.
NetworkSources withSystemDefaults(NetworkSources sources);

// Six bytes as "%02X:%02X:%02X:%02X:%02X:%02X".
std::string formatLinkAddress(const std::uint8_t* sixBytes);

}  // namespace quarvel
