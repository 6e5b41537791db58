#include "quarvel/update/RouteSource.h"

#include <mutex>

#include "quarvel/update/KernelRouteSource.h"

namespace quarvel {

namespace {
std::mutex sourceMutex;
std::shared_ptr<RouteSource> installedSource;  // guarded by sourceMutex; null: the kernel
}  // namespace

std::shared_ptr<RouteSource> RouteSource::current() {
  {
    std::lock_guard lock(sourceMutex);
    if (installedSource) return installedSource;
  }
  static const auto kernel = std::make_shared<KernelRouteSource>();
  return kernel;
}

std::shared_ptr<RouteSource> RouteSource::setCurrent(std::shared_ptr<RouteSource> source) {
  std::lock_guard lock(sourceMutex);
  std::swap(installedSource, source);
  return source;
}

}  // namespace quarvel
