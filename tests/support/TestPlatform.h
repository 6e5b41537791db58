#pragma once
// The system's platform with the parts a test sets replaced, installed for
// the life of the object, then the system's put back.
// A test that injects faults derives from PlatformWrapper itself and hands
// its object to ScopedPlatform.

#include <cerrno>
#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>

#include "common/Platform.h"

namespace quarvel::testing {

// Installs `platform` until destroyed.
class ScopedPlatform {
 public:
  explicit ScopedPlatform(std::shared_ptr<Platform> platform) {
    Platform::install(std::move(platform));
  }
  ~ScopedPlatform() { Platform::install(nullptr); }
  ScopedPlatform(const ScopedPlatform&) = delete;
  ScopedPlatform& operator=(const ScopedPlatform&) = delete;
};

// Answers the sources and settings a test gives it, else the system's.
class ReplacingPlatform : public PlatformWrapper {
 public:
  std::shared_ptr<const HostEnvironment> host;
  std::shared_ptr<const NetworkSources> network;
  std::shared_ptr<RouteSource> routes;
  std::optional<std::chrono::milliseconds> httpIdle;

  std::shared_ptr<const HostEnvironment> hostEnvironment() override {
    return host ? host : PlatformWrapper::hostEnvironment();
  }
  std::shared_ptr<const NetworkSources> networkSources() override {
    return network ? network : PlatformWrapper::networkSources();
  }
  std::shared_ptr<RouteSource> routeSource() override {
    return routes ? routes : PlatformWrapper::routeSource();
  }
  std::chrono::milliseconds httpIdleTimeout() override {
    return httpIdle ? *httpIdle : PlatformWrapper::httpIdleTimeout();
  }
};

// A ReplacingPlatform installed for the life of the object.
struct TestPlatform {
  std::shared_ptr<ReplacingPlatform> platform = std::make_shared<ReplacingPlatform>();
  ScopedPlatform scope{platform};
  ReplacingPlatform* operator->() { return platform.get(); }
};

// A disk that fails the library's writes in-process: every write past
// `limit` bytes of one file (a full disk: ENOSPC), every flush of a file
// written (EIO), or every rename (EXDEV).
class FaultyDisk : public PlatformWrapper {
 public:
  enum class Fault { kFull, kFlush, kRename };
  FaultyDisk(Fault fault, std::size_t limit) : fault_(fault), limit_(limit) {}

  int openAt(int folder, const char* path, int flags, mode_t mode) override {
    const int fd = PlatformWrapper::openAt(folder, path, flags, mode);
    std::lock_guard lock(mutex_);
    if (fd >= 0) written_[fd] = 0;
    return fd;
  }
  ssize_t write(int fd, const void* data, std::size_t size) override {
    if (!admit(fd, size)) return -1;
    return PlatformWrapper::write(fd, data, size);
  }
  ssize_t writeAt(int fd, const void* data, std::size_t size, off_t offset) override {
    if (!admit(fd, size)) return -1;
    return PlatformWrapper::writeAt(fd, data, size, offset);
  }
  int sync(int fd) override {
    if (fault_ == Fault::kFlush && written_.count(fd)) return errno = EIO, -1;
    return PlatformWrapper::sync(fd);
  }
  int renameAt(int fromFolder, const char* from, int toFolder, const char* to) override {
    if (fault_ == Fault::kRename) return errno = EXDEV, -1;
    return PlatformWrapper::renameAt(fromFolder, from, toFolder, to);
  }

 private:
  bool admit(int fd, std::size_t size) {
    std::lock_guard lock(mutex_);
    std::size_t& done = written_[fd];
    if (fault_ == Fault::kFull && done + size > limit_) return errno = ENOSPC, false;
    done += size;
    return true;
  }
  Fault fault_;
  std::size_t limit_;
  std::mutex mutex_;
  std::map<int, std::size_t> written_;
};

}  // namespace quarvel::testing
