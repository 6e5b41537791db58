#include "settings/NetworkIdentity.h"

#include <algorithm>

#include "common/StringUtil.h"

namespace quarvel {

namespace {

void eraseAll(std::string& text, std::string_view what) {
  for (std::size_t pos; (pos = text.find(what)) != std::string::npos;) text.erase(pos, what.size());
}

// Space and tab only: the service list keeps its line ends for the split.
std::string trimSpacesAndTabs(const std::string& text) {
  std::size_t begin = text.find_first_not_of(" \t");
  if (begin == std::string::npos) return "";
  std::size_t end = text.find_last_not_of(" \t");
  return text.substr(begin, end - begin + 1);
}

}  // namespace

ServiceList parseServiceList(const std::string& text) {
  ServiceList services;
  for (std::string line : split(trimSpacesAndTabs(text), "\n")) {
    if (line.find("Port") == std::string::npos) continue;
    eraseAll(line, "(");
    eraseAll(line, ")");
    std::vector<std::string> parts = split(line, ",");
    if (parts.size() < 2) continue;
    eraseAll(parts[0], "Hardware Port: ");
    eraseAll(parts[1], " Device: ");
    services.emplace_back(std::move(parts[1]), std::move(parts[0]));
  }
  return services;
}

void refreshInterfaces(NetworkIdentityRun& run, InterfaceSource& source) {
  run.allInterfaces.reset();
  auto addresses = source.addresses();
  if (!addresses) return;
  InterfaceTable& table = run.allInterfaces.emplace();
  for (const InterfaceAddress& entry : *addresses) {
    if (entry.family != kFamilyIPv4 && entry.family != kFamilyLink) continue;
    auto [it, created] = table.try_emplace(entry.name);
    if (created) run.adapterName.push_back(entry.name);
    it->second[entry.family] = entry.address;
  }
}

void collectAdapters(NetworkIdentityRun& run) {
  run.addressArray.clear();
  static const InterfaceTable kNone;
  const InterfaceTable& table = run.allInterfaces ? *run.allInterfaces : kNone;
  for (const auto& [device, port] : run.deviceName) {
    // Each service entry names one device, so of the known interfaces only
    // that one can match it.
    if (std::find(run.adapterName.begin(), run.adapterName.end(), device) ==
        run.adapterName.end()) {
      continue;
    }
    if (port.empty() || port.find("USB") != std::string::npos ||
        port.find("Bridge") != std::string::npos) {
      continue;
    }
    AdapterRecord record{device, port, "", std::nullopt};
    if (auto it = table.find(device); it != table.end()) {
      if (auto v4 = it->second.find(kFamilyIPv4); v4 != it->second.end()) record.ipv4 = v4->second;
      if (auto ll = it->second.find(kFamilyLink); ll != it->second.end()) record.mac = ll->second;
    }
    run.addressArray.push_back(std::move(record));
  }
}

std::string renderIdentityText(const std::vector<AdapterRecord>& records,
                               const std::optional<std::string>& outIpAddress) {
  std::string text;
  auto withAddress = std::find_if(records.begin(), records.end(),
                                  [](const AdapterRecord& r) { return !r.ipv4.empty(); });
  if (withAddress != records.end()) {
    std::optional<std::string> external;
    if (outIpAddress) external = trimWhitespaceAndNewlines(*outIpAddress);
    text += "내부 IP : " + withAddress->ipv4 + "<br>";
    text += "외부 IP : " + orNull(external) + "<br>";
  }
  for (const AdapterRecord& r : records) {
    if (r.mac && !r.mac->empty()) text += *r.mac + "<br>";
  }
  return text;
}

NetworkIdentityRun buildNetworkIdentity(ServiceSource& services, InterfaceSource& interfaces,
                                        const std::optional<std::string>& outIpAddress) {
  NetworkIdentityRun run;
  run.deviceName = services.services();
  refreshInterfaces(run, interfaces);
  collectAdapters(run);
  run.ipStr = renderIdentityText(run.addressArray, outIpAddress);
  return run;
}

}  // namespace quarvel
