#pragma once
/// @file
/// Whether the machine can reach a host, an address or the local link, and a
/// watch that posts kReachabilityChangedNotification when that changes.

#include <netinet/in.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace quarvel {

/// The name of the change notification: "kNetworkReachabilityChangedNotification".
extern const char* const kReachabilityChangedNotification;

/// Reachability flags, with the bit values of the original platform.
enum ReachabilityFlags : std::uint32_t {
  kReachabilityFlagTransientConnection = 0x1,
  kReachabilityFlagReachable = 0x2,
  kReachabilityFlagConnectionRequired = 0x4,
  kReachabilityFlagConnectionOnTraffic = 0x8,
  kReachabilityFlagInterventionRequired = 0x10,
  kReachabilityFlagConnectionOnDemand = 0x20,
  kReachabilityFlagIsLocalAddress = 0x10000,
  kReachabilityFlagIsDirect = 0x20000,
  kReachabilityFlagIsWWAN = 0x40000,
};

/// Reachability status.
enum : std::int64_t {
  ReachabilityNone = 0,
  ReachabilityViaLocalNetwork = 1,
  ReachabilityViaCellular = 2,
};

/// The flags as the log line prints them: "WR tcCiDld", a letter for each set
/// bit and "-" for each clear one.
std::string reachabilityFlagLetters(std::uint32_t flags);

class Reachability {
 public:
  /// Each answers a new monitor, or null when no target can be made (an
  /// empty or malformed host name, an address of the wrong family). A host
  /// name may also be an IPv4 or IPv6 literal; a name is resolved in every
  /// family and counts as reachable when any of its addresses is.
  static std::unique_ptr<Reachability> reachabilityWithHostName(const std::string& hostName);
  static std::unique_ptr<Reachability> reachabilityWithAddress(const sockaddr_in* hostAddress);
  /// The same for an IPv6 address; :: stands for any route to the internet,
  /// as 0.0.0.0 does.
  static std::unique_ptr<Reachability> reachabilityWithAddress(const sockaddr_in6* hostAddress);
  static std::unique_ptr<Reachability> reachabilityForInternetConnection();
  static std::unique_ptr<Reachability> reachabilityForLocalWiFi();

  ~Reachability();
  Reachability(const Reachability&) = delete;
  Reachability& operator=(const Reachability&) = delete;

  /// Watches for changes on the calling thread's GLib thread-default main
  /// context; the notification (object: this monitor) is posted there, only
  /// when the flags differ from the last ones seen. Starting again replaces
  /// the watch. false when no watch can be made. stopNotifier (and the
  /// destructor, which calls it) must run on the same thread; an observer may
  /// stop or destroy the monitor from inside the notification.
  bool startNotifier();
  void stopNotifier();

  /// Reads the flags now (a host name is resolved again) and applies the
  /// local rule (reachabilityForLocalWiFi) or the general rule. 0 when the
  /// flags cannot be read. Any thread.
  std::int64_t currentReachabilityStatus();
  /// True when the flags read now say ConnectionRequired (never on Linux).
  bool connectionRequired();
  /// The rules for given flags; each writes the flag log line.
  std::int64_t localWiFiStatusForFlags(std::uint32_t flags);
  std::int64_t networkStatusForFlags(std::uint32_t flags);

  /// The flags read now, without logging; nullopt when they cannot be read.
  std::optional<std::uint32_t> currentFlags();

 private:
  Reachability();
  struct Impl;
  bool localWiFiRef = false;
  std::unique_ptr<Impl> reachabilityRef;
};

}  // namespace quarvel
