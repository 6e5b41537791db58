#include "ListServer.h"

#include <dirent.h>
#include <httplib.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <fstream>
#include <iterator>
#include <sstream>

#include "quarvel/common/Log.h"

namespace quarvel::cli {
namespace {

struct PublicPath {
  std::string_view path;
  std::string_view file;
};

constexpr std::array<PublicPath, 5> kPublicPaths{{
    {"/quarvel/download/list/check/mac/", "macchecklist.dat"},
    {"/quarvel/download/list/package/mac/", "macpcklist.dat"},
    {"/quarvel/download/list/filter/mac/", "macfilterlist.dat"},
    {"/quarvel/download/list/user/mac/", "userchecklist.dat"},
    {"/quarvel/download/list/font/mac/", "fontchecklist.dat"},
}};

constexpr std::string_view kDownloadEndpoint = "/cmmn/download.nis";
constexpr std::string_view kWindowsPackagePrefix = "/file/keyfile60/";

std::optional<std::string> firstParam(const QueryParams& params, const std::string& name) {
  auto it = params.find(name);
  if (it == params.end()) return std::nullopt;
  return it->second;
}

std::optional<std::string> plainName(std::string_view name) {
  if (!isPlainFileName(name)) return std::nullopt;
  return std::string(name);
}

// The bytes of `name` in `folder` when it is a regular file there (a link
// does not count, so nothing outside the folder can be reached).
std::optional<std::string> readPlainFile(const std::string& folder, const std::string& name) {
  const std::string path = folder + "/" + name;
  struct stat info {};
  if (::lstat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return std::nullopt;
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::ostringstream body;
  body << in.rdbuf();
  if (in.bad()) return std::nullopt;
  return body.str();
}

// The local port of socket `fd` when it is a connected (not listening)
// TCP socket, else -1.
int connectedLocalPort(int fd) {
  sockaddr_storage local{};
  socklen_t length = sizeof local;
  if (::getsockname(fd, reinterpret_cast<sockaddr*>(&local), &length) != 0) return -1;
  int listening = 0;
  socklen_t size = sizeof listening;
  if (::getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listening, &size) != 0 || listening) return -1;
  if (local.ss_family == AF_INET) return ntohs(reinterpret_cast<sockaddr_in&>(local).sin_port);
  if (local.ss_family == AF_INET6) return ntohs(reinterpret_cast<sockaddr_in6&>(local).sin6_port);
  return -1;
}

}  // namespace

bool isPlainFileName(std::string_view name) {
  if (name.empty() || name == "." || name == "..") return false;
  for (unsigned char c : name) {
    if (c == '/' || c < 0x20 || c == 0x7f) return false;
  }
  return true;
}

std::optional<std::string> listFileForRequest(std::string_view path, const QueryParams& params) {
  for (const PublicPath& entry : kPublicPaths) {
    if (path == entry.path) return std::string(entry.file);
  }
  if (path == kDownloadEndpoint) {
    auto type = firstParam(params, "type");
    if (!type || (*type != "keyfile" && *type != "file")) return std::nullopt;
    auto name = firstParam(params, "filename");
    if (!name) return std::nullopt;
    return plainName(*name);
  }
  if (path.starts_with(kWindowsPackagePrefix)) {
    return plainName(path.substr(kWindowsPackagePrefix.size()));
  }
  return std::nullopt;
}

void answerListRequest(const std::string& folder, const httplib::Request& request,
                       httplib::Response& response) {
  std::optional<std::string> body;
  if (auto name = listFileForRequest(request.path, request.params)) {
    body = readPlainFile(folder, *name);
  }
  if (body) {
    response.set_content(std::move(*body), "application/octet-stream");
  } else {
    response.status = 404;
    response.set_content("Not Found\n", "text/plain");
  }
}

ListServer::ListServer(std::string folder, ServeLimits limits)
    : folder_(std::move(folder)), limits_(limits), server_(std::make_unique<httplib::Server>()) {
  const size_t workers = static_cast<size_t>(std::max(1, limits_.workers));
  server_->new_task_queue = [workers] { return new httplib::ThreadPool(workers); };
  // In place of the library's SO_REUSEPORT, which would let a second server
  // bind a port that is in use and share its connections: SO_REUSEADDR only
  // lets a restarted server take the port back from connections lingering
  // in TIME_WAIT. The listening socket is kept to deepen its backlog.
  server_->set_socket_options([this](int fd) {
    int yes = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    listenFd_ = fd;
  });
  server_->Get(".*", [this](const httplib::Request& request, httplib::Response& response) {
    answerListRequest(folder_, request, response);
  });
  server_->set_logger([](const httplib::Request& request, const httplib::Response& response) {
    logf("serve: %s \"%s %s\" %d %zu", request.remote_addr.c_str(), request.method.c_str(),
         request.target.c_str(), response.status, response.body.size());
  });
}

ListServer::~ListServer() {
  stop();
  if (thread_.joinable()) thread_.join();
}

int ListServer::start(const std::string& address, int port) {
  if (thread_.joinable()) return -1;
  int bound = -1;
  if (port == 0)
    bound = server_->bind_to_any_port(address);
  else if (server_->bind_to_port(address, port))
    bound = port;
  if (bound < 0) return -1;
  // The library listens with a backlog of 5, which drops connection
  // attempts (to be retried by the client a second later) as soon as a few
  // dozen clients connect at once. Listening again only deepens the queue.
  ::listen(listenFd_, limits_.backlog);
  {
    std::lock_guard lock(mutex_);
    port_ = bound;
    serving_ = true;
  }
  thread_ = std::thread([this] {
    server_->listen_after_bind();
    std::lock_guard lock(mutex_);
    serving_ = false;
    stopped_.notify_all();
  });
  // The socket already accepts connections; waiting until the loop runs
  // makes a stop() that follows at once effective.
  for (int i = 0; i < 500 && !server_->is_running(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return bound;
}

void ListServer::stop() {
  server_->stop();
  std::unique_lock lock(mutex_);
  auto done = [this] { return !serving_; };
  if (stopped_.wait_for(lock, limits_.grace, done)) return;
  // A client that sends nothing, or its request a byte at a time, would hold
  // its worker, and so the stop, until it gave up.
  do {
    cutConnections();
  } while (!stopped_.wait_for(lock, std::chrono::milliseconds(100), done));
}

// The library does not hand out the connections it accepted, so they are
// found among the process's descriptors: connected sockets on the server's
// port. shutdown() wakes a worker waiting on one at once, and leaves closing
// it to the worker. Called with mutex_ held.
void ListServer::cutConnections() const {
  DIR* fds = ::opendir("/proc/self/fd");
  if (!fds) return;
  int cut = 0;
  while (dirent* entry = ::readdir(fds)) {
    const int fd = std::atoi(entry->d_name);
    if (entry->d_name[0] == '.' || fd == ::dirfd(fds)) continue;
    if (connectedLocalPort(fd) == port_ && ::shutdown(fd, SHUT_RDWR) == 0) ++cut;
  }
  ::closedir(fds);
  if (cut > 0) logf("serve: stopping, cut %d connection%s still open", cut, cut == 1 ? "" : "s");
}

}  // namespace quarvel::cli
