#pragma once
// What the download run needs from whoever shows it: the update window, a
// terminal, or a test. The run calls these from its worker thread; each
// implementation hands them to its own user-interface thread as its toolkit
// requires.

#include <string>

namespace quarvel {

class UpdateView {
 public:
  virtual ~UpdateView() = default;

  // The one-line status display.
  virtual void setStatusText(const std::string& text) = 0;
  // The progress bar, 0.0 to 1.0.
  virtual void setProgress(double value) = 0;
  // Shows the outcome alert for `code` ("DOWNLOAD_DONE", "DOWNLOAD_FAIL", ...)
  // on the main thread and returns once the user has dismissed it.
  virtual void errorAlert(const std::string& code) = 0;
  // Closes the window; the run has ended.
  virtual void close() = 0;
};

}  // namespace quarvel
