#pragma once
// A minimal HTTP/1.1 server on 127.0.0.1 (a free port) for tests of HTTP
// clients. Unlike a general-purpose server it keeps the body of any method,
// GET included, and can misbehave on purpose: close without answering, or
// hold the connection open in silence.
//
//   quarvel::testing::LoopbackHttpServer server([](const auto& request) {
//     return quarvel::testing::HttpReply::text("203.0.113.5\n");
//   });
//   client.get(server.url("/ip"));
//   server.requests();  // what arrived, in order

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

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
  Kind kind = Kind::Answer;
  int status = 200;
  std::string body;

  static HttpReply text(std::string body, int status = 200) {
    return {Kind::Answer, status, std::move(body)};
  }
  static HttpReply closeWithoutAnswer() { return {Kind::Close, 0, ""}; }
  static HttpReply silence() { return {Kind::Silence, 0, ""}; }
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
      pollfd p{listener_, POLLIN, 0};
      if (::poll(&p, 1, 20) <= 0) continue;
      int fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
      if (fd < 0) continue;
      handle(fd);
    }
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
    std::string response = "HTTP/1.1 " + std::to_string(reply.status) + " Answer\r\n" +
                           "Content-Type: text/plain; charset=utf-8\r\n" +
                           "Content-Length: " + std::to_string(reply.body.size()) +
                           "\r\nConnection: close\r\n\r\n" + reply.body;
    std::size_t sent = 0;
    while (sent < response.size()) {
      ssize_t n = ::send(fd, response.data() + sent, response.size() - sent, MSG_NOSIGNAL);
      if (n <= 0) break;
      sent += static_cast<std::size_t>(n);
    }
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
