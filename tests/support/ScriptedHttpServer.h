#pragma once
// A loopback HTTP server whose answers a test scripts per request target
// (path and query as sent): a body, or a hold until the test releases it.
// Records every target asked. Served by LoopbackHttpServer, one connection
// after another. Unknown targets answer 404 with the body "Not Found". The
// script may be changed from any thread.

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "support/LoopbackHttpServer.h"

namespace quarvel::testing {

class ScriptedHttpServer {
 public:
  ~ScriptedHttpServer() { release(); }

  int port() const { return server_.port(); }
  std::string origin() const { return "http://" + server_.hostAndPort(); }

  void serve(const std::string& target, std::string body) {
    std::lock_guard lock(mutex_);
    bodies_[target] = std::move(body);
  }
  // Requests of `target` wait (at most 20 s) until release(); so does every
  // connection after them.
  void hold(const std::string& target) {
    std::lock_guard lock(mutex_);
    held_.insert(target);
  }
  void release() {
    std::lock_guard lock(mutex_);
    released_ = true;
    changed_.notify_all();
  }

  std::vector<std::string> targets() const {
    std::lock_guard lock(mutex_);
    return targets_;
  }
  int count(const std::string& target) const {
    std::lock_guard lock(mutex_);
    return static_cast<int>(std::count(targets_.begin(), targets_.end(), target));
  }

 private:
  HttpReply answer(const HttpReceived& request) {
    std::unique_lock lock(mutex_);
    targets_.push_back(request.target);
    if (held_.count(request.target))
      changed_.wait_for(lock, std::chrono::seconds(20), [this] { return released_; });
    const auto known = bodies_.find(request.target);
    return known != bodies_.end() ? HttpReply::text(known->second)
                                  : HttpReply::text("Not Found", 404);
  }

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::map<std::string, std::string> bodies_;
  std::set<std::string> held_;
  std::vector<std::string> targets_;
  bool released_ = false;
  // Last: started once the rest is ready, stopped first.
  LoopbackHttpServer server_{[this](const HttpReceived& request) { return answer(request); }};
};

}  // namespace quarvel::testing
