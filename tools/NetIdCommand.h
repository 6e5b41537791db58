#pragma once
// The work behind `quarvel netid`: the machine's network identity text, or
// the adapter records behind it as JSON.

#include <chrono>
#include <iosfwd>
#include <optional>
#include <string>

#include "settings/NetworkIdentity.h"
#include "settings/NetworkSources.h"

namespace quarvel::cli {

struct NetIdOptions {
  bool json = false;
  std::string echoHost;                  // "host[:port]"; empty: the settings object's echo service
  std::chrono::milliseconds wait{2000};  // longest wait for the external address
};

struct NetIdResult {
  std::optional<std::string> external;  // the echo service's answer, if it came
  NetworkIdentityRun run;
};

// Asks the echo service, waits for its answer at most options.wait (less when
// it comes earlier), then builds the identity from `sources` (system ones by
// default). Does not create the shared settings instance, which would lay
// out the work folders.
NetIdResult gatherNetId(const NetIdOptions& options, NetworkSources sources = {});

// The text as it is, or {"text", "external", "adapters": [{"device",
// "ADAPTER", "2", "18"}...], "services": [{"device", "port"}...]}; "18" is
// left out for an adapter without a link-level address.
std::string renderNetId(const NetIdResult& result, bool json);

int runNetId(const NetIdOptions& options, std::ostream& out);

}  // namespace quarvel::cli
