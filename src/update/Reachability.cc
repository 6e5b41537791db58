#include "quarvel/Reachability.h"

#include <arpa/inet.h>
#include <glib-unix.h>
#include <glib.h>

#include <cstring>
#include <string_view>

#include "common/Log.h"
#include "quarvel/NotificationCenter.h"
#include "update/RouteSource.h"

namespace quarvel {

const char* const kReachabilityChangedNotification = "kNetworkReachabilityChangedNotification";

namespace {

// A name the resolver could look up: dot-separated labels of letters,
// digits, '-' and '_', each 1 to 63 bytes, 253 bytes at most, one trailing
// dot allowed; or an address literal. Dotted IPv4 addresses pass as names,
// IPv6 ones (without a zone index) are let through whole.
bool isWellFormedHostName(std::string_view name) {
  if (name.find(':') != std::string_view::npos) {
    in6_addr ignored{};
    return inet_pton(AF_INET6, std::string(name).c_str(), &ignored) == 1;
  }
  if (!name.empty() && name.back() == '.') name.remove_suffix(1);
  if (name.empty() || name.size() > 253) return false;
  std::size_t label = 0;
  for (char c : name) {
    if (c == '.') {
      if (label == 0) return false;
      label = 0;
      continue;
    }
    bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
              c == '-' || c == '_';
    if (!ok || ++label > 63) return false;
  }
  return label > 0;
}

void logFlags(std::uint32_t flags, const char* comment) {
  std::string letters = reachabilityFlagLetters(flags);
  logf("Reachability Flag Status: %c%c %c%c%c%c%c%c%c %s\n", letters[0], letters[1], letters[3],
       letters[4], letters[5], letters[6], letters[7], letters[8], letters[9], comment);
}

}  // namespace

std::string reachabilityFlagLetters(std::uint32_t flags) {
  auto bit = [&](std::uint32_t mask, char letter) { return (flags & mask) ? letter : '-'; };
  return {bit(kReachabilityFlagIsWWAN, 'W'),
          bit(kReachabilityFlagReachable, 'R'),
          ' ',
          bit(kReachabilityFlagTransientConnection, 't'),
          bit(kReachabilityFlagConnectionRequired, 'c'),
          bit(kReachabilityFlagConnectionOnTraffic, 'C'),
          bit(kReachabilityFlagInterventionRequired, 'i'),
          bit(kReachabilityFlagConnectionOnDemand, 'D'),
          bit(kReachabilityFlagIsLocalAddress, 'l'),
          bit(kReachabilityFlagIsDirect, 'd')};
}

struct Reachability::Impl {
  Reachability* owner = nullptr;
  std::shared_ptr<RouteSource> source;
  // The target: a host name when not empty, else the address.
  std::string hostName;
  IpAddress address;

  // The watch, while the notifier runs. Touched only on the thread that
  // started it (the context's thread).
  GMainContext* context = nullptr;
  GSource* gsource = nullptr;
  std::unique_ptr<RouteSource::Watch> watch;
  std::optional<std::uint32_t> lastFlags;

  std::optional<std::uint32_t> readFlags() {
    if (hostName.empty()) return source->flagsForAddress(address);
    // Resolved at every read, so that the answer follows the name. Of several
    // addresses, of either family, the first reachable one counts: a name is
    // reachable when a route exists for any of its addresses.
    std::optional<std::uint32_t> first;
    for (const IpAddress& a : source->resolve(hostName)) {
      auto flags = source->flagsForAddress(a);
      if (flags && (*flags & kReachabilityFlagReachable)) return flags;
      if (!first) first = flags;
    }
    return first ? first : std::optional<std::uint32_t>(0u);
  }

  static gboolean onReadable(gint, GIOCondition, gpointer data) {
    auto* self = static_cast<Impl*>(data);
    if (!self->watch->drain()) return G_SOURCE_CONTINUE;
    auto flags = self->readFlags();
    if (flags == self->lastFlags) return G_SOURCE_CONTINUE;
    self->lastFlags = flags;
    // Last thing done here: an observer may stop or destroy the monitor.
    NotificationCenter::defaultCenter().post(kReachabilityChangedNotification, self->owner);
    return G_SOURCE_CONTINUE;
  }
};

Reachability::Reachability() : reachabilityRef(std::make_unique<Impl>()) {
  reachabilityRef->owner = this;
  reachabilityRef->source = RouteSource::current();
}

Reachability::~Reachability() { stopNotifier(); }

std::unique_ptr<Reachability> Reachability::reachabilityWithHostName(const std::string& hostName) {
  if (!isWellFormedHostName(hostName)) return nullptr;
  std::unique_ptr<Reachability> r(new Reachability());
  r->reachabilityRef->hostName = hostName;
  return r;
}

std::unique_ptr<Reachability> Reachability::reachabilityWithAddress(
    const sockaddr_in* hostAddress) {
  if (!hostAddress || hostAddress->sin_family != AF_INET) return nullptr;
  std::unique_ptr<Reachability> r(new Reachability());
  r->reachabilityRef->address = hostAddress->sin_addr;
  return r;
}

std::unique_ptr<Reachability> Reachability::reachabilityWithAddress(
    const sockaddr_in6* hostAddress) {
  if (!hostAddress || hostAddress->sin6_family != AF_INET6) return nullptr;
  std::unique_ptr<Reachability> r(new Reachability());
  r->reachabilityRef->address = hostAddress->sin6_addr;
  return r;
}

std::unique_ptr<Reachability> Reachability::reachabilityForInternetConnection() {
  // 0.0.0.0 asks for a default route of either family.
  sockaddr_in zero{};
  zero.sin_family = AF_INET;
  return reachabilityWithAddress(&zero);
}

std::unique_ptr<Reachability> Reachability::reachabilityForLocalWiFi() {
  sockaddr_in linkLocal{};
  linkLocal.sin_family = AF_INET;
  linkLocal.sin_addr.s_addr = htonl(0xA9FE0000);  // 169.254.0.0
  auto r = reachabilityWithAddress(&linkLocal);
  if (r) r->localWiFiRef = true;
  return r;
}

bool Reachability::startNotifier() {
  stopNotifier();
  Impl& impl = *reachabilityRef;
  impl.watch = impl.source->watch();
  if (!impl.watch) return false;
  // The baseline against which changes are judged.
  impl.lastFlags = impl.readFlags();
  impl.context = g_main_context_ref_thread_default();
  impl.gsource =
      g_unix_fd_source_new(impl.watch->fd(), static_cast<GIOCondition>(G_IO_IN | G_IO_ERR));
  g_source_set_callback(impl.gsource, G_SOURCE_FUNC(&Impl::onReadable), &impl, nullptr);
  if (g_source_attach(impl.gsource, impl.context) == 0) {
    stopNotifier();
    return false;
  }
  return true;
}

void Reachability::stopNotifier() {
  Impl& impl = *reachabilityRef;
  if (impl.gsource) {
    g_source_destroy(impl.gsource);
    g_source_unref(impl.gsource);
    impl.gsource = nullptr;
  }
  if (impl.context) {
    g_main_context_unref(impl.context);
    impl.context = nullptr;
  }
  impl.watch.reset();
  impl.lastFlags.reset();
}

std::optional<std::uint32_t> Reachability::currentFlags() { return reachabilityRef->readFlags(); }

std::int64_t Reachability::currentReachabilityStatus() {
  auto flags = currentFlags();
  if (!flags) return ReachabilityNone;
  return localWiFiRef ? localWiFiStatusForFlags(*flags) : networkStatusForFlags(*flags);
}

bool Reachability::connectionRequired() {
  auto flags = currentFlags();
  return flags && (*flags & kReachabilityFlagConnectionRequired);
}

std::int64_t Reachability::localWiFiStatusForFlags(std::uint32_t flags) {
  logFlags(flags, "localWiFiStatusForFlags");
  constexpr std::uint32_t kDirectlyReachable =
      kReachabilityFlagReachable | kReachabilityFlagIsDirect;
  return (flags & kDirectlyReachable) == kDirectlyReachable ? ReachabilityViaLocalNetwork
                                                            : ReachabilityNone;
}

std::int64_t Reachability::networkStatusForFlags(std::uint32_t flags) {
  logFlags(flags, "networkStatusForFlags");
  if (!(flags & kReachabilityFlagReachable)) return ReachabilityNone;
  if (flags & kReachabilityFlagIsWWAN) return ReachabilityViaCellular;
  if ((flags & (kReachabilityFlagConnectionOnDemand | kReachabilityFlagConnectionOnTraffic)) &&
      !(flags & kReachabilityFlagInterventionRequired))
    return ReachabilityViaLocalNetwork;
  return (flags & kReachabilityFlagConnectionRequired) ? ReachabilityNone
                                                       : ReachabilityViaLocalNetwork;
}

}  // namespace quarvel
