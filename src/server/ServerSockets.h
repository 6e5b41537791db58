#pragma once
// The socket and libmicrohttpd plumbing that the list server and the
// report collector share.

#include <microhttpd.h>

#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstddef>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>

namespace quarvel::server {

// A listening socket on `address`:`port` (an empty address: every one),
// non-blocking and close-on-exec; -1 when none binds. SO_REUSEADDR only
// lets a restarted server take the port back from connections lingering in
// TIME_WAIT; a port another server listens on stays its own.
int listenOn(const std::string& address, int port, int backlog);

// The port a listening socket is bound to; -1 when it cannot be told.
int boundPort(int fd);

// The connection's peer address as text ("127.0.0.1", "::1"); "?" when the
// library cannot tell it.
std::string clientAddress(MHD_Connection* connection);

// Whether an address text from clientAddress() is the loopback's.
bool isLoopback(std::string_view address);

// libmicrohttpd's MHD_OPTION_EXTERNAL_LOGGER: logs the library's message
// as one line, escaped, behind the server's name; `name` is a NUL-ended
// string that outlives the daemon ("serve", "collect").
void logLibraryMessage(void* name, const char* format, va_list arguments);

// libmicrohttpd's MHD_OPTION_URI_LOG_CALLBACK: starts a request of type
// `R` (owned by the library's request context until the completion
// callback deletes it) with its target as sent.
template <class R>
void* startRequest(void*, const char* uri, MHD_Connection*) {
  auto* request = new R;
  request->target = uri ? uri : "";
  return request;
}

// A server's open connections, each with a deadline for its request. The
// library's own time-out counts silence only, so a request trickling in a
// byte at a time would otherwise hold its connection as long as the client
// likes. A watcher thread shuts down the socket of a connection past its
// deadline, which makes the library see it end and close it itself.
//
// The deadline runs from a connection's start, stops when the server says
// the request no longer needs it (its header is complete, its answer is
// queued) and runs again from the end of each request, for the next one
// on a kept-alive connection.
//
// Threading: every member may be called from any thread; start() and
// stop() from the one that starts and stops the server.
class ConnectionTracker {
 public:
  using Clock = std::chrono::steady_clock;

  // `name` goes in front of log lines ("serve"); `late` says what did not
  // come in time ("no whole request"). Both are static strings.
  ConnectionTracker(const char* name, const char* late) : name_(name), late_(late) {}
  ~ConnectionTracker() { stop(); }
  ConnectionTracker(const ConnectionTracker&) = delete;
  ConnectionTracker& operator=(const ConnectionTracker&) = delete;

  // libmicrohttpd's MHD_OPTION_NOTIFY_CONNECTION, with the tracker as its
  // closure: records a connection when it starts and forgets it when it
  // closes (before the library closes the socket, so the watcher never
  // shuts down a descriptor since reused).
  static void notify(void* tracker, MHD_Connection* connection, void** socketContext,
                     MHD_ConnectionNotificationCode code);

  // The request under way no longer needs the deadline.
  void settle(MHD_Connection* connection);
  // The request ended: the deadline runs again for the next one.
  void restart(MHD_Connection* connection);
  // The connections open now.
  std::size_t open();
  // Waits until no connection is open or `until` passes; answers how many
  // are still open.
  std::size_t waitForClose(Clock::time_point until);

  // Starts and stops the watcher. stop() is safe more than once.
  void start(std::chrono::milliseconds deadline);
  void stop();

 private:
  struct Entry {
    int fd;
    Clock::time_point since;  // of the request now under way
    bool running;             // its deadline runs
  };
  void watch();

  const char* name_;
  const char* late_;
  std::chrono::milliseconds deadline_{0};
  std::mutex mutex_;
  std::condition_variable wake_;
  std::unordered_map<MHD_Connection*, Entry> connections_;  // guarded by mutex_
  bool watching_ = false;                                   // guarded by mutex_
  std::thread watcher_;
};

}  // namespace quarvel::server
