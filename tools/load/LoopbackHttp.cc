#include "LoopbackHttp.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

namespace quarvel::load {
namespace {

constexpr size_t kMaxHeaderBytes = 64 * 1024;

// The value of header `name` in the header block, compared without case.
std::optional<std::string_view> headerValue(std::string_view headers, std::string_view name) {
  size_t at = headers.find("\r\n");
  while (at != std::string_view::npos && at + 2 < headers.size()) {
    size_t start = at + 2;
    size_t end = headers.find("\r\n", start);
    if (end == std::string_view::npos) end = headers.size();
    std::string_view line = headers.substr(start, end - start);
    size_t colon = line.find(':');
    if (colon == name.size() && ::strncasecmp(line.data(), name.data(), name.size()) == 0) {
      std::string_view value = line.substr(colon + 1);
      while (!value.empty() && value.front() == ' ') value.remove_prefix(1);
      while (!value.empty() && value.back() == ' ') value.remove_suffix(1);
      return value;
    }
    at = end;
  }
  return std::nullopt;
}

}  // namespace

const char* failureName(Failure failure) {
  switch (failure) {
    case Failure::Connect:
      return "connect";
    case Failure::Timeout:
      return "timeout";
    case Failure::Closed:
      return "closed";
    case Failure::Malformed:
      return "malformed";
    case Failure::Status:
      return "status";
    case Failure::Body:
      return "body";
  }
  return "?";
}

std::string requestFor(std::string_view method, std::string_view target, int port) {
  std::string request;
  request.append(method).append(" ").append(target).append(" HTTP/1.1\r\n");
  request.append("Host: 127.0.0.1:").append(std::to_string(port)).append("\r\n");
  request.append("Accept: */*\r\nCache-Control: no-cache\r\nPragma: no-cache\r\n\r\n");
  return request;
}

int LoopbackConnection::wait(short events, Clock::time_point deadline) const {
  for (;;) {
    auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (left <= 0) return 0;
    pollfd entry{fd_, events, 0};
    int ready = ::poll(&entry, 1, static_cast<int>(std::min<long long>(left, 1000)));
    if (ready > 0) return 1;
    if (ready < 0 && errno != EINTR) return -1;
  }
}

std::optional<Failure> LoopbackConnection::open(int port, Clock::time_point deadline) {
  close();
  fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd_ < 0) return Failure::Connect;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) return {};
  if (errno != EINPROGRESS) {
    close();
    return Failure::Connect;
  }
  int ready = wait(POLLOUT, deadline);
  if (ready == 0) {
    close();
    return Failure::Timeout;
  }
  int error = 0;
  socklen_t length = sizeof error;
  if (ready < 0 || ::getsockopt(fd_, SOL_SOCKET, SO_ERROR, &error, &length) != 0 || error != 0) {
    close();
    return Failure::Connect;
  }
  return {};
}

std::optional<Failure> LoopbackConnection::send(std::string_view bytes,
                                                Clock::time_point deadline) {
  while (!bytes.empty()) {
    ssize_t sent = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent > 0) {
      bytes.remove_prefix(static_cast<size_t>(sent));
      continue;
    }
    if (sent < 0 && errno == EINTR) continue;
    if (sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      int ready = wait(POLLOUT, deadline);
      if (ready == 0) return Failure::Timeout;
      if (ready > 0) continue;
    }
    return Failure::Closed;
  }
  return {};
}

std::optional<Failure> LoopbackConnection::fill(Clock::time_point deadline) {
  char chunk[16 * 1024];
  for (;;) {
    ssize_t got = ::recv(fd_, chunk, sizeof chunk, 0);
    if (got > 0) {
      buffer_.append(chunk, static_cast<size_t>(got));
      return {};
    }
    if (got == 0) return Failure::Closed;
    if (errno == EINTR) continue;
    if (errno != EAGAIN && errno != EWOULDBLOCK) return Failure::Closed;
    int ready = wait(POLLIN, deadline);
    if (ready == 0) return Failure::Timeout;
    if (ready < 0) return Failure::Closed;
  }
}

std::optional<Failure> LoopbackConnection::receive(bool head, Answer& answer,
                                                   Clock::time_point deadline) {
  size_t end;
  while ((end = buffer_.find("\r\n\r\n")) == std::string::npos) {
    if (buffer_.size() > kMaxHeaderBytes) return Failure::Malformed;
    if (auto failure = fill(deadline)) return failure;
  }
  std::string_view headers(buffer_.data(), end + 2);
  // "HTTP/1.1 200 OK"
  if (!headers.starts_with("HTTP/1.") || headers.size() < 12 || headers[8] != ' ')
    return Failure::Malformed;
  answer.status = std::atoi(std::string(headers.substr(9, 3)).c_str());
  answer.contentLength.reset();
  if (auto length = headerValue(headers, "Content-Length")) {
    answer.contentLength = std::strtoull(std::string(*length).c_str(), nullptr, 10);
  }
  auto connection = headerValue(headers, "Connection");
  answer.closes = connection && ::strncasecmp(connection->data(), "close", 5) == 0;
  buffer_.erase(0, end + 4);
  answer.body.clear();
  if (head) return {};
  if (!answer.contentLength) return Failure::Malformed;
  while (buffer_.size() < *answer.contentLength) {
    if (auto failure = fill(deadline)) return failure;
  }
  answer.body.assign(buffer_, 0, *answer.contentLength);
  buffer_.erase(0, *answer.contentLength);
  return {};
}

bool LoopbackConnection::awaitClose(Clock::time_point deadline) {
  for (;;) {
    buffer_.clear();
    auto failure = fill(deadline);
    if (failure == Failure::Timeout) return false;
    if (failure) return true;
  }
}

void LoopbackConnection::close() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
  buffer_.clear();
}

}  // namespace quarvel::load
