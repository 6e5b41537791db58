#pragma once
// Hand-fed network sources for the identity tests, and a network that
// answers the settings' requests in libcurl's place.

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "common/HttpClient.h"
#include "common/Platform.h"
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

// Records the waits instead of sleeping.
struct RecordedSleeps {
  std::function<void(std::chrono::milliseconds)> function() {
    return [this](std::chrono::milliseconds d) {
      std::lock_guard<std::mutex> lock(mutex);
      waits.push_back(d);
    };
  }
  std::vector<std::chrono::milliseconds> taken() {  // since the last call
    std::lock_guard<std::mutex> lock(mutex);
    return std::exchange(waits, {});
  }
  std::mutex mutex;
  std::vector<std::chrono::milliseconds> waits;
};

// Answers every started exchange from a thread of its own: `body` in pieces
// of `piece` bytes, then `code`. The answering threads hold the exchanges,
// and those the platform: a test joins them before letting go of it.
class AnsweringNetwork : public PlatformWrapper {
 public:
  AnsweringNetwork(std::string body, std::size_t piece, CURLcode code)
      : body_(std::move(body)), piece_(piece), code_(code) {}
  void join() {
    for (std::thread& t : threads_) t.join();
    threads_.clear();
  }
  void startHttp(std::shared_ptr<HttpExchange> exchange,
                 std::function<void(int)> finished) override {
    std::lock_guard<std::mutex> lock(mutex_);
    urls.push_back(exchange->url());
    threads_.emplace_back([this, exchange, finished] {
      for (std::size_t at = 0; at < body_.size(); at += piece_) {
        if (!exchange->deliver(std::string_view(body_).substr(at, piece_)))
          return finished(CURLE_WRITE_ERROR);
      }
      finished(code_);
    });
  }
  std::vector<std::string> urls;  // guarded by mutex_

 private:
  std::string body_;
  std::size_t piece_;
  CURLcode code_;
  std::mutex mutex_;
  std::vector<std::thread> threads_;
};

}  // namespace quarvel::testing
