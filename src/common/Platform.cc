#include "common/Platform.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <mutex>

#include "common/HttpClient.h"

namespace quarvel {

int Platform::openAt(int folder, const char* path, int flags, mode_t mode) {
  return ::openat(folder, path, flags, mode);
}

ssize_t Platform::write(int fd, const void* data, std::size_t size) {
  return ::write(fd, data, size);
}

ssize_t Platform::writeAt(int fd, const void* data, std::size_t size, off_t offset) {
  return ::pwrite(fd, data, size, offset);
}

int Platform::sync(int fd) { return ::fsync(fd); }

int Platform::renameAt(int fromFolder, const char* from, int toFolder, const char* to) {
  return ::renameat(fromFolder, from, toFolder, to);
}

int Platform::truncate(int fd, off_t size) { return ::ftruncate(fd, size); }

std::chrono::steady_clock::time_point Platform::steadyNow() {
  return std::chrono::steady_clock::now();
}

std::chrono::system_clock::time_point Platform::wallNow() {
  return std::chrono::system_clock::now();
}

std::shared_ptr<const HostEnvironment> Platform::hostEnvironment() { return nullptr; }
std::shared_ptr<const NetworkSources> Platform::networkSources() { return nullptr; }
std::shared_ptr<RouteSource> Platform::routeSource() { return nullptr; }

std::chrono::milliseconds Platform::httpIdleTimeout() { return std::chrono::seconds(60); }

int Platform::performHttp(HttpExchange& exchange) { return exchange.perform(); }

void Platform::startHttp(std::shared_ptr<HttpExchange> exchange,
                         std::function<void(int code)> finished) {
  HttpExchange::startInBackground(std::move(exchange), std::move(finished));
}

namespace {

std::mutex installedMutex;
std::shared_ptr<Platform>& installed() {
  static std::shared_ptr<Platform> platform;
  return platform;
}

}  // namespace

std::shared_ptr<Platform> Platform::system() {
  static const std::shared_ptr<Platform> platform = std::make_shared<Platform>();
  return platform;
}

std::shared_ptr<Platform> Platform::current() {
  std::lock_guard lock(installedMutex);
  if (installed()) return installed();
  return system();
}

void Platform::install(std::shared_ptr<Platform> platform) {
  std::lock_guard lock(installedMutex);
  installed() = std::move(platform);
}

}  // namespace quarvel
