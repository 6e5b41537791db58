#pragma once
// Hand-fed network sources for the identity tests.

#include <atomic>
#include <chrono>
#include <mutex>
#include <optional>
#include <vector>

#include "settings/NetworkSources.h"

namespace quarvel::testing {

class FakeInterfaces final : public InterfaceSource {
 public:
  explicit FakeInterfaces(std::optional<std::vector<InterfaceAddress>> list)
      : list_(std::move(list)) {}
  std::optional<std::vector<InterfaceAddress>> addresses() override { return list_; }

 private:
  std::optional<std::vector<InterfaceAddress>> list_;
};

class FakeServices final : public ServiceSource {
 public:
  explicit FakeServices(ServiceList list) : list_(std::move(list)) {}
  ServiceList services() override {
    ++calls;
    return list_;
  }
  std::atomic<int> calls{0};

 private:
  ServiceList list_;
};

// Records the waits instead of sleeping.
class RecordedSleeps {
 public:
  std::function<void(std::chrono::milliseconds)> function() {
    return [this](std::chrono::milliseconds d) {
      std::lock_guard<std::mutex> lock(mutex_);
      waits_.push_back(d);
    };
  }
  std::vector<std::chrono::milliseconds> waits() {
    std::lock_guard<std::mutex> lock(mutex_);
    return waits_;
  }
  void clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    waits_.clear();
  }

 private:
  std::mutex mutex_;
  std::vector<std::chrono::milliseconds> waits_;
};

}  // namespace quarvel::testing
