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
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "support/LoopbackHttpServer.h"

namespace quarvel::testing {

class ScriptedHttpServer {
 public:
  // Listens on `host`; port() is negative when that address cannot be bound.
  explicit ScriptedHttpServer(const std::string& host = "127.0.0.1")
      : server_(std::make_unique<LoopbackHttpServer>(
            [this](const HttpReceived& request) { return answer(request); }, host)) {}
  ~ScriptedHttpServer() {
    release();
    server_.reset();
  }
  ScriptedHttpServer(const ScriptedHttpServer&) = delete;
  ScriptedHttpServer& operator=(const ScriptedHttpServer&) = delete;

  int port() const { return server_->port(); }
  std::string origin() const { return "http://" + server_->hostAndPort(); }

  void serve(const std::string& target, std::string body) {
    std::lock_guard lock(mutex_);
    rules_[target].body = std::move(body);
    rules_[target].known = true;
  }
  // Requests of `target` wait (at most 20 s) until release(); so does every
  // connection after them.
  void hold(const std::string& target) {
    std::lock_guard lock(mutex_);
    rules_[target].hold = true;
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
  struct Rule {
    bool known = false;
    std::string body;
    bool hold = false;
  };

  HttpReply answer(const HttpReceived& request) {
    std::unique_lock lock(mutex_);
    targets_.push_back(request.target);
    Rule& rule = rules_[request.target];
    if (rule.hold) changed_.wait_for(lock, std::chrono::seconds(20), [this] { return released_; });
    return rule.known ? HttpReply::text(rule.body) : HttpReply::text("Not Found", 404);
  }

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::map<std::string, Rule> rules_;
  std::vector<std::string> targets_;
  bool released_ = false;
  std::unique_ptr<LoopbackHttpServer> server_;  // last: stopped first
};

}  // namespace quarvel::testing
