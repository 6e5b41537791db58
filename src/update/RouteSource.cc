#include "update/RouteSource.h"

#include <arpa/inet.h>

#include <cstring>
#include <mutex>

#include "common/Platform.h"
#include "update/KernelRouteSource.h"

namespace quarvel {

std::optional<IpAddress> IpAddress::parse(const std::string& text) {
  in_addr v4{};
  if (::inet_pton(AF_INET, text.c_str(), &v4) == 1) return IpAddress(v4);
  in6_addr v6{};
  if (::inet_pton(AF_INET6, text.c_str(), &v6) == 1) return IpAddress(v6);
  return std::nullopt;
}

bool IpAddress::isUnspecified() const {
  if (family == AF_INET6) return IN6_IS_ADDR_UNSPECIFIED(&v6);
  return v4.s_addr == INADDR_ANY;
}

std::string IpAddress::toString() const {
  char text[INET6_ADDRSTRLEN] = {};
  if (family == AF_INET6)
    ::inet_ntop(AF_INET6, &v6, text, sizeof text);
  else
    ::inet_ntop(AF_INET, &v4, text, sizeof text);
  return text;
}

bool operator==(const IpAddress& a, const IpAddress& b) {
  if (a.family != b.family) return false;
  if (a.family == AF_INET6) return std::memcmp(&a.v6, &b.v6, sizeof a.v6) == 0;
  return a.v4.s_addr == b.v4.s_addr;
}

std::shared_ptr<RouteSource> RouteSource::current() {
  if (auto source = Platform::current()->routeSource()) return source;
  static const auto kernel = std::make_shared<KernelRouteSource>();
  return kernel;
}

}  // namespace quarvel
