#pragma once
// The machine's network identity text and the working state of one run that
// builds it. The settings object (CVUserDefaults) drives these functions;
// they are free so that every run owns its state and tests can feed each
// step.
//
// The text: "내부 IP : <first IPv4><br>외부 IP : <external><br>" when some kept
// adapter has an IPv4 address, then "<MAC><br>" per kept adapter with one.
// Adapters are the service list's entries whose port name is non-empty and
// contains neither "USB" nor "Bridge", in service order.

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "settings/NetworkSources.h"

namespace quarvel {

// One reported adapter.
struct AdapterRecord {
  std::string device;              // interface name, "eth0"
  std::string adapter;             // hardware-port name, "Ethernet"
  std::string ipv4;                // "" when the interface has none
  std::optional<std::string> mac;  // absent when it has no link-level entry
};

// Interface name -> family key ("2", "18") -> address text.
using InterfaceTable = std::map<std::string, std::map<std::string, std::string>>;

// The working state of one run.
struct NetworkIdentityRun {
  ServiceList deviceName;                       // the service list
  std::vector<std::string> adapterName;         // interfaces in order of first appearance
  std::optional<InterfaceTable> allInterfaces;  // absent when the list could not be read
  std::vector<AdapterRecord> addressArray;
  std::string ipStr;
};

// Parses the macOS service-list text ("(Hardware Port: Wi-Fi, Device: en0)"
// lines) into (device, port) pairs. Lines without "Port" are skipped, and so
// are "Port" lines without a ','.
ServiceList parseServiceList(const std::string& text);

// Rebuilds run.allInterfaces from the source and appends interface names not
// seen before to run.adapterName. A later address of the same interface and
// family replaces the earlier one.
void refreshInterfaces(NetworkIdentityRun& run, InterfaceSource& source);

// Fills run.addressArray from run.deviceName and the interface table.
void collectAdapters(NetworkIdentityRun& run);

// The identity text of `records`; an absent external address prints "(null)".
std::string renderIdentityText(const std::vector<AdapterRecord>& records,
                               const std::optional<std::string>& outIpAddress);

// One complete run without any waiting: services, interfaces, records, text.
NetworkIdentityRun buildNetworkIdentity(ServiceSource& services, InterfaceSource& interfaces,
                                        const std::optional<std::string>& outIpAddress);

class CVUserDefaults;

// What the library reads of a settings instance beyond its public face.
struct CVUserDefaultsInternals {
  // The working state of the instance's last identity run that finished
  // (services, interfaces, adapter records, text); absent before the first.
  // Safe from any thread.
  static std::optional<NetworkIdentityRun> lastNetworkIdentityRun(const CVUserDefaults& defaults);
};

}  // namespace quarvel
