#include "settings/NetworkSources.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <linux/if_packet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <thread>

#include "common/Log.h"
#include "settings/SysfsServices.h"

namespace quarvel {

std::string formatLinkAddress(const std::uint8_t* b) {
  char text[18];
  std::snprintf(text, sizeof text, "%02X:%02X:%02X:%02X:%02X:%02X", b[0], b[1], b[2], b[3], b[4],
                b[5]);
  return text;
}

namespace {

class IfaddrsInterfaceSource final : public InterfaceSource {
 public:
  std::optional<std::vector<InterfaceAddress>> addresses() override {
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) {
      logf("NetworkInformation refresh failed: interface list could not be read (%s)",
           std::strerror(errno));
      return std::nullopt;
    }
    std::vector<InterfaceAddress> result;
    for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
      if (entry->ifa_addr == nullptr || entry->ifa_name == nullptr) continue;
      if (entry->ifa_addr->sa_family == AF_INET) {
        const auto* in = reinterpret_cast<const sockaddr_in*>(entry->ifa_addr);
        char text[INET_ADDRSTRLEN] = {};
        inet_ntop(AF_INET, &in->sin_addr, text, sizeof text);
        result.push_back({entry->ifa_name, kFamilyIPv4, text});
      } else if (entry->ifa_addr->sa_family == AF_PACKET) {
        // Only six-byte hardware addresses read as MAC addresses; tunnels
        // (none) and InfiniBand (twenty bytes) have no link-level entry.
        const auto* ll = reinterpret_cast<const sockaddr_ll*>(entry->ifa_addr);
        if (ll->sll_halen != 6) continue;
        result.push_back({entry->ifa_name, kFamilyLink, formatLinkAddress(ll->sll_addr)});
      }
    }
    freeifaddrs(list);
    return result;
  }
};

}  // namespace

std::shared_ptr<InterfaceSource> systemInterfaceSource() {
  return std::make_shared<IfaddrsInterfaceSource>();
}

std::shared_ptr<ServiceSource> systemServiceSource() {
  return std::make_shared<SysfsServiceSource>();
}

NetworkSources withSystemDefaults(NetworkSources sources) {
  if (!sources.interfaces) sources.interfaces = systemInterfaceSource();
  if (!sources.services) sources.services = systemServiceSource();
  if (!sources.sleep)
    sources.sleep = [](std::chrono::milliseconds d) { std::this_thread::sleep_for(d); };
  return sources;
}

}  // namespace quarvel
