#pragma once
/// @file
/// What the download run needs from whoever shows it: the update window, a
/// terminal, or a test. The run calls these from its worker thread; each
/// implementation hands them to its own user-interface thread as its toolkit
/// requires.

#include <cstdint>
#include <string>

namespace quarvel {

class UpdateView {
 public:
  virtual ~UpdateView() = default;

  /// The one-line status display.
  virtual void setStatusText(const std::string& text) = 0;
  /// The progress bar, 0.0 to 1.0.
  virtual void setProgress(double value) = 0;
  /// The bytes of the current file received so far: 0 when a file's attempt
  /// starts, then at most every tenth of a second while its body arrives, and
  /// the total when the transfer ends. Views that show only the per-file bar
  /// ignore it.
  virtual void setBytesReceived(std::uint64_t /*bytes*/) {}
  /// Shows the outcome alert for `code` ("DOWNLOAD_DONE", "DOWNLOAD_FAIL", ...)
  /// on the main thread and returns once the user has dismissed it.
  virtual void errorAlert(const std::string& code) = 0;
  /// Closes the window; the run has ended.
  virtual void close() = 0;
};

}  // namespace quarvel
