#include "StandardStreams.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ostream>
#include <streambuf>

#include "common/Log.h"

namespace quarvel::cli {
namespace {

Verbosity current = Verbosity::kNormal;

class NullBuffer : public std::streambuf {
 protected:
  int overflow(int c) override { return c == traits_type::eof() ? 0 : c; }
  std::streamsize xsputn(const char*, std::streamsize count) override { return count; }
};

}  // namespace

void setVerbosity(Verbosity verbosity) {
  current = verbosity;
  setLogEcho(verbosity == Verbosity::kVerbose ? LogEcho::kAll
             : verbosity == Verbosity::kQuiet ? LogEcho::kNone
                                              : LogEcho::kWarnings);
}

Verbosity verbosity() { return current; }

std::ostream& notes(std::ostream& stream) {
  static NullBuffer nothing;
  static std::ostream silent(&nothing);
  return current == Verbosity::kQuiet ? silent : stream;
}

std::optional<std::string> inputPath(const std::string& argument, std::uint64_t limit,
                                     std::ostream& err) {
  if (argument != "-") return argument;
  // A file of its own rather than the pipe itself: the readers ask for a
  // regular file whose size they can know before reading.
  const int copy = ::memfd_create("quarvel-stdin", MFD_CLOEXEC);
  if (copy < 0) {
    err << "quarvel: standard input: cannot be copied (" << std::strerror(errno) << ")\n";
    return std::nullopt;
  }
  char buffer[1 << 16];
  std::uint64_t total = 0;
  for (;;) {
    const ssize_t got = ::read(STDIN_FILENO, buffer, sizeof buffer);
    if (got == 0) break;
    if (got < 0) {
      if (errno == EINTR) continue;
      err << "quarvel: standard input: " << std::strerror(errno) << "\n";
      ::close(copy);
      return std::nullopt;
    }
    total += static_cast<std::uint64_t>(got);
    if (total > limit) {
      err << "quarvel: standard input: more than " << limit << " bytes\n";
      ::close(copy);
      return std::nullopt;
    }
    for (ssize_t done = 0; done < got;) {
      const ssize_t put = ::write(copy, buffer + done, static_cast<std::size_t>(got - done));
      if (put < 0 && errno == EINTR) continue;
      if (put <= 0) {
        err << "quarvel: standard input: cannot be copied (" << std::strerror(errno) << ")\n";
        ::close(copy);
        return std::nullopt;
      }
      done += put;
    }
  }
  return "/proc/self/fd/" + std::to_string(copy);
}

}  // namespace quarvel::cli
