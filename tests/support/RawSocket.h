#pragma once
// Plain TCP connections to a server on 127.0.0.1, for requests no HTTP
// library would send: cut short, trickled a byte at a time, or malformed.

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <string>

namespace quarvel::testing {

// A connection to 127.0.0.1:port, or -1.
inline int connectTo(int port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

inline bool sendText(int fd, const std::string& text) {
  return ::send(fd, text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size());
}

// Sends `head`, then `byte` every `every` until the server closes the
// connection (an end of stream or a reset, any answer read and dropped) or
// `limit` bytes went: true when the server closed it first.
inline bool trickleUntilClosed(int fd, const std::string& head, const std::string& byte, int limit,
                               std::chrono::milliseconds every) {
  if (!sendText(fd, head)) return true;
  for (int i = 0; i < limit; ++i) {
    const auto until = std::chrono::steady_clock::now() + every;
    char buffer[4096];
    for (pollfd entry{fd, POLLIN, 0}; ::poll(&entry, 1, static_cast<int>(every.count())) > 0;) {
      const ssize_t got = ::recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
      if (got == 0 || (got < 0 && errno != EAGAIN && errno != EINTR)) return true;
      if (std::chrono::steady_clock::now() >= until) break;
    }
    if (!sendText(fd, byte)) return true;
  }
  return false;
}

// One exchange: the status code (0 when the connection ended without one)
// and the whole answer, read until the server closes or `limit` passes.
struct RawAnswer {
  int status = 0;
  std::string text;
};
inline RawAnswer rawExchange(int port, const std::string& request,
                             std::chrono::seconds limit = std::chrono::seconds(10)) {
  RawAnswer answer;
  const int fd = connectTo(port);
  if (fd < 0) return answer;
  timeval timeout{static_cast<time_t>(limit.count()), 0};
  ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
  (void)sendText(fd, request);
  char buffer[4096];
  ssize_t got;
  while ((got = ::recv(fd, buffer, sizeof buffer, 0)) > 0) answer.text.append(buffer, got);
  ::close(fd);
  if (answer.text.starts_with("HTTP/1.1 ")) answer.status = std::atoi(answer.text.c_str() + 9);
  return answer;
}

}  // namespace quarvel::testing
