#include "server/ServerSockets.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "common/Log.h"
#include "server/ListServer.h"

namespace quarvel::server {

int listenOn(const std::string& address, int port, int backlog) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
  addrinfo* found = nullptr;
  const std::string service = std::to_string(port);
  if (::getaddrinfo(address.empty() ? nullptr : address.c_str(), service.c_str(), &hints, &found) !=
      0)
    return -1;
  int fd = -1;
  for (addrinfo* at = found; at && fd < 0; at = at->ai_next) {
    fd = ::socket(at->ai_family, at->ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, at->ai_protocol);
    if (fd < 0) continue;
    int yes = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    if (::bind(fd, at->ai_addr, at->ai_addrlen) != 0 || ::listen(fd, backlog) != 0) {
      ::close(fd);
      fd = -1;
    }
  }
  ::freeaddrinfo(found);
  return fd;
}

int boundPort(int fd) {
  sockaddr_storage local{};
  socklen_t length = sizeof local;
  if (::getsockname(fd, reinterpret_cast<sockaddr*>(&local), &length) != 0) return -1;
  if (local.ss_family == AF_INET) return ntohs(reinterpret_cast<sockaddr_in&>(local).sin_port);
  if (local.ss_family == AF_INET6) return ntohs(reinterpret_cast<sockaddr_in6&>(local).sin6_port);
  return -1;
}

std::string clientAddress(MHD_Connection* connection) {
  const MHD_ConnectionInfo* info =
      MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CLIENT_ADDRESS);
  if (!info || !info->client_addr) return "?";
  char text[INET6_ADDRSTRLEN] = "?";
  const sockaddr* address = info->client_addr;
  if (address->sa_family == AF_INET)
    ::inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(address)->sin_addr, text,
                sizeof text);
  else if (address->sa_family == AF_INET6)
    ::inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr, text,
                sizeof text);
  return text;
}

bool isLoopback(std::string_view address) {
  return address.starts_with("127.") || address == "::1" || address.starts_with("::ffff:127.");
}

void logLibraryMessage(void* name, const char* format, va_list arguments) {
  char text[512];
  std::vsnprintf(text, sizeof text, format, arguments);
  std::string_view line(text);
  while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.remove_suffix(1);
  logf("%s: %s", static_cast<const char*>(name), escapeForLog(line).c_str());
}

void ConnectionTracker::notify(void* tracker, MHD_Connection* connection, void**,
                               MHD_ConnectionNotificationCode code) {
  auto* self = static_cast<ConnectionTracker*>(tracker);
  std::lock_guard lock(self->mutex_);
  if (code == MHD_CONNECTION_NOTIFY_STARTED) {
    const MHD_ConnectionInfo* info =
        MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
    self->connections_[connection] = {info ? info->connect_fd : -1, Clock::now(), true};
  } else {
    self->connections_.erase(connection);
  }
}

void ConnectionTracker::settle(MHD_Connection* connection) {
  std::lock_guard lock(mutex_);
  auto it = connections_.find(connection);
  if (it != connections_.end()) it->second.running = false;
}

void ConnectionTracker::restart(MHD_Connection* connection) {
  std::lock_guard lock(mutex_);
  auto it = connections_.find(connection);
  if (it != connections_.end()) it->second = {it->second.fd, Clock::now(), true};
}

std::size_t ConnectionTracker::open() {
  std::lock_guard lock(mutex_);
  return connections_.size();
}

std::size_t ConnectionTracker::waitForClose(Clock::time_point until) {
  for (;;) {
    const std::size_t count = open();
    if (count == 0 || Clock::now() >= until) return count;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

void ConnectionTracker::start(std::chrono::milliseconds deadline) {
  std::lock_guard lock(mutex_);
  if (watching_) return;
  deadline_ = deadline;
  watching_ = true;
  watcher_ = std::thread([this] { watch(); });
}

void ConnectionTracker::stop() {
  {
    std::lock_guard lock(mutex_);
    watching_ = false;
  }
  wake_.notify_all();
  if (watcher_.joinable()) watcher_.join();
}

// shutdown() rather than close(): the library still owns the descriptor.
void ConnectionTracker::watch() {
  const auto tick = std::clamp<Clock::duration>(deadline_ / 4, std::chrono::milliseconds(10),
                                                std::chrono::milliseconds(250));
  std::unique_lock lock(mutex_);
  while (watching_) {
    wake_.wait_for(lock, tick);
    const Clock::time_point now = Clock::now();
    for (auto& [connection, entry] : connections_) {
      if (!entry.running || now - entry.since < deadline_ || entry.fd < 0) continue;
      entry.running = false;
      logf("%s: %s: %s within %lld ms, closing", name_, clientAddress(connection).c_str(), late_,
           static_cast<long long>(deadline_.count()));
      ::shutdown(entry.fd, SHUT_RDWR);
    }
  }
}

}  // namespace quarvel::server
