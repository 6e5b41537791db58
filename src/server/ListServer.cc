#include "server/ListServer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <microhttpd.h>
#include <netdb.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>

#include "common/Log.h"
#include "format/DataFileFormat.h"
#include "server/ServerSockets.h"

namespace quarvel::server {
namespace {

// The name in front of the library's own log lines.
char kLogName[] = "serve";

using Clock = std::chrono::steady_clock;

constexpr char kNotFound[] = "Not Found\n";

std::optional<std::string> firstParam(const QueryParams& params, const std::string& name) {
  auto it = params.find(name);
  if (it == params.end()) return std::nullopt;
  return it->second;
}

std::optional<std::string> plainName(std::string_view name) {
  if (!isPlainFileName(name)) return std::nullopt;
  return std::string(name);
}

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::string percentDecode(std::string_view text, bool plusIsSpace) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '%' && i + 2 < text.size()) {
      const int high = hexDigit(text[i + 1]);
      const int low = hexDigit(text[i + 2]);
      if (high >= 0 && low >= 0) {
        out.push_back(static_cast<char>(high * 16 + low));
        i += 2;
        continue;
      }
    }
    out.push_back(plusIsSpace && c == '+' ? ' ' : c);
  }
  return out;
}

// The length of the well-formed UTF-8 sequence at the start of `text`
// (a printable character: C1 controls do not count), or 0.
size_t utf8SequenceLength(std::string_view text) {
  const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char first = byte(0);
  size_t length;
  unsigned low = 0x80, high = 0xbf;  // the range allowed for the second byte
  if (first >= 0xc2 && first <= 0xdf) {
    length = 2;
    if (first == 0xc2) low = 0xa0;  // U+0080..U+009F are control characters
  } else if (first >= 0xe0 && first <= 0xef) {
    length = 3;
    if (first == 0xe0) low = 0xa0;   // overlong
    if (first == 0xed) high = 0x9f;  // surrogates
  } else if (first >= 0xf0 && first <= 0xf4) {
    length = 4;
    if (first == 0xf0) low = 0x90;   // overlong
    if (first == 0xf4) high = 0x8f;  // beyond U+10FFFF
  } else {
    return 0;
  }
  if (text.size() < length || byte(1) < low || byte(1) > high) return 0;
  for (size_t i = 2; i < length; ++i) {
    if (byte(i) < 0x80 || byte(i) > 0xbf) return 0;
  }
  return length;
}

// One request, from its request line to its completion.
struct Request {
  std::string target;  // as sent, undecoded
  std::string method;  // empty until the header is complete
  unsigned status = 0;
  std::uint64_t size = 0;
};

}  // namespace

// What the library's callbacks share with the server object.
struct ListServer::State {
  std::string folder;
  ServeLimits limits;
  int folderFd = -1;
  MHD_Daemon* daemon = nullptr;
  int port = -1;

  // The open connections, for the header deadline and the stop.
  ConnectionTracker connections{"serve", "no complete request header"};
};

ServedFile::~ServedFile() {
  if (fd_ >= 0) ::close(fd_);
}

bool isPlainFileName(std::string_view name) {
  if (name.empty() || name == "." || name == "..") return false;
  for (unsigned char c : name) {
    if (c == '/' || c < 0x20 || c == 0x7f) return false;
  }
  return true;
}

std::optional<std::string> listFileForRequest(std::string_view path, const QueryParams& params) {
  for (const datafile::ListEndpoint& list : datafile::kListEndpoints) {
    if (path == list.publicPath) return std::string(list.fileName);
    // The list's signature, at its path with the suffix (DataFileFormat.h).
    if (path.size() == list.publicPath.size() + datafile::kSignatureSuffix.size() &&
        path.starts_with(list.publicPath) && path.ends_with(datafile::kSignatureSuffix))
      return std::string(list.fileName) + std::string(datafile::kSignatureSuffix);
  }
  if (path == datafile::kDownloadEndpoint) {
    auto type = firstParam(params, "type");
    if (!type || (*type != "keyfile" && *type != "file")) return std::nullopt;
    auto name = firstParam(params, "filename");
    if (!name) return std::nullopt;
    return plainName(*name);
  }
  if (path.starts_with(datafile::kWindowsPackagePath) &&
      path.substr(datafile::kWindowsPackagePath.size()).starts_with('/')) {
    return plainName(path.substr(datafile::kWindowsPackagePath.size() + 1));
  }
  return std::nullopt;
}

RequestTarget parseRequestTarget(std::string_view target) {
  RequestTarget parsed;
  const size_t mark = target.find('?');
  parsed.path = percentDecode(target.substr(0, mark), false);
  if (mark == std::string_view::npos) return parsed;
  std::string_view query = target.substr(mark + 1);
  while (!query.empty()) {
    const size_t end = query.find('&');
    const std::string_view pair = query.substr(0, end);
    query = end == std::string_view::npos ? std::string_view() : query.substr(end + 1);
    if (pair.empty()) continue;
    const size_t equals = pair.find('=');
    std::string value = equals == std::string_view::npos
                            ? std::string()
                            : percentDecode(pair.substr(equals + 1), true);
    parsed.params.emplace(percentDecode(pair.substr(0, equals), true), std::move(value));
  }
  return parsed;
}

std::string escapeForLog(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size();) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (c >= 0x20 && c < 0x7f && c != '"' && c != '\\') {
      out.push_back(static_cast<char>(c));
      ++i;
    } else if (size_t length = c >= 0x80 ? utf8SequenceLength(text.substr(i)) : 0) {
      out.append(text.substr(i, length));
      i += length;
    } else {
      char escaped[5];
      std::snprintf(escaped, sizeof escaped, "\\x%02X", c);
      out += escaped;
      ++i;
    }
  }
  return out;
}

std::optional<ServedFile> openListFile(int folderFd, std::string_view target) {
  const RequestTarget parsed = parseRequestTarget(target);
  const auto name = listFileForRequest(parsed.path, parsed.params);
  if (!name) return std::nullopt;
  // O_NONBLOCK: a FIFO put in the folder must not hold the thread.
  const int fd =
      ::openat(folderFd, name->c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
  if (fd < 0) return std::nullopt;
  ServedFile file(fd, 0);
  struct stat info {};
  if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) return std::nullopt;
  return ServedFile(file.release(), static_cast<std::uint64_t>(info.st_size));
}

namespace {

using State = ListServer::State;

MHD_Result onRequest(void* cls, MHD_Connection* connection, const char*, const char* method,
                     const char*, const char*, size_t* uploadSize, void** context) {
  auto* state = static_cast<State*>(cls);
  auto* request = static_cast<Request*>(*context);
  if (!request) return MHD_NO;  // no request line was seen: cannot happen
  if (request->status != 0) {
    *uploadSize = 0;  // a body nobody asked for, after the answer was queued
    return MHD_YES;
  }
  state->connections.settle(connection);  // the header is complete
  request->method = method ? method : "";
  const bool get = request->method == "GET" || request->method == "HEAD";
  std::optional<ServedFile> file =
      get ? openListFile(state->folderFd, request->target) : std::nullopt;
  MHD_Response* response = nullptr;
  if (file) {
    const std::uint64_t size = file->size();
    // The library owns the descriptor from here and sends it with sendfile.
    response = MHD_create_response_from_fd(size, file->fd());
    if (response) {
      file->release();
      request->status = MHD_HTTP_OK;
      request->size = size;
      MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, "application/octet-stream");
    }
  }
  if (!response) {
    response = MHD_create_response_from_buffer(sizeof kNotFound - 1, const_cast<char*>(kNotFound),
                                               MHD_RESPMEM_PERSISTENT);
    if (!response) return MHD_NO;
    request->status = MHD_HTTP_NOT_FOUND;
    request->size = sizeof kNotFound - 1;
    MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, "text/plain");
  }
  const MHD_Result queued = MHD_queue_response(connection, request->status, response);
  MHD_destroy_response(response);
  return queued;
}

const char* terminationName(MHD_RequestTerminationCode code) {
  switch (code) {
    case MHD_REQUEST_TERMINATED_COMPLETED_OK:
      return "";
    case MHD_REQUEST_TERMINATED_WITH_ERROR:
      return " (cut: error)";
    case MHD_REQUEST_TERMINATED_TIMEOUT_REACHED:
      return " (cut: idle)";
    case MHD_REQUEST_TERMINATED_DAEMON_SHUTDOWN:
      return " (cut: stopping)";
    case MHD_REQUEST_TERMINATED_READ_ERROR:
      return " (cut: read error)";
    case MHD_REQUEST_TERMINATED_CLIENT_ABORT:
      return " (cut: client gone)";
  }
  return " (cut)";
}

void onCompleted(void* cls, MHD_Connection* connection, void** context,
                 MHD_RequestTerminationCode code) {
  auto* state = static_cast<State*>(cls);
  auto* request = static_cast<Request*>(*context);
  *context = nullptr;
  if (!request) return;
  const std::string client = clientAddress(connection);
  const std::string target = escapeForLog(request->target);
  if (request->status != 0) {
    logf("serve: %s \"%s %s\" %u %llu%s", client.c_str(), escapeForLog(request->method).c_str(),
         target.c_str(), request->status, static_cast<unsigned long long>(request->size),
         terminationName(code));
  } else {
    logf("serve: %s \"%s\" no answer%s", client.c_str(), target.c_str(), terminationName(code));
  }
  delete request;
  // A kept-alive connection now awaits its next header.
  state->connections.restart(connection);
}

}  // namespace

ListServer::ListServer(std::string folder, ServeLimits limits) : state_(std::make_unique<State>()) {
  state_->folder = std::move(folder);
  state_->limits = limits;
}

ListServer::~ListServer() {
  stop();
  if (state_->folderFd >= 0) ::close(state_->folderFd);
}

int ListServer::start(const std::string& address, int port) {
  State& state = *state_;
  if (state.daemon) return -1;
  if (state.folderFd < 0)
    state.folderFd = ::open(state.folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (state.folderFd < 0) {
    logf("serve: cannot open %s", escapeForLog(state.folder).c_str());
    return -1;
  }
  const int listenFd = listenOn(address, port, state.limits.backlog);
  if (listenFd < 0) return -1;
  const ServeLimits& limits = state.limits;
  // Each thread takes an equal share of the connection limit.
  const int maxConnections = std::max(1, limits.maxConnections);
  const int threads = std::clamp(limits.threads, 1, maxConnections);
  // A pool of one is no pool: the option is left out.
  MHD_OptionItem pool[] = {
      {threads > 1 ? MHD_OPTION_THREAD_POOL_SIZE : MHD_OPTION_END, threads, nullptr},
      {MHD_OPTION_END, 0, nullptr}};
  // The library's threads inherit this mask: a client gone during sendfile
  // raises SIGPIPE on the sending thread, where it stays blocked.
  sigset_t pipe, previous;
  sigemptyset(&pipe);
  sigaddset(&pipe, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipe, &previous);
  state.daemon = MHD_start_daemon(
      MHD_USE_EPOLL_INTERNAL_THREAD | MHD_USE_ITC | MHD_USE_ERROR_LOG, 0, nullptr, nullptr,
      &onRequest, &state, MHD_OPTION_EXTERNAL_LOGGER, &logLibraryMessage, kLogName,
      MHD_OPTION_LISTEN_SOCKET, listenFd, MHD_OPTION_ARRAY, pool, MHD_OPTION_CONNECTION_LIMIT,
      static_cast<unsigned>(maxConnections), MHD_OPTION_PER_IP_CONNECTION_LIMIT,
      static_cast<unsigned>(std::max(1, limits.maxPerAddress)), MHD_OPTION_CONNECTION_TIMEOUT,
      static_cast<unsigned>(std::max<long long>(1, limits.idle.count())),
      MHD_OPTION_NOTIFY_CONNECTION, &ConnectionTracker::notify, &state.connections,
      MHD_OPTION_NOTIFY_COMPLETED, &onCompleted, &state, MHD_OPTION_URI_LOG_CALLBACK,
      &startRequest<Request>, nullptr, MHD_OPTION_SIGPIPE_HANDLED_BY_APP, 1, MHD_OPTION_END);
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  if (!state.daemon) {
    ::close(listenFd);
    return -1;
  }
  state.port = boundPort(listenFd);
  // A header trickling in a line at a time is cut at its deadline.
  state.connections.start(limits.headerDeadline);
  return state.port;
}

void ListServer::stop() {
  State& state = *state_;
  if (!state.daemon) return;
  // The port closes at once; connections under way go on. The library's
  // threads may still be taking the socket out of their epoll sets, so it
  // is only shut down here (which ends the listening) and closed after them.
  const int listenFd = MHD_quiesce_daemon(state.daemon);
  if (listenFd >= 0) ::shutdown(listenFd, SHUT_RDWR);
  const size_t open = state.connections.waitForClose(Clock::now() + state.limits.grace);
  if (open > 0)
    logf("serve: stopping, cut %zu connection%s still open", open, open == 1 ? "" : "s");
  state.connections.stop();
  MHD_stop_daemon(state.daemon);
  state.daemon = nullptr;
  if (listenFd >= 0) ::close(listenFd);
}

}  // namespace quarvel::server
