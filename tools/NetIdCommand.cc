#include "NetIdCommand.h"

#include <condition_variable>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <ostream>

#include "quarvel/CVUserDefaults.h"
#include "settings/HttpRequest.h"

namespace quarvel::cli {

namespace {

// The answer slot outlives this call when the answer comes too late.
struct Answer {
  std::mutex mutex;
  std::condition_variable arrived;
  bool done = false;
  std::optional<std::string> text;
};

}  // namespace

NetIdResult gatherNetId(const NetIdOptions& options, NetworkSources sources) {
  sources = withSystemDefaults(std::move(sources));
  std::string host =
      options.echoHost.empty() ? CVUserDefaults::echoServiceHost() : options.echoHost;
  auto answer = std::make_shared<Answer>();
  sendHttpRequest("http://" + host + "/ip", "", [answer](std::optional<std::string> text) {
    std::lock_guard<std::mutex> lock(answer->mutex);
    answer->text = std::move(text);
    answer->done = true;
    answer->arrived.notify_all();
  });
  NetIdResult result;
  {
    std::unique_lock<std::mutex> lock(answer->mutex);
    answer->arrived.wait_for(lock, options.wait, [&] { return answer->done; });
    result.external = answer->text;
  }
  result.run = buildNetworkIdentity(*sources.services, *sources.interfaces, result.external);
  return result;
}

std::string renderNetId(const NetIdResult& result, bool json) {
  if (!json) return result.run.ipStr;
  nlohmann::ordered_json doc;
  doc["text"] = result.run.ipStr;
  doc["external"] = result.external ? nlohmann::ordered_json(*result.external) : nullptr;
  doc["adapters"] = nlohmann::ordered_json::array();
  for (const AdapterRecord& r : result.run.addressArray) {
    nlohmann::ordered_json record;
    record["device"] = r.device;
    record["ADAPTER"] = r.adapter;
    record[kFamilyIPv4] = r.ipv4;
    if (r.mac) record[kFamilyLink] = *r.mac;
    doc["adapters"].push_back(std::move(record));
  }
  doc["services"] = nlohmann::ordered_json::array();
  for (const auto& [device, port] : result.run.deviceName) {
    doc["services"].push_back({{"device", device}, {"port", port}});
  }
  // Texts that are not UTF-8 (a strange port name) are replaced, not fatal.
  return doc.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

int runNetId(const NetIdOptions& options, std::ostream& out) {
  out << renderNetId(gatherNetId(options), options.json) << "\n";
  return 0;
}

}  // namespace quarvel::cli
