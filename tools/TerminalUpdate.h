#pragma once
// The data update run in a terminal: a progress bar with the Korean status
// texts, the outcome text, and an exit status.

#include <atomic>
#include <functional>
#include <optional>
#include <ostream>
#include <string>

#include "quarvel/update/UpdateRun.h"

namespace quarvel::cli {

// Exit statuses of `quarvel update`.
enum TerminalUpdateExit : int {
  kUpdateExitDone = 0,
  kUpdateExitFailed = 1,
  kUpdateExitCancelled = 2,
  kUpdateExitNoNetwork = 3,
};

struct TerminalUpdateRequest {
  // Fetch from the in-house web server named in the settings.
  bool web = false;
  // "HOST[:PORT]" of a mirror of the public list server.
  std::optional<std::string> server;
  // Servers and timing; `server` replaces its list server. When its
  // networkCheck is empty, the check asks whether the host that will be
  // used (the mirror, the list server or the in-house server) is reachable.
  UpdateOptions options = UpdateOptions::defaults();
  // Polled while the run goes on; true cancels it (Ctrl-C).
  std::function<bool()> interrupted;
  // Redraw one line in place (a terminal) rather than print a line per step.
  bool redraw = false;
};

// The host part of "http://host:port/...", "host:port", "[v6]:port" or
// "host": what a reachability check can ask about.
std::string hostOfServer(const std::string& server);

// Runs the update and answers its exit status. Writes progress and the
// outcome to `out`; nothing is written to `out` after it returns.
int runTerminalUpdate(const TerminalUpdateRequest& request, std::ostream& out);

// The exit status for an outcome code of the run or the window.
int exitStatusForOutcome(std::int64_t outcome);

}  // namespace quarvel::cli
