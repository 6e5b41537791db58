#pragma once
// A small HTTP server that hands out data files the way the update run asks
// for them: at the public list server's paths, at the in-house web server's
// "/cmmn/download.nis" endpoint and at the Windows package path. It serves
// only plain files lying directly in one folder; everything else is 404.

#include <map>
#include <memory>
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

class ListServer {
 public:
  // Serves the files directly inside `folder`.
  explicit ListServer(std::string folder);
  ~ListServer();  // stops and joins
  ListServer(const ListServer&) = delete;
  ListServer& operator=(const ListServer&) = delete;

  // Binds `address` on `port` (0 picks a free one) and serves on a
  // background thread. Answers the bound port, or -1 when binding failed.
  int start(const std::string& address, int port);
  // Stops serving; requests under way are finished first. Safe from any
  // thread, and more than once.
  void stop();

 private:
  std::string folder_;
  std::unique_ptr<httplib::Server> server_;
  std::thread thread_;
};

}  // namespace quarvel::cli
