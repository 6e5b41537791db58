#include "settings/SysfsServices.h"

#include <net/if.h>
#include <net/if_arp.h>

#include <algorithm>
#include <charconv>
#include <fstream>
#include <limits>
#include <sstream>
#include <system_error>

#include "common/StringUtil.h"

namespace quarvel {

namespace fs = std::filesystem;

namespace {

std::optional<std::string> readText(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// Decimal, or hexadecimal with "0x" (the flags file); 0 when unreadable.
std::uint64_t readNumber(const fs::path& path) {
  auto text = readText(path);
  if (!text) return 0;
  std::string trimmed = trimWhitespaceAndNewlines(*text);
  std::string_view digits = trimmed;
  int base = 10;
  if (digits.starts_with("0x") || digits.starts_with("0X")) {
    digits.remove_prefix(2);
    base = 16;
  }
  std::uint64_t value = 0;
  std::from_chars(digits.data(), digits.data() + digits.size(), value, base);
  return value;
}

bool present(const fs::path& path) {
  std::error_code ec;
  return fs::exists(fs::symlink_status(path, ec));
}

std::vector<std::string_view> fields(std::string_view line) {
  std::vector<std::string_view> out;
  std::size_t pos = 0;
  while (pos < line.size()) {
    while (pos < line.size() && (line[pos] == ' ' || line[pos] == '\t')) ++pos;
    std::size_t end = pos;
    while (end < line.size() && line[end] != ' ' && line[end] != '\t') ++end;
    if (end > pos) out.push_back(line.substr(pos, end - pos));
    pos = end;
  }
  return out;
}

template <typename T>
bool parseWhole(std::string_view text, T& value, int base) {
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value, base);
  return ec == std::errc() && end == text.data() + text.size();
}

}  // namespace

std::map<std::string, std::string> parseUevent(std::string_view text) {
  std::map<std::string, std::string> values;
  for (const std::string& line : split(text, "\n")) {
    std::size_t eq = line.find('=');
    if (eq == std::string::npos || eq == 0) continue;
    values[line.substr(0, eq)] = line.substr(eq + 1);
  }
  return values;
}

std::map<std::string, std::uint32_t> parseDefaultRouteMetrics(std::string_view text) {
  constexpr std::uint32_t kRouteUp = 0x1;
  std::map<std::string, std::uint32_t> metrics;
  bool header = true;
  for (const std::string& line : split(text, "\n")) {
    if (header) {  // "Iface Destination Gateway Flags RefCnt Use Metric Mask ..."
      header = false;
      continue;
    }
    auto f = fields(line);
    if (f.size() < 8) continue;
    std::uint32_t destination = 0, flags = 0, metric = 0, mask = 0;
    if (!parseWhole(f[1], destination, 16) || !parseWhole(f[3], flags, 16) ||
        !parseWhole(f[6], metric, 10) || !parseWhole(f[7], mask, 16)) {
      continue;
    }
    if (destination != 0 || mask != 0 || !(flags & kRouteUp)) continue;
    std::string name(f[0]);
    auto found = metrics.find(name);
    if (found == metrics.end() || metric < found->second) metrics[name] = metric;
  }
  return metrics;
}

std::optional<std::string> hardwarePortName(const DeviceFacts& d) {
  if ((d.flags & IFF_LOOPBACK) || d.type == ARPHRD_LOOPBACK) return std::nullopt;
  if (d.wireless || d.devtype == "wlan") return "Wi-Fi";
  if (d.bridge || d.devtype == "bridge") return "Bridge";
  if (d.bus == "usb") {
    if (d.product.empty()) return "USB Ethernet";
    // Keep "USB" in the name, which is what the identity filters look for.
    if (d.product.find("USB") != std::string::npos) return d.product;
    return "USB " + d.product;
  }
  if (d.bond || d.devtype == "bond") return "Bond";
  if (d.devtype == "vlan") return "VLAN";
  if (d.tun || d.devtype == "wireguard") return "VPN";
  if (d.hasDevice) {
    if (d.devtype == "wwan") return "WWAN";
    if (d.devtype == "bluetooth") return "Bluetooth PAN";
    if (d.type == ARPHRD_INFINIBAND) return "InfiniBand";
    if (d.type == ARPHRD_IEEE1394) return "FireWire";
    return "Ethernet";
  }
  if (d.iflink != 0 && d.iflink != d.ifindex && !d.bridgePort) return "Virtual Ethernet";
  return std::nullopt;
}

ServiceList orderServices(const std::vector<DeviceFacts>& devices,
                          const std::map<std::string, std::uint32_t>& routeMetrics) {
  struct Entry {
    std::uint64_t metric;
    int ifindex;
    std::string name;
    std::string port;
  };
  std::vector<Entry> entries;
  for (const DeviceFacts& d : devices) {
    auto port = hardwarePortName(d);
    if (!port) continue;
    auto metric = routeMetrics.find(d.name);
    // No default route sorts after every real metric.
    std::uint64_t key = metric == routeMetrics.end()
                            ? std::uint64_t{std::numeric_limits<std::uint32_t>::max()} + 1
                            : metric->second;
    entries.push_back({key, d.ifindex, d.name, *port});
  }
  std::stable_sort(entries.begin(), entries.end(), [](const Entry& a, const Entry& b) {
    if (a.metric != b.metric) return a.metric < b.metric;
    return a.ifindex < b.ifindex;
  });
  ServiceList services;
  for (Entry& e : entries) services.emplace_back(std::move(e.name), std::move(e.port));
  return services;
}

DeviceFacts readDeviceFacts(const fs::path& dir) {
  DeviceFacts d;
  d.name = dir.filename().string();
  d.ifindex = static_cast<int>(readNumber(dir / "ifindex"));
  d.iflink = static_cast<int>(readNumber(dir / "iflink"));
  d.type = static_cast<int>(readNumber(dir / "type"));
  d.flags = static_cast<std::uint32_t>(readNumber(dir / "flags"));
  if (auto uevent = readText(dir / "uevent")) {
    auto values = parseUevent(*uevent);
    if (auto it = values.find("DEVTYPE"); it != values.end()) d.devtype = it->second;
  }
  d.wireless = present(dir / "wireless") || present(dir / "phy80211");
  d.bridge = present(dir / "bridge");
  d.bond = present(dir / "bonding");
  d.bridgePort = present(dir / "brport");
  d.tun = present(dir / "tun_flags");
  d.hasDevice = present(dir / "device");
  if (d.hasDevice) {
    std::error_code ec;
    fs::path subsystem = fs::read_symlink(dir / "device" / "subsystem", ec);
    if (!ec) d.bus = subsystem.filename().string();
    if (d.bus == "usb") {
      // The interface's device is a USB interface; its parent is the USB
      // device, which names the product.
      if (auto product = readText(dir / "device" / ".." / "product")) {
        d.product = trimWhitespaceAndNewlines(*product);
      }
    }
  }
  return d;
}

SysfsServiceSource::SysfsServiceSource(fs::path classNet, fs::path routeTable)
    : classNet_(std::move(classNet)), routeTable_(std::move(routeTable)) {}

ServiceList SysfsServiceSource::services() {
  std::vector<DeviceFacts> devices;
  std::error_code ec;
  for (fs::directory_iterator it(classNet_, ec), end; !ec && it != end; it.increment(ec)) {
    devices.push_back(readDeviceFacts(it->path()));
  }
  auto routes = readText(routeTable_);
  return orderServices(
      devices, routes ? parseDefaultRouteMetrics(*routes) : std::map<std::string, std::uint32_t>{});
}

}  // namespace quarvel
