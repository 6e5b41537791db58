#pragma once
// A small HTTP server that hands out data files the way the update run asks
// for them: at the public list server's paths, at the in-house web server's
// "/cmmn/download.nis" endpoint and at the Windows package path. It serves
// only plain files lying directly in one folder; everything else is 404.
// Built on libmicrohttpd: a few event-driven threads, files sent from their
// descriptors (sendfile), never read into memory.

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace quarvel::server {

// Query parameters as decoded from the request (a name may repeat; the
// first value counts).
using QueryParams = std::multimap<std::string, std::string>;

// The name of the file, in the served folder, that answers a GET of the
// decoded `path` with `params`; nothing when the request names no file or
// a name that is not a plain file name. Pure: looks at no file.
//   /quarvel/download/list/{check,package,filter,user,font}/mac/
//   the same with ".sig" after the last '/': the list's signature file
//   /cmmn/download.nis?type=keyfile|file&filename=NAME
//   /file/keyfile60/NAME
std::optional<std::string> listFileForRequest(std::string_view path, const QueryParams& params);

// A non-empty name without '/', NUL or control characters that is not "."
// or "..": something that can only name an entry directly in a folder.
bool isPlainFileName(std::string_view name);

// A request target ("/path?a=1&b=%2E") split and percent-decoded: the path
// and the query parameters, '+' in the query read as a space. Decoded bytes
// are kept as they are, NUL included; a '%' not followed by two hex digits
// stands for itself.
struct RequestTarget {
  std::string path;
  QueryParams params;
};
RequestTarget parseRequestTarget(std::string_view target);

// `text` made safe to quote in a log line: control characters, DEL, bytes
// that are not part of well-formed UTF-8, '"' and '\' become \xNN.
std::string escapeForLog(std::string_view text);

// An open regular file and its size; closes the descriptor unless released.
class ServedFile {
 public:
  ServedFile(int fd, std::uint64_t size) : fd_(fd), size_(size) {}
  ServedFile(ServedFile&& other) noexcept : fd_(other.release()), size_(other.size_) {}
  ServedFile& operator=(ServedFile&&) = delete;
  ~ServedFile();
  int fd() const { return fd_; }
  std::uint64_t size() const { return size_; }
  int release() {
    int fd = fd_;
    fd_ = -1;
    return fd;
  }

 private:
  int fd_;
  std::uint64_t size_;
};

// The file that answers a GET of the raw request `target`, opened without
// following links (O_NOFOLLOW) from the folder open as `folderFd`: present
// only when it is a regular file lying directly in that folder.
std::optional<ServedFile> openListFile(int folderFd, std::string_view target);

// How the server holds its connections. A few threads each wait on many
// connections at once, so a slow client costs a descriptor, not a worker.
struct ServeLimits {
  int threads = 4;               // event loops, each with its own share of the connections
  int maxConnections = 1024;     // in all; more are accepted and closed at once
  int maxPerAddress = 256;       // from one client address
  std::chrono::seconds idle{5};  // of silence before a connection is closed
  // From a connection's start, or from its previous answer, until its
  // request header is complete; the connection is closed when it passes,
  // however steadily the header trickles in.
  std::chrono::milliseconds headerDeadline{10000};
  int backlog = 1024;                     // connections the kernel queues before they are accepted
  std::chrono::milliseconds grace{1000};  // after stop(), for the requests under way
};

class ListServer {
 public:
  // Serves the files directly inside `folder`.
  explicit ListServer(std::string folder, ServeLimits limits = {});
  ~ListServer();  // stops
  ListServer(const ListServer&) = delete;
  ListServer& operator=(const ListServer&) = delete;

  // Binds `address` on `port` (0 picks a free one) and serves on background
  // threads. Answers the bound port, or -1 when the folder cannot be opened
  // or binding failed.
  int start(const std::string& address, int port);
  // Stops serving and returns when the server has stopped: the port is
  // closed at once, requests under way get the grace period to finish, and
  // connections still open after it are cut. Safe from any thread but the
  // server's own, and more than once.
  void stop();

  struct State;  // shared with the library's callbacks

 private:
  std::unique_ptr<State> state_;
};

}  // namespace quarvel::server
