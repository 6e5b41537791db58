#include "support/LoopbackHttpServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <string_view>

namespace quarvel::testing {
namespace {

// Waits at most this long for a client's next bytes.
constexpr int kReadTimeoutMs = 5000;

bool sendAll(int fd, std::string_view data) {
  for (ssize_t n = 0; !data.empty(); data.remove_prefix(static_cast<std::size_t>(n)))
    if ((n = ::send(fd, data.data(), data.size(), MSG_NOSIGNAL)) <= 0) return false;
  return true;
}

bool readMore(int fd, std::string& buffer) {
  pollfd p{fd, POLLIN, 0};
  if (::poll(&p, 1, kReadTimeoutMs) <= 0) return false;
  char chunk[4096];
  const ssize_t n = ::read(fd, chunk, sizeof chunk);
  if (n <= 0) return false;
  buffer.append(chunk, static_cast<std::size_t>(n));
  return true;
}

// The request line and header fields of `head` (without its blank line).
void parseHead(const std::string& head, HttpReceived& request) {
  const std::size_t lineEnd = std::min(head.find("\r\n"), head.size());
  const std::string requestLine = head.substr(0, lineEnd);
  const std::size_t sp1 = requestLine.find(' ');
  const std::size_t sp2 = requestLine.find(' ', sp1 + 1);
  request.method = requestLine.substr(0, sp1);
  request.target = requestLine.substr(sp1 + 1, sp2 - sp1 - 1);
  for (std::size_t pos = lineEnd + 2; pos < head.size();) {
    const std::size_t end = std::min(head.find("\r\n", pos), head.size());
    const std::string line = head.substr(pos, end - pos);
    pos = end + 2;
    const std::size_t colon = line.find(':');
    if (colon == std::string::npos) continue;
    std::string name = line.substr(0, colon);
    for (char& c : name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    const std::size_t valueStart = line.find_first_not_of(' ', colon + 1);
    request.headers[name] = valueStart == std::string::npos ? "" : line.substr(valueStart);
  }
}

}  // namespace

LoopbackHttpServer::LoopbackHttpServer(Handler handler, const std::string& host)
    : handler_(std::move(handler)), host_(host) {
  sockaddr_storage storage{};
  auto* v4 = reinterpret_cast<sockaddr_in*>(&storage);
  auto* v6 = reinterpret_cast<sockaddr_in6*>(&storage);
  const bool isV6 = host.find(':') != std::string::npos;
  socklen_t len = isV6 ? sizeof *v6 : sizeof *v4;
  storage.ss_family = isV6 ? AF_INET6 : AF_INET;
  const int parsed = isV6 ? ::inet_pton(AF_INET6, host.c_str(), &v6->sin6_addr)
                          : ::inet_pton(AF_INET, host.c_str(), &v4->sin_addr);
  listener_ = ::socket(storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  auto* address = reinterpret_cast<sockaddr*>(&storage);
  if (parsed != 1 || listener_ < 0 || ::bind(listener_, address, len) != 0 ||
      ::listen(listener_, 16) != 0 || ::getsockname(listener_, address, &len) != 0)
    return;
  port_ = ntohs(isV6 ? v6->sin6_port : v4->sin_port);
  thread_ = std::thread([this] { serve(); });
}

LoopbackHttpServer::~LoopbackHttpServer() {
  stop_ = true;
  if (thread_.joinable()) thread_.join();
  for (int fd : held_) ::close(fd);
  if (listener_ >= 0) ::close(listener_);
}

std::string LoopbackHttpServer::hostAndPort() const {
  const bool isV6 = host_.find(':') != std::string::npos;
  return (isV6 ? "[" + host_ + "]" : host_) + ":" + std::to_string(port_);
}

std::vector<HttpReceived> LoopbackHttpServer::requests() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return requests_;
}

void LoopbackHttpServer::serve() {
  while (!stop_) {
    closeAbandoned();
    pollfd p{listener_, POLLIN, 0};
    if (::poll(&p, 1, 20) <= 0) continue;
    const int fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd >= 0) handle(fd);
  }
}

// Closes the silent connections whose client has hung up.
void LoopbackHttpServer::closeAbandoned() {
  std::erase_if(held_, [](int fd) {
    pollfd p{fd, POLLIN, 0};
    char byte;
    if (::poll(&p, 1, 0) <= 0 || ::recv(fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT) > 0) return false;
    ::close(fd);
    return true;
  });
}

void LoopbackHttpServer::handle(int fd) {
  std::string buffer;
  std::size_t headerEnd;
  while ((headerEnd = buffer.find("\r\n\r\n")) == std::string::npos) {
    if (!readMore(fd, buffer)) {
      ::close(fd);
      return;
    }
  }
  HttpReceived request;
  parseHead(buffer.substr(0, headerEnd), request);
  std::size_t length = 0;
  if (auto it = request.headers.find("content-length"); it != request.headers.end())
    length = std::stoul(it->second);
  request.body = buffer.substr(headerEnd + 4);
  while (request.body.size() < length && readMore(fd, request.body)) {
  }
  const HttpReply reply = handler_(request);
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
      answer(fd, reply);
  }
}

// Sends the head and the body as far as the reply lets it go, then ends the
// connection as the reply says. An endless body announces no length and
// goes out again and again until the client hangs up or the server stops.
void LoopbackHttpServer::answer(int fd, const HttpReply& reply) {
  const std::string head = "HTTP/1.1 " + std::to_string(reply.status) +
                           " Answer\r\nContent-Type: " +
                           (reply.endless ? "application/octet-stream\r\n"
                                          : "text/plain; charset=utf-8\r\nContent-Length: " +
                                                std::to_string(reply.body.size()) + "\r\n") +
                           "Connection: close\r\n\r\n";
  bool ok = sendAll(fd, head);
  while (reply.endless && ok && !stop_ && !reply.body.empty()) ok = sendAll(fd, reply.body);
  const std::size_t end = reply.endless ? 0
                          : reply.cut == HttpReply::Cut::None
                              ? reply.body.size()
                              : std::min(reply.cutAt, reply.body.size());
  const std::size_t piece = reply.piece ? reply.piece : std::max<std::size_t>(end, 1);
  for (std::size_t at = 0; ok && at < end && !stop_; at += piece) {
    std::this_thread::sleep_for(reply.pause);
    ok = sendAll(fd, std::string_view(reply.body).substr(at, std::min(piece, end - at)));
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

}  // namespace quarvel::testing
