#pragma once
// The work behind `quarvel reach`: make the monitor the arguments name,
// describe its flags and status, and optionally watch for changes.

#include <cstdint>
#include <iosfwd>
#include <memory>
#include <string>

#include "quarvel/Reachability.h"

namespace quarvel::cli {

struct ReachOptions {
  std::string target = {};  // an IPv4 or IPv6 address or a host name; empty: the internet
  bool localWiFi = false;   // the link-local network instead of a target
  bool watch = false;
};

// The monitor for `options`; null when the target is not a usable name.
std::unique_ptr<Reachability> makeReachMonitor(const ReachOptions& options);

// "<flag letters>  <status> (<meaning>)", e.g. "-R -----ld  1 (reachable
// via local network)", or "unreadable  0 (not reachable)" when the flags
// cannot be read. `localWiFi` selects the local rule. `status`, when given,
// receives the status described.
std::string describeReach(Reachability& monitor, bool localWiFi, std::int64_t* status = nullptr);

// Exit statuses of `quarvel reach`.
enum ReachExit : int {
  kReachExitReachable = 0,
  kReachExitUnreachable = 1,  // status 0, the flags unreadable included
  kReachExitUnusable = 2,     // not a usable target: a usage error
  kReachExitNoWatch = 3,      // --watch could not watch for changes
};

// Prints the description once and, with options.watch, once more after each
// change notification until SIGINT. Answers the exit status for the last
// status printed, as ReachExit.
int runReach(const ReachOptions& options, std::ostream& out, std::ostream& err);

}  // namespace quarvel::cli
