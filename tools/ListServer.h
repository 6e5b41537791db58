#pragma once
// A small HTTP server that hands out data files the way the update run asks
// for them: at the public list server's paths, at the in-house web server's
// "/cmmn/download.nis" endpoint and at the Windows package path. It serves
// only plain files lying directly in one folder; everything else is 404.

#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

namespace httplib {
class Server;
struct Request;
struct Response;
}  // namespace httplib

namespace quarvel::cli {

// Query parameters as decoded from the request (a name may repeat; the
// first value counts).
using QueryParams = std::multimap<std::string, std::string>;

// The name of the file, in the served folder, that answers a GET of the
// decoded `path` with `params`; nothing when the request names no file or
// a name that is not a plain file name. Pure: looks at no file.
//   /quarvel/download/list/{check,package,filter,user,font}/mac/
//   /cmmn/download.nis?type=keyfile|file&filename=NAME
//   /file/keyfile60/NAME
std::optional<std::string> listFileForRequest(std::string_view path, const QueryParams& params);

// A non-empty name without '/', NUL or control characters that is not "."
// or "..": something that can only name an entry directly in a folder.
bool isPlainFileName(std::string_view name);

// Answers one request: the bytes of the file listFileForRequest names when
// it is a regular file directly in `folder` (not a link), else 404.
void answerListRequest(const std::string& folder, const httplib::Request& request,
                       httplib::Response& response);

// How the server holds its connections. A connection occupies a worker
// from its first byte to its close: while its request arrives, while the
// client is slow to close after the answer, and for up to 5 seconds of
// silence before a request (the library's keep-alive, read and write
// time-outs, which are kept). So there are many more workers than cores.
struct ServeLimits {
  int workers = 64;
  int backlog = 1024;                     // connections the kernel queues before they are accepted
  std::chrono::milliseconds grace{1000};  // after stop(), for the requests under way
};

class ListServer {
 public:
  // Serves the files directly inside `folder`.
  explicit ListServer(std::string folder, ServeLimits limits = {});
  ~ListServer();  // stops and joins
  ListServer(const ListServer&) = delete;
  ListServer& operator=(const ListServer&) = delete;

  // Binds `address` on `port` (0 picks a free one) and serves on a
  // background thread. Answers the bound port, or -1 when binding failed.
  int start(const std::string& address, int port);
  // Stops serving and returns when the server has stopped: the port is
  // closed at once, requests under way get the grace period to finish, and
  // connections still open after it are cut. Safe from any thread but a
  // request's own, and more than once.
  void stop();

 private:
  // Shuts down this process's connections accepted on the server's port.
  void cutConnections() const;

  std::string folder_;
  ServeLimits limits_;
  std::unique_ptr<httplib::Server> server_;
  int listenFd_ = -1;  // as created; closed by the server
  std::thread thread_;
  std::mutex mutex_;
  std::condition_variable stopped_;
  int port_ = -1;         // guarded by mutex_
  bool serving_ = false;  // guarded by mutex_; true while the serving thread runs
};

}  // namespace quarvel::cli
