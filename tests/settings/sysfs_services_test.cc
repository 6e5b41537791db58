#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <map>
#include <string>

#include "settings/SysfsServices.h"
#include "support/ScratchDir.h"

namespace quarvel {
namespace {

namespace fs = std::filesystem;

// A fake /sys/class/net, its devices tree and /proc/net/route in a temporary
// folder, laid out as the kernel lays them out.
struct SysfsFixture {
  struct Interface {
    std::string name;
    int ifindex;
    int iflink = 0;  // 0: same as ifindex
    int type = 1;
    std::string flags = "0x1003";
    std::string devtype = "";
    std::initializer_list<const char*> markers = {};  // wireless, bridge, brport, tun_flags...
    // Under devices/, what the device link points to ("" for none); its bus
    // is USB under a usb folder, else PCI.
    std::string device = "";
  };

  void add(const Interface& i) {
    const fs::path dir = classNet / i.name;
    fs::create_directories(dir);
    const std::string index = std::to_string(i.ifindex);
    std::ofstream(dir / "ifindex") << index << "\n";
    std::ofstream(dir / "iflink") << (i.iflink ? std::to_string(i.iflink) : index) << "\n";
    std::ofstream(dir / "type") << i.type << "\n";
    std::ofstream(dir / "flags") << i.flags << "\n";
    std::ofstream(dir / "uevent") << (i.devtype.empty() ? "" : "DEVTYPE=" + i.devtype + "\n")
                                  << "INTERFACE=" << i.name << "\nIFINDEX=" << index << "\n";
    for (const char* marker : i.markers) fs::create_directories(dir / marker);
    if (!i.device.empty()) {
      fs::path device = root / "devices" / i.device;
      fs::create_directories(device);
      fs::create_symlink(device, dir / "device");
      const char* bus = i.device.find("/usb") != std::string::npos ? "usb" : "pci";
      fs::create_symlink(root / "bus" / bus, device / "subsystem");
    }
  }

  testing::ScratchDir scratch;
  const fs::path root = scratch.path(), classNet = root / "class/net", routes = root / "route";
};

constexpr const char* kRouteHeader =
    "Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\t\tMTU\tWindow\tIRTT\n";

// A laptop with a docking station: loopback, wired and wireless adapters, three
// USB adapters, a bridge with a container's veth on it, a container link, a
// VPN, a bond, an ifb queue device and a WWAN modem.
void buildLaptop(SysfsFixture& f) {
  // clang-format off
  f.add({.name = "lo", .ifindex = 1, .type = 772, .flags = "0x9"});
  f.add({.name = "enp0s31f6", .ifindex = 2, .device = "pci0000:00/0000:00:1f.6"});
  f.add({.name = "wlp2s0", .ifindex = 3, .devtype = "wlan", .markers = {"wireless", "phy80211"},
         .device = "pci0000:00/0000:02:00.0"});
  // Three USB adapters, two of them naming their product.
  const char* products[] = {"AX88179 Gigabit Ethernet", "USB 10/100/1000 LAN", nullptr};
  for (int n = 1; n <= 3; ++n) {
    const std::string port = "pci0000:00/usb2/2-" + std::to_string(n), last = std::to_string(n);
    f.add({.name = "enx00e04c68000" + last, .ifindex = 3 + n,
           .device = port + "/2-" + last + ":1.0"});
    if (products[n - 1])
      std::ofstream(f.root / "devices" / port / "product") << products[n - 1] << "\n";
  }
  f.add({.name = "docker0", .ifindex = 7, .devtype = "bridge", .markers = {"bridge"}});
  f.add({.name = "veth1a2b", .ifindex = 8, .iflink = 12, .markers = {"brport"}});
  f.add({.name = "eth1", .ifindex = 9, .iflink = 13});
  f.add({.name = "tun0", .ifindex = 10, .type = 65534, .markers = {"tun_flags"}});
  f.add({.name = "bond0", .ifindex = 11, .devtype = "bond", .markers = {"bonding"}});
  f.add({.name = "ifb0", .ifindex = 14, .flags = "0x82"});
  f.add({.name = "wwan0", .ifindex = 15, .type = 519, .devtype = "wwan",
         .device = "pci0000:00/0000:05:00.0"});
  // clang-format on
}

TEST(SysfsServices, NamesPortsAndOrdersByDefaultRouteThenIndex) {
  SysfsFixture f;
  EXPECT_TRUE(SysfsServiceSource(f.classNet / "absent", f.routes).services().empty());
  buildLaptop(f);
  EXPECT_EQ(SysfsServiceSource(f.classNet, f.routes).services().size(), 10u) << "no routes";
  std::ofstream(f.routes) << kRouteHeader
                          << "wlp2s0\t00000000\t0101A8C0\t0003\t0\t0\t600\t00000000\t0\t0\t0\n"
                             "enp0s31f6\t00000000\t0100000A\t0003\t0\t0\t100\t00000000\t0\t0\t0\n"
                             "enp0s31f6\t0000000A\t00000000\t0001\t0\t0\t0\t000000FF\t0\t0\t0\n"
                             "bond0\t00000000\t0100000A\t0003\t0\t0\t700\t00000000\t0\t0\t0\n";
  EXPECT_EQ(SysfsServiceSource(f.classNet, f.routes).services(),
            (ServiceList{{"enp0s31f6", "Ethernet"},
                         {"wlp2s0", "Wi-Fi"},
                         {"bond0", "Bond"},
                         {"enx00e04c680001", "USB AX88179 Gigabit Ethernet"},
                         {"enx00e04c680002", "USB 10/100/1000 LAN"},
                         {"enx00e04c680003", "USB Ethernet"},
                         {"docker0", "Bridge"},
                         {"eth1", "Virtual Ethernet"},
                         {"tun0", "VPN"},
                         {"wwan0", "WWAN"}}));
}

TEST(SysfsServices, DefaultRouteMetrics) {
  struct Case {
    std::string rows;
    std::map<std::string, std::uint32_t> expected;
    const char* why;
  } cases[] = {
      {"a\t00000000\t0\t0003\t0\t0\t300\t00000000\n"
       "a\t00000000\t0\t0003\t0\t0\t200\t00000000\n",
       {{"a", 200}},
       "lowest metric wins"},
      {"a\t00000000\t0\t0002\t0\t0\t1\t00000000\n", {}, "route not up"},
      {"a\t00000000\t0\t0003\t0\t0\t1\t000000FF\n", {}, "0.0.0.0/8 is not a default route"},
      {"a\t00000000\t0\t0003\t0\t0\tx\t00000000\n"
       "b\t00000000\t0\t0003\n"
       "c 00000000 0 0003 0 0 4294967296 00000000\n"
       "d 00000000 0 0003 0 0 4294967295 00000000\n",
       {{"d", 4294967295u}},
       "malformed rows skipped"},
  };
  for (const Case& c : cases)
    EXPECT_EQ(parseDefaultRouteMetrics(kRouteHeader + c.rows), c.expected) << c.why;
}

}  // namespace
}  // namespace quarvel
