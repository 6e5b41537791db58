#pragma once
// The data update run in a terminal: a progress bar with the Korean status
// texts, the outcome text, and an exit status.

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>
#include <ostream>
#include <string>

#include "quarvel/UpdateRun.h"

namespace quarvel::cli {

// Exit statuses of `quarvel update`.
enum TerminalUpdateExit : int {
  kUpdateExitDone = 0,
  kUpdateExitFailed = 1,
  kUpdateExitNoNetwork = 3,
  // --gui with no display the window could open on; nothing was run.
  kUpdateExitNoDisplay = 4,
  // Ctrl-C, or the window closed during the run: what a shell reports for
  // a command ended by SIGINT.
  kUpdateExitCancelled = 130,
};

// The update window's own program, run by `quarvel update --gui`.
inline constexpr const char* kUpdateWindowProgram = "quarvel-update-window";

struct TerminalUpdateRequest {
  // Fetch from the in-house web server named in the settings.
  bool web = false;
  // "HOST[:PORT]" of a mirror of the public list server.
  std::optional<std::string> server;
  // Servers and timing; `server` replaces its list server. When its
  // networkCheck is empty, the internet-connection monitor answers, as in
  // the window; whatever else is wrong (no in-house address, a name that
  // does not resolve) is the run's to meet and answer.
  UpdateOptions options = UpdateOptions::defaults();
  // Polled while the run goes on; true cancels it (Ctrl-C).
  std::function<bool()> interrupted;
  // Redraw one line in place (a terminal) rather than print a line per step.
  bool redraw = false;
  // The text of the list maintainers' public key file: every file must
  // carry its signature (UpdateOptions::trustedKey). Absent: the key in the
  // settings, if any. Whichever way, a list that does not read as a data
  // file of its kind fails its attempt in the terminal.
  std::optional<std::string> verifyKey;
};

// A byte count as the progress line shows it: "512 B", "1.5 KiB", "51.0 MiB".
std::string formatBytes(std::uint64_t bytes);

// Why the update window could not open in this environment, or nothing
// when it can: Qt's platform comes from QT_QPA_PLATFORM (a ";"-separated
// list, any entry of which may serve, each with optional ":options") or,
// unset, from whichever display server is named. xcb needs DISPLAY, wayland
// WAYLAND_DISPLAY; offscreen, minimal, vnc, linuxfb, eglfs and the like need
// none; a platform named that is not known here is left to Qt. `env` reads
// a variable (null when unset), as getenv does.
std::optional<std::string> windowDisplayProblem(const std::function<const char*(const char*)>& env);

// Runs the update and answers its exit status. Writes progress and the
// outcome to `out`; nothing is written to `out` after it returns.
int runTerminalUpdate(const TerminalUpdateRequest& request, std::ostream& out);

// The exit status for an outcome code of the run or the window.
int exitStatusForOutcome(std::int64_t outcome);

}  // namespace quarvel::cli
