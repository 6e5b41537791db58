#pragma once
// A minimal HTTP/1.1 server on 127.0.0.1 (a free port) for tests of
// HTTP clients. It keeps the body of any method, GET included, and can
// misbehave on purpose: close without answering, stay silent, break an
// answer off part-way (an orderly close, a reset or a stall), trickle the
// body or flood the client with one that never ends. Connections are served
// one after another on one thread, so a trickle or a handler that waits
// keeps the next client waiting; silent connections are closed once their
// client has gone. The accessors may be called from any thread.

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace quarvel::testing {

struct HttpReceived {
  std::string method;
  std::string target;                          // path and query as sent
  std::map<std::string, std::string> headers;  // names lower-cased
  std::string body;
};

struct HttpReply {
  enum class Kind { Answer, Close, Silence };
  // Where an answer stops: after the whole body, or after `cutAt` bytes of
  // it with an orderly close, a reset (RST) or the connection left open in
  // silence.
  enum class Cut { None, Close, Reset, Stall };
  Kind kind = Kind::Answer;
  int status = 200;
  std::string body;  // the head always announces all of it
  Cut cut = Cut::None;
  std::size_t cutAt = 0;
  std::size_t piece = 0;               // when set, the body goes out in pieces
  std::chrono::milliseconds pause{0};  // of this size, each after this pause
  // No length announced; the body repeats until the client hangs up.
  bool endless = false;

  static HttpReply text(std::string body, int status = 200) {
    return {Kind::Answer, status, std::move(body)};
  }
  static HttpReply closeWithoutAnswer() { return {Kind::Close, 0, ""}; }
  static HttpReply silence() { return {Kind::Silence, 0, ""}; }
  static HttpReply resetAfter(std::string body, std::size_t bytes) {
    return {Kind::Answer, 200, std::move(body), Cut::Reset, bytes};
  }
  static HttpReply stallAfter(std::string body, std::size_t bytes) {
    return {Kind::Answer, 200, std::move(body), Cut::Stall, bytes};
  }
  static HttpReply flood(std::string body) {
    return {Kind::Answer, 200, std::move(body), Cut::None, 0, 0, {}, true};
  }
  static HttpReply trickle(std::string body, std::size_t piece, std::chrono::milliseconds pause) {
    return {Kind::Answer, 200, std::move(body), Cut::None, 0, piece, pause};
  }
};

class LoopbackHttpServer {
 public:
  using Handler = std::function<HttpReply(const HttpReceived&)>;

  // Listens on 127.0.0.1; the handler runs on the server's thread.
  explicit LoopbackHttpServer(Handler handler);
  ~LoopbackHttpServer();
  LoopbackHttpServer(const LoopbackHttpServer&) = delete;
  LoopbackHttpServer& operator=(const LoopbackHttpServer&) = delete;

  int port() const { return port_; }
  std::string hostAndPort() const { return "127.0.0.1:" + std::to_string(port_); }
  std::string url(const std::string& path) const { return "http://" + hostAndPort() + path; }
  std::vector<HttpReceived> requests() const;

 private:
  void serve();
  void closeAbandoned();
  void handle(int fd);
  void answer(int fd, const HttpReply& reply);

  Handler handler_;
  int listener_ = -1;
  int port_ = -1;
  std::atomic<bool> stop_{false};
  std::thread thread_;
  std::vector<int> held_;  // server thread only, then the destructor
  mutable std::mutex mutex_;
  std::vector<HttpReceived> requests_;  // guarded by mutex_
};

}  // namespace quarvel::testing
