#pragma once
// A loopback HTTP server whose answers a test scripts per request target
// (path and query as sent): a body, a number of broken transfers before the
// body, or a hold until the test releases it. Records every target asked.
// Served by LoopbackHttpServer, one connection after another.
//
//   quarvel::testing::ScriptedHttpServer server;
//   server.serve("/a", "body");
//   server.failTimes("/a", 2);   // the first two GETs of /a break off
//   curl(server.origin() + "/a");
//
// Unknown targets answer 404 with the body "Not Found". A broken transfer
// announces 100 bytes and closes the connection without sending them. The
// script may be changed from any thread.

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
  explicit ScriptedHttpServer(const std::string& host = "127.0.0.1");
  ~ScriptedHttpServer();
  ScriptedHttpServer(const ScriptedHttpServer&) = delete;
  ScriptedHttpServer& operator=(const ScriptedHttpServer&) = delete;

  int port() const { return server_->port(); }
  // "127.0.0.1:PORT", "[::1]:PORT".
  std::string hostAndPort() const { return server_->hostAndPort(); }
  std::string origin() const { return "http://" + hostAndPort(); }

  void serve(const std::string& target, std::string body);
  void failTimes(const std::string& target, int count);
  // Requests of `target` wait (at most 20 s) until release(); so does every
  // connection after them.
  void hold(const std::string& target);
  void release();

  std::vector<std::string> targets() const;
  int count(const std::string& target) const;

 private:
  struct Rule {
    bool known = false;
    std::string body;
    int failuresLeft = 0;
    bool hold = false;
  };
  HttpReply answer(const HttpReceived& request);

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::map<std::string, Rule> rules_;
  std::vector<std::string> targets_;
  bool released_ = false;
  std::unique_ptr<LoopbackHttpServer> server_;  // last: stopped first
};

}  // namespace quarvel::testing
