#include "support/ScriptedHttpServer.h"

#include <algorithm>
#include <chrono>

namespace quarvel::testing {

ScriptedHttpServer::ScriptedHttpServer(const std::string& host)
    : server_(std::make_unique<LoopbackHttpServer>(
          [this](const HttpReceived& request) { return answer(request); }, host)) {}

ScriptedHttpServer::~ScriptedHttpServer() {
  release();
  server_.reset();
}

void ScriptedHttpServer::serve(const std::string& target, std::string body) {
  std::lock_guard lock(mutex_);
  rules_[target].body = std::move(body);
  rules_[target].known = true;
}

void ScriptedHttpServer::failTimes(const std::string& target, int count) {
  std::lock_guard lock(mutex_);
  rules_[target].failuresLeft = count;
}

void ScriptedHttpServer::hold(const std::string& target) {
  std::lock_guard lock(mutex_);
  rules_[target].hold = true;
}

void ScriptedHttpServer::release() {
  std::lock_guard lock(mutex_);
  released_ = true;
  changed_.notify_all();
}

std::vector<std::string> ScriptedHttpServer::targets() const {
  std::lock_guard lock(mutex_);
  return targets_;
}

int ScriptedHttpServer::count(const std::string& target) const {
  std::lock_guard lock(mutex_);
  return static_cast<int>(std::count(targets_.begin(), targets_.end(), target));
}

HttpReply ScriptedHttpServer::answer(const HttpReceived& request) {
  std::unique_lock lock(mutex_);
  targets_.push_back(request.target);
  Rule& rule = rules_[request.target];
  if (rule.hold) changed_.wait_for(lock, std::chrono::seconds(20), [this] { return released_; });
  if (rule.failuresLeft > 0) {
    --rule.failuresLeft;
    return HttpReply::cutAfter(std::string(100, '\0'), 0, HttpReply::Cut::Close);
  }
  if (!rule.known) return HttpReply::text("Not Found", 404);
  return HttpReply::text(rule.body);
}

}  // namespace quarvel::testing
