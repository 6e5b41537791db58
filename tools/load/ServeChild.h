#pragma once
// `quarvel serve` as a child process of the load run: started on a free
// loopback port, observed through /proc, stopped by a signal. The child is
// killed if this object goes away while it still runs.

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>

namespace quarvel::load {

// What /proc says about the child at one moment.
struct ProcessSample {
  long rssKiB = 0;    // VmRSS
  int threads = 0;    // Threads
  int fds = 0;        // entries of /proc/PID/fd
  int socketFds = 0;  // those of them that are sockets
};

class ServeChild {
 public:
  ServeChild() = default;
  ~ServeChild();
  ServeChild(const ServeChild&) = delete;
  ServeChild& operator=(const ServeChild&) = delete;

  // Runs `quarvel serve folder --port PORT --bind 127.0.0.1` with its
  // standard error going to `logPath`, and waits up to `within` for the port
  // it prints. Answers the port, or -1 (the message in `error`).
  int start(const std::string& quarvel, const std::string& folder, int port,
            const std::string& logPath, std::chrono::milliseconds within, std::string& error);

  pid_t pid() const { return pid_; }
  std::optional<ProcessSample> sample() const;

  struct Stop {
    bool ended = false;                // ended by itself within the bound
    int exitStatus = -1;               // when it exited normally
    int signal = 0;                    // when a signal ended it
    std::chrono::microseconds took{};  // from the signal to its end
    std::string output;                // what it printed on standard output
  };
  // Sends `signal` and waits up to `bound` for the child to end; kills it
  // when the bound passes.
  Stop stop(int signal, std::chrono::milliseconds bound);

 private:
  pid_t pid_ = -1;
  int stdoutFd_ = -1;
  std::string output_;
};

}  // namespace quarvel::load
