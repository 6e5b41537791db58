// Placeholder network identity until it is written: the start-up steps do
// nothing and the identity text is empty.
#include "quarvel/settings/CVUserDefaults.h"

namespace quarvel {

void CVUserDefaults::startExternalAddressLookup() {}
void CVUserDefaults::startNetworkIdentityJob() {}
void CVUserDefaults::getOutIpAddress() {}
std::string CVUserDefaults::getIpAddress() { return ""; }
void CVUserDefaults::refresh() {}
std::vector<std::pair<std::string, std::string>> CVUserDefaults::deviceName(const std::string&) {
  return {};
}
std::string CVUserDefaults::IPAddress() { return ""; }
void CVUserDefaults::setIPAddress(const std::string&) {}

}  // namespace quarvel
