#pragma once
// One HTTP/1.1 client connection to a port on 127.0.0.1, where every step
// (connect, send, receive) ends by a deadline. Used by the list server's
// load run; it speaks just enough HTTP for the answers `quarvel serve`
// gives: a status line, headers and a body of Content-Length bytes.

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace quarvel::load {

using Clock = std::chrono::steady_clock;

// Why an exchange did not give a usable answer.
enum class Failure {
  Connect,    // the connection was refused or failed
  Timeout,    // the deadline passed first
  Closed,     // the server closed or reset the connection before the answer was whole
  Malformed,  // no status line, no Content-Length, headers beyond 64 KiB
  Status,     // an answer with another status than expected
  Body,       // an answer whose body differs from the expected bytes
};
inline constexpr int kFailureKinds = 6;
const char* failureName(Failure failure);

struct Answer {
  int status = 0;
  std::string body;
  std::optional<size_t> contentLength;
  bool closes = false;  // the server said "Connection: close"
};

class LoopbackConnection {
 public:
  LoopbackConnection() = default;
  ~LoopbackConnection() { close(); }
  LoopbackConnection(const LoopbackConnection&) = delete;
  LoopbackConnection& operator=(const LoopbackConnection&) = delete;

  std::optional<Failure> open(int port, Clock::time_point deadline);
  std::optional<Failure> send(std::string_view bytes, Clock::time_point deadline);
  // Reads one answer; a HEAD answer has no body whatever its Content-Length.
  std::optional<Failure> receive(bool head, Answer& answer, Clock::time_point deadline);
  // Waits until the server closes the connection: true when it did before
  // `deadline` (any bytes it sends are dropped), false when the deadline
  // passed first.
  bool awaitClose(Clock::time_point deadline);

  bool isOpen() const { return fd_ >= 0; }
  void close();

 private:
  // 1 when `events` are ready, 0 when the deadline passed, -1 on error.
  int wait(short events, Clock::time_point deadline) const;
  // Receives more bytes into buffer_: nothing on success.
  std::optional<Failure> fill(Clock::time_point deadline);

  int fd_ = -1;
  std::string buffer_;  // received bytes not yet taken by an answer
};

// The request a curl-based download sends for `target` (a fresh
// connection, no Connection header).
std::string requestFor(std::string_view method, std::string_view target, int port);

}  // namespace quarvel::load
