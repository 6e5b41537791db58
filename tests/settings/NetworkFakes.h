#pragma once
// Hand-fed network sources for the identity tests.

#include <atomic>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "settings/NetworkSources.h"

namespace quarvel::testing {

struct FakeInterfaces final : InterfaceSource {
  explicit FakeInterfaces(std::optional<std::vector<InterfaceAddress>> l) : list(std::move(l)) {}
  std::optional<std::vector<InterfaceAddress>> addresses() override { return list; }
  std::optional<std::vector<InterfaceAddress>> list;
};

struct FakeServices final : ServiceSource {
  explicit FakeServices(ServiceList l) : list(std::move(l)) {}
  ServiceList services() override { return ++calls, list; }
  ServiceList list;
  std::atomic<int> calls{0};
};

}  // namespace quarvel::testing
