// Feeds arbitrary text to the service-list parser and to the sysfs and route
// table parsers, and checks what they promise about their results.
#include <cstddef>
#include <cstdint>
#include <string>

#include "settings/NetworkIdentity.h"
#include "settings/SysfsServices.h"

using namespace quarvel;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string text(reinterpret_cast<const char*>(data), size);

  for (const auto& [device, port] : parseServiceList(text)) {
    // Parentheses are deleted and the parts are split at commas and lines.
    for (const std::string* part : {&device, &port}) {
      if (part->find_first_of("(),\n") != std::string::npos) __builtin_trap();
    }
  }

  for (const auto& [key, value] : parseUevent(text)) {
    if (key.empty() || key.find('=') != std::string::npos || key.find('\n') != std::string::npos ||
        value.find('\n') != std::string::npos) {
      __builtin_trap();
    }
  }

  auto metrics = parseDefaultRouteMetrics(text);
  for (const auto& [name, metric] : metrics) {
    if (name.empty() || name.find_first_of(" \t\n") != std::string::npos) __builtin_trap();
  }

  // Every device with facts taken from the text gets a port name or none,
  // and the ordering keeps exactly the named ones.
  std::vector<DeviceFacts> devices;
  for (const auto& [name, metric] : metrics) {
    DeviceFacts d;
    d.name = name;
    d.ifindex = static_cast<int>(metric % 64);
    d.iflink = static_cast<int>(name.size());
    d.type = static_cast<int>(metric >> 8) & 0xffff;
    d.flags = metric;
    d.devtype = name;
    d.hasDevice = metric & 1;
    d.bus = metric & 2 ? "usb" : "pci";
    d.product = name;
    devices.push_back(d);
  }
  std::size_t named = 0;
  for (const DeviceFacts& d : devices) named += hardwarePortName(d).has_value();
  if (orderServices(devices, metrics).size() != named) __builtin_trap();
  return 0;
}
