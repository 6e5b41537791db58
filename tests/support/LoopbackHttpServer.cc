#include "support/LoopbackHttpServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <sstream>
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
  std::istringstream lines(head);
  std::string line;
  std::getline(lines, line);
  std::istringstream(line) >> request.method >> request.target;
  while (std::getline(lines, line)) {
    const std::size_t colon = line.find(':');
    if (colon == std::string::npos) continue;
    std::string name = line.substr(0, colon);
    for (char& c : name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    const std::size_t valueStart = std::min(line.find_first_not_of(' ', colon + 1), line.size());
    request.headers[name] = line.substr(valueStart, line.find_last_not_of('\r') + 1 - valueStart);
  }
}

}  // namespace

LoopbackHttpServer::LoopbackHttpServer(Handler handler) : handler_(std::move(handler)) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  auto* any = reinterpret_cast<sockaddr*>(&address);
  listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (listener_ < 0 || ::bind(listener_, any, length) != 0 || ::listen(listener_, 16) != 0 ||
      ::getsockname(listener_, any, &length) != 0)
    return;
  port_ = ntohs(address.sin_port);
  thread_ = std::thread([this] { serve(); });
}

LoopbackHttpServer::~LoopbackHttpServer() {
  stop_ = true;
  if (thread_.joinable()) thread_.join();
  for (int fd : held_) ::close(fd);
  if (listener_ >= 0) ::close(listener_);
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
  while ((headerEnd = buffer.find("\r\n\r\n")) == std::string::npos)
    if (!readMore(fd, buffer)) return (void)::close(fd);
  HttpReceived request;
  parseHead(buffer.substr(0, headerEnd), request);
  const auto length = request.headers.find("content-length");
  request.body = buffer.substr(headerEnd + 4);
  if (length != request.headers.end())
    while (request.body.size() < std::stoul(length->second) && readMore(fd, request.body)) continue;
  const HttpReply reply = handler_(request);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    requests_.push_back(request);
  }
  if (reply.kind == HttpReply::Kind::Answer)
    answer(fd, reply);
  else if (reply.kind == HttpReply::Kind::Silence)
    held_.push_back(fd);
  else
    ::close(fd);
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
  if (reply.cut == HttpReply::Cut::Stall) return held_.push_back(fd);
  if (reply.cut == HttpReply::Cut::Reset) {
    linger abort{1, 0};  // close with a reset instead of an orderly end
    ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
  }
  ::close(fd);
}

}  // namespace quarvel::testing
