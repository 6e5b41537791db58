// Placeholder network identity until it is written: the start-up steps do
// nothing and the identity text is empty.
#include "quarvel/settings/CVUserDefaults.h"

namespace quarvel {

namespace {
std::mutex echoHostMutex;
std::string& echoHost() {
  static std::string host = QUARVEL_ECHO_SERVER_HOST;
  return host;
}
}  // namespace

void CVUserDefaults::setEchoServiceHost(std::string hostAndPort) {
  std::lock_guard<std::mutex> lock(echoHostMutex);
  echoHost() = std::move(hostAndPort);
}

std::string CVUserDefaults::echoServiceHost() {
  std::lock_guard<std::mutex> lock(echoHostMutex);
  return echoHost();
}

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
