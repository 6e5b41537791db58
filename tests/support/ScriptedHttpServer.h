#pragma once
// A loopback HTTP server whose answers a test scripts per request target
// (path and query as sent): a body, a number of broken transfers before the
// body, or a hold until the test releases it. Records every target asked.
//
//   quarvel::testing::ScriptedHttpServer server;
//   server.serve("/a", "body");
//   server.failTimes("/a", 2);   // the first two GETs of /a break off
//   curl(server.origin() + "/a");
//
// Unknown targets answer 404 with the body "Not Found". A broken transfer
// announces 100 bytes and closes the connection without sending them.

#include <httplib.h>

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace quarvel::testing {

class ScriptedHttpServer {
 public:
  // Listens on `host`, 127.0.0.1 unless told; port() is negative when that
  // address cannot be bound (no IPv6 loopback, say).
  explicit ScriptedHttpServer(std::string host = "127.0.0.1") : host_(std::move(host)) {
    server_.Get(".*", [this](const httplib::Request& request, httplib::Response& response) {
      handle(request, response);
    });
    port_ = server_.bind_to_any_port(host_);
    if (port_ < 0) return;
    thread_ = std::thread([this] { server_.listen_after_bind(); });
    for (int i = 0; i < 500 && !server_.is_running(); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }
  ~ScriptedHttpServer() {
    release();
    server_.stop();
    if (thread_.joinable()) thread_.join();
  }
  ScriptedHttpServer(const ScriptedHttpServer&) = delete;
  ScriptedHttpServer& operator=(const ScriptedHttpServer&) = delete;

  int port() const { return port_; }
  // "127.0.0.1:PORT", "[::1]:PORT".
  std::string hostAndPort() const {
    const bool v6 = host_.find(':') != std::string::npos;
    return (v6 ? "[" + host_ + "]" : host_) + ":" + std::to_string(port_);
  }
  std::string origin() const { return "http://" + hostAndPort(); }

  void serve(const std::string& target, std::string body) {
    std::lock_guard lock(mutex_);
    rules_[target].body = std::move(body);
    rules_[target].known = true;
  }
  void failTimes(const std::string& target, int count) {
    std::lock_guard lock(mutex_);
    rules_[target].failuresLeft = count;
  }
  // Requests of `target` wait (at most 20 s) until release().
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
    int n = 0;
    for (const auto& t : targets_) n += t == target;
    return n;
  }
  // Waits until `target` has been asked for at least once.
  bool waitForRequest(const std::string& target, std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] {
      for (const auto& t : targets_)
        if (t == target) return true;
      return false;
    });
  }

 private:
  struct Rule {
    bool known = false;
    std::string body;
    int failuresLeft = 0;
    bool hold = false;
  };

  void handle(const httplib::Request& request, httplib::Response& response) {
    std::unique_lock lock(mutex_);
    targets_.push_back(request.target);
    changed_.notify_all();
    Rule& rule = rules_[request.target];
    if (rule.hold) {
      changed_.wait_for(lock, std::chrono::seconds(20), [this] { return released_; });
    }
    if (rule.failuresLeft > 0) {
      --rule.failuresLeft;
      response.set_content_provider(100, "application/octet-stream",
                                    [](size_t, size_t, httplib::DataSink&) { return false; });
      return;
    }
    if (!rule.known) {
      response.status = 404;
      response.set_content("Not Found", "text/plain");
      return;
    }
    response.set_content(rule.body, "application/octet-stream");
  }

  httplib::Server server_;
  std::thread thread_;
  std::string host_;
  int port_ = -1;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::map<std::string, Rule> rules_;
  std::vector<std::string> targets_;
  bool released_ = false;
};

}  // namespace quarvel::testing
