// Any bytes handed to the netlink parser: it must stay inside them, and what
// it reports must be usable by the flag derivation.

#include <cstddef>
#include <cstdint>
#include <span>

#include "update/RouteMessages.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quarvel::netlink;
  Batch batch = parseBatch(std::span(data, size));
  for (const auto& route : batch.routes) {
    (void)flagsForRoute(route, LinkTraits{.up = true});
    (void)flagsForRoute(route, std::nullopt);
  }
  (void)defaultRoutes(batch.routes);
  return 0;
}
