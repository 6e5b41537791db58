#pragma once
// A minimal HTTP/1.1 server on 127.0.0.1 (a free port) for tests of HTTP
// clients. Unlike a general-purpose server it keeps the body of any method,
// GET included, and can misbehave on purpose: close without answering, hold
// the connection open in silence, break an answer off part-way (a reset or a
// silent stall), let the body trickle out piece by piece, or flood the
// client with a body that never ends.
//
//   quarvel::testing::LoopbackHttpServer server([](const auto& request) {
//     return quarvel::testing::HttpReply::text("203.0.113.5\n");
//   });
//   client.get(server.url("/ip"));
//   server.requests();  // what arrived, in order
//
// Connections are served one after another on one thread; a trickling
// answer keeps the next client waiting. Silent connections are closed once
// their client has gone.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace quarvel::testing {

struct HttpReceived {
  std::string method;
  std::string target;
  std::map<std::string, std::string> headers;  // names lower-cased
  std::string body;
};

struct HttpReply {
  enum class Kind { Answer, Close, Silence };
  // Where an answer stops: after the whole body, or after `cutAt` bytes of
  // it with a reset (RST) or with the connection left open in silence.
  enum class Cut { None, Reset, Stall };
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
  // An endless body of `body` over and over, as fast as the client reads.
  static HttpReply flood(std::string body) {
    HttpReply reply = text(std::move(body));
    reply.endless = true;
    return reply;
  }
  static HttpReply trickle(std::string body, std::size_t piece, std::chrono::milliseconds pause) {
    return {Kind::Answer, 200, std::move(body), Cut::None, 0, piece, pause};
  }
};

class LoopbackHttpServer {
 public:
  using Handler = std::function<HttpReply(const HttpReceived&)>;

  explicit LoopbackHttpServer(Handler handler) : handler_(std::move(handler)) {
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    if (listener_ < 0 || ::bind(listener_, reinterpret_cast<sockaddr*>(&addr), len) != 0 ||
        ::listen(listener_, 16) != 0 ||
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
      std::abort();
    }
    port_ = ntohs(addr.sin_port);
    thread_ = std::thread([this] { serve(); });
  }

  ~LoopbackHttpServer() {
    stop_ = true;
    thread_.join();
    for (int fd : held_) ::close(fd);
    ::close(listener_);
  }

  LoopbackHttpServer(const LoopbackHttpServer&) = delete;
  LoopbackHttpServer& operator=(const LoopbackHttpServer&) = delete;

  std::string hostAndPort() const { return "127.0.0.1:" + std::to_string(port_); }
  std::string url(const std::string& path) const { return "http://" + hostAndPort() + path; }

  std::vector<HttpReceived> requests() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
  }

 private:
  // Waits at most this long for a client's next bytes.
  static constexpr int kReadTimeoutMs = 5000;

  void serve() {
    while (!stop_) {
      closeAbandoned();
      pollfd p{listener_, POLLIN, 0};
      if (::poll(&p, 1, 20) <= 0) continue;
      int fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
      if (fd < 0) continue;
      handle(fd);
    }
  }

  // Closes the silent connections whose client has hung up.
  void closeAbandoned() {
    std::erase_if(held_, [](int fd) {
      pollfd p{fd, POLLIN, 0};
      char byte;
      if (::poll(&p, 1, 0) <= 0 || ::recv(fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT) > 0) return false;
      ::close(fd);
      return true;
    });
  }

  static bool sendAll(int fd, const char* data, std::size_t size) {
    while (size > 0) {
      ssize_t n = ::send(fd, data, size, MSG_NOSIGNAL);
      if (n <= 0) return false;
      data += n;
      size -= static_cast<std::size_t>(n);
    }
    return true;
  }

  bool readMore(int fd, std::string& buffer) {
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, kReadTimeoutMs) <= 0) return false;
    char chunk[4096];
    ssize_t n = ::read(fd, chunk, sizeof chunk);
    if (n <= 0) return false;
    buffer.append(chunk, static_cast<std::size_t>(n));
    return true;
  }

  void handle(int fd) {
    std::string buffer;
    std::size_t headerEnd;
    while ((headerEnd = buffer.find("\r\n\r\n")) == std::string::npos) {
      if (!readMore(fd, buffer)) {
        ::close(fd);
        return;
      }
    }
    HttpReceived request;
    std::string head = buffer.substr(0, headerEnd);
    std::size_t lineEnd = head.find("\r\n");
    std::string requestLine = head.substr(0, lineEnd);
    std::size_t sp1 = requestLine.find(' ');
    std::size_t sp2 = requestLine.find(' ', sp1 + 1);
    request.method = requestLine.substr(0, sp1);
    request.target = requestLine.substr(sp1 + 1, sp2 - sp1 - 1);
    std::size_t pos = lineEnd == std::string::npos ? head.size() : lineEnd + 2;
    while (pos < head.size()) {
      std::size_t end = head.find("\r\n", pos);
      if (end == std::string::npos) end = head.size();
      std::string line = head.substr(pos, end - pos);
      std::size_t colon = line.find(':');
      if (colon != std::string::npos) {
        std::string name = line.substr(0, colon);
        for (char& c : name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        std::size_t valueStart = line.find_first_not_of(' ', colon + 1);
        request.headers[name] = valueStart == std::string::npos ? "" : line.substr(valueStart);
      }
      pos = end + 2;
    }
    std::size_t length = 0;
    if (auto it = request.headers.find("content-length"); it != request.headers.end()) {
      length = std::stoul(it->second);
    }
    request.body = buffer.substr(headerEnd + 4);
    while (request.body.size() < length && readMore(fd, request.body)) {
    }
    HttpReply reply = handler_(request);
    {
      std::lock_guard<std::mutex> lock(mutex_);
      requests_.push_back(request);
    }
    switch (reply.kind) {
      case HttpReply::Kind::Close:
        ::close(fd);
        return;
      case HttpReply::Kind::Silence:
        held_.push_back(fd);
        return;
      case HttpReply::Kind::Answer:
        break;
    }
    answer(fd, reply);
  }

  // Sends the head and the body as far as the reply lets it go, then ends
  // the connection as the reply says.
  void answer(int fd, const HttpReply& reply) {
    if (reply.endless) return flood(fd, reply);
    const std::string head = "HTTP/1.1 " + std::to_string(reply.status) + " Answer\r\n" +
                             "Content-Type: text/plain; charset=utf-8\r\n" +
                             "Content-Length: " + std::to_string(reply.body.size()) +
                             "\r\nConnection: close\r\n\r\n";
    const std::size_t end = reply.cut == HttpReply::Cut::None
                                ? reply.body.size()
                                : std::min(reply.cutAt, reply.body.size());
    const std::size_t piece = reply.piece ? reply.piece : std::max<std::size_t>(end, 1);
    bool ok = sendAll(fd, head.data(), head.size());
    for (std::size_t at = 0; ok && at < end && !stop_; at += piece) {
      std::this_thread::sleep_for(reply.pause);
      ok = sendAll(fd, reply.body.data() + at, std::min(piece, end - at));
    }
    if (reply.cut == HttpReply::Cut::Stall) {
      held_.push_back(fd);
      return;
    }
    if (reply.cut == HttpReply::Cut::Reset) {
      linger abort{1, 0};  // close with a reset instead of an orderly end
      ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
    }
    ::close(fd);
  }

  // Sends the body again and again until the client hangs up or the server
  // stops; the end of the body is the end of the connection, which never
  // comes.
  void flood(int fd, const HttpReply& reply) {
    const std::string head = "HTTP/1.1 " + std::to_string(reply.status) +
                             " Answer\r\nContent-Type: application/octet-stream\r\n"
                             "Connection: close\r\n\r\n";
    bool ok = sendAll(fd, head.data(), head.size()) && !reply.body.empty();
    while (ok && !stop_) ok = sendAll(fd, reply.body.data(), reply.body.size());
    ::close(fd);
  }

  Handler handler_;
  int listener_ = -1;
  int port_ = 0;
  std::atomic<bool> stop_{false};
  std::thread thread_;
  std::vector<int> held_;  // server thread only, then the destructor
  mutable std::mutex mutex_;
  std::vector<HttpReceived> requests_;  // guarded by mutex_
};

}  // namespace quarvel::testing
