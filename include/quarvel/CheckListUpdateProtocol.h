#pragma once
/// @file
/// The operations through which a host drives the data update window. The
/// window is created with the edition flag (the implementing class's
/// constructor), optionally switched to the in-house web server and given a
/// delegate, then shown; showWindow blocks until the window has closed.

#include <cstdint>

namespace quarvel {

class CheckListUpdateProtocol {
 public:
  virtual ~CheckListUpdateProtocol() = default;

  /// Runs the window modally and answers the outcome code: 0 done, -1
  /// failed, -100 cancelled (the window was closed during the run), -200
  /// not run (no network).
  virtual std::int64_t showWindow() = 0;
  /// Fetch from the in-house web server configured in the settings instead
  /// of the public list server. Call before showWindow.
  virtual void isWebQuarvelCheck() = 0;
  /// Stores the host's delegate; the window keeps it but never calls it and
  /// does not own it.
  virtual void setDelegate(void* delegate) = 0;
};

}  // namespace quarvel
