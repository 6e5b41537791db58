#pragma once
// The platform under the library, in one place: the file calls its writers
// make, the clocks, the facts of the machine (its folders and volumes, its
// network interfaces and services, its routes) and the HTTP settings.
// Everything the library asks the system for these goes through the current
// Platform, so that a test wraps the system's (PlatformWrapper) and injects a
// fault in-process, and another system can be supported by implementing it.
//
// Threading: every member may be called from any thread at any time; an
// implementation must be thread-safe. current() and install() are.

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>

namespace quarvel {

class HostEnvironment;
class HttpExchange;
struct NetworkSources;
class RouteSource;

class Platform {
 public:
  virtual ~Platform() = default;

  // Files: the POSIX calls of the same names, answering as they do (-1 with
  // errno set on failure; write and writeAt the bytes written).
  virtual int openAt(int folder, const char* path, int flags, mode_t mode);
  virtual ssize_t write(int fd, const void* data, std::size_t size);
  virtual ssize_t writeAt(int fd, const void* data, std::size_t size, off_t offset);
  virtual int sync(int fd);
  virtual int renameAt(int fromFolder, const char* from, int toFolder, const char* to);
  virtual int truncate(int fd, off_t size);

  // Clocks: the monotonic one for waits and deadlines, the wall clock for
  // dates written into files and logs.
  virtual std::chrono::steady_clock::time_point steadyNow();
  virtual std::chrono::system_clock::time_point wallNow();

  // The machine's facts. Null stands for the system's own, which the area
  // that needs it makes (the settings for the first two, the reachability
  // monitor for routes); an implementation answers its own to replace them.
  virtual std::shared_ptr<const HostEnvironment> hostEnvironment();
  virtual std::shared_ptr<const NetworkSources> networkSources();
  virtual std::shared_ptr<RouteSource> routeSource();

  // HTTP: how long a request of the settings' network thread may go without
  // a byte moving, connection included, before it fails.
  virtual std::chrono::milliseconds httpIdleTimeout();
  // Runs a synchronous exchange (the update run's downloads) to its end on
  // this thread and answers its CURLcode. The system's hands it to libcurl;
  // a test answers in its place, feeding the body through
  // HttpExchange::deliver and answering an error where the fault is.
  virtual int performHttp(HttpExchange& exchange);
  // Starts an exchange (the settings' requests) and returns at once;
  // `finished` is called once with its CURLcode, on another thread, unless
  // the library is torn down first. The system's hands it to the library's
  // network thread, which drives libcurl and fails an idle exchange; a test
  // answers in its place as for performHttp, from any thread.
  virtual void startHttp(std::shared_ptr<HttpExchange> exchange,
                         std::function<void(int code)> finished);

  // The system's platform; never null, lives as long as the process.
  static std::shared_ptr<Platform> system();
  // The platform in use: the one installed last, else the system's.
  static std::shared_ptr<Platform> current();
  // Installs `platform` for the whole process; null restores the system's.
  // For tests and embedders. Work already under way keeps what it took;
  // new work (a monitor, a settings object, a write) takes the new one.
  static void install(std::shared_ptr<Platform> platform);
};

// Forwards every call to another platform; a test derives from it and
// overrides only what it makes fail.
class PlatformWrapper : public Platform {
 public:
  explicit PlatformWrapper(std::shared_ptr<Platform> target = Platform::system())
      : target_(std::move(target)) {}

  int openAt(int folder, const char* path, int flags, mode_t mode) override {
    return target_->openAt(folder, path, flags, mode);
  }
  ssize_t write(int fd, const void* data, std::size_t size) override {
    return target_->write(fd, data, size);
  }
  ssize_t writeAt(int fd, const void* data, std::size_t size, off_t offset) override {
    return target_->writeAt(fd, data, size, offset);
  }
  int sync(int fd) override { return target_->sync(fd); }
  int renameAt(int fromFolder, const char* from, int toFolder, const char* to) override {
    return target_->renameAt(fromFolder, from, toFolder, to);
  }
  int truncate(int fd, off_t size) override { return target_->truncate(fd, size); }
  std::chrono::steady_clock::time_point steadyNow() override { return target_->steadyNow(); }
  std::chrono::system_clock::time_point wallNow() override { return target_->wallNow(); }
  std::shared_ptr<const HostEnvironment> hostEnvironment() override {
    return target_->hostEnvironment();
  }
  std::shared_ptr<const NetworkSources> networkSources() override {
    return target_->networkSources();
  }
  std::shared_ptr<RouteSource> routeSource() override { return target_->routeSource(); }
  std::chrono::milliseconds httpIdleTimeout() override { return target_->httpIdleTimeout(); }
  int performHttp(HttpExchange& exchange) override { return target_->performHttp(exchange); }
  void startHttp(std::shared_ptr<HttpExchange> exchange,
                 std::function<void(int code)> finished) override {
    target_->startHttp(std::move(exchange), std::move(finished));
  }

 protected:
  Platform& target() { return *target_; }

 private:
  std::shared_ptr<Platform> target_;
};

}  // namespace quarvel
