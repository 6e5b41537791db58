#include "TerminalUpdate.h"

#include <chrono>
#include <cmath>
#include <cstdio>
#include <memory>
#include <mutex>

#include "common/StringUtil.h"
#include "quarvel/CVUserDefaults.h"

namespace quarvel::cli {
namespace {

constexpr int kBarWidth = 30;
constexpr const char* kCancelledText = "업데이트가 취소되었습니다.";

}  // namespace

std::string formatBytes(std::uint64_t bytes) {
  char text[32];
  if (bytes < 1024)
    std::snprintf(text, sizeof text, "%llu B", static_cast<unsigned long long>(bytes));
  else if (bytes < 1024 * 1024)
    std::snprintf(text, sizeof text, "%.1f KiB", bytes / 1024.0);
  else
    std::snprintf(text, sizeof text, "%.1f MiB", bytes / (1024.0 * 1024.0));
  return text;
}

namespace {

// Shows the run as text. Calls come from the worker thread; once detached
// (the command has returned) they are dropped.
class TerminalView : public UpdateView {
 public:
  TerminalView(std::ostream& out, bool redraw) : out_(&out), redraw_(redraw) {}

  void setStatusText(const std::string& text) override {
    std::lock_guard lock(mutex_);
    if (text != status_) bytes_ = 0;  // another file
    status_ = text;
    draw();
  }
  // The count follows the transfer when the line is redrawn in place; a
  // line per step shows the file's total with the step that ends it.
  void setBytesReceived(std::uint64_t bytes) override {
    std::lock_guard lock(mutex_);
    bytes_ = bytes;
    if (redraw_) draw();
  }
  void setProgress(double value) override {
    std::lock_guard lock(mutex_);
    progress_ = value;
    draw();
  }
  void errorAlert(const std::string& code) override {
    std::lock_guard lock(mutex_);
    if (!out_) return;
    endLine();
    auto text = UpdateRun::alertInformativeText(code);
    *out_ << UpdateRun::kAlertTitle << ": " << (text ? *text : code) << "\n" << std::flush;
  }
  void close() override {
    std::lock_guard lock(mutex_);
    closed_ = true;
  }

  void printAlert(const std::string& message, const std::string& informative) {
    std::lock_guard lock(mutex_);
    endLine();
    *out_ << message << "\n" << informative << "\n" << std::flush;
  }
  void printLine(const std::string& text) {
    std::lock_guard lock(mutex_);
    endLine();
    *out_ << text << "\n" << std::flush;
  }
  bool closed() {
    std::lock_guard lock(mutex_);
    return closed_;
  }
  void detach() {
    std::lock_guard lock(mutex_);
    endLine();
    out_ = nullptr;
  }

 private:
  void draw() {
    if (!out_) return;
    double clamped = std::fmin(1.0, std::fmax(0.0, progress_));
    int filled = static_cast<int>(std::lround(clamped * kBarWidth));
    std::string line = "[" + std::string(filled, '#') + std::string(kBarWidth - filled, '-') + "] ";
    char percent[8];
    std::snprintf(percent, sizeof percent, "%3d%%", static_cast<int>(std::lround(clamped * 100)));
    line += percent;
    if (!status_.empty()) line += "  " + status_;
    if (bytes_ > 0) line += "  " + formatBytes(bytes_);
    if (line == lastLine_) return;
    lastLine_ = line;
    if (redraw_) {
      *out_ << "\r\033[K" << line << std::flush;
      openLine_ = true;
    } else {
      *out_ << line << "\n" << std::flush;
    }
  }
  void endLine() {
    if (out_ && openLine_) *out_ << "\n";
    openLine_ = false;
  }

  std::mutex mutex_;
  std::ostream* out_;  // guarded by mutex_; null once detached
  bool redraw_;
  bool openLine_ = false;
  bool closed_ = false;
  double progress_ = 0;
  std::uint64_t bytes_ = 0;  // of the current file
  std::string status_;
  std::string lastLine_;
};

}  // namespace

std::optional<std::string> windowDisplayProblem(
    const std::function<const char*(const char*)>& env) {
  auto isSet = [&env](const char* name) {
    const char* value = env(name);
    return value && *value;
  };
  const char* platforms = env("QT_QPA_PLATFORM");
  if (!platforms || !*platforms) {
    if (isSet("DISPLAY") || isSet("WAYLAND_DISPLAY")) return std::nullopt;
    return std::string(
        "no display for the update window: neither DISPLAY nor WAYLAND_DISPLAY is set "
        "(QT_QPA_PLATFORM=offscreen runs it without one)");
  }
  for (const std::string& entry : split(platforms, ";")) {
    const std::string name = entry.substr(0, entry.find(':'));
    if (name == "xcb") {
      if (isSet("DISPLAY")) return std::nullopt;
    } else if (name.starts_with("wayland")) {
      if (isSet("WAYLAND_DISPLAY")) return std::nullopt;
    } else if (!name.empty()) {
      // offscreen, minimal, vnc, linuxfb, eglfs, ...: no display server, or
      // one this check cannot judge.
      return std::nullopt;
    }
  }
  return "no display for the update window: QT_QPA_PLATFORM=" + std::string(platforms) +
         " needs DISPLAY (xcb) or WAYLAND_DISPLAY (wayland), and neither is set";
}

int exitStatusForOutcome(std::int64_t outcome) {
  switch (outcome) {
    case UpdateStatusDone:
      return kUpdateExitDone;
    case UpdateStatusCancelled:
      return kUpdateExitCancelled;
    case UpdateStatusPending:
      return kUpdateExitNoNetwork;
    default:
      return kUpdateExitFailed;
  }
}

int runTerminalUpdate(const TerminalUpdateRequest& request, std::ostream& out) {
  // The settings object exists before the run, as the window makes sure.
  (void)CVUserDefaults::standardUserDefaults();
  UpdateOptions options = request.options;
  if (request.server) options.listServer = "http://" + *request.server;
  if (request.verifyKey) options.trustedKey = request.verifyKey;
  // A terminal never writes an error page over a list, key or not.
  options.requireReadableLists = true;
  auto view = std::make_shared<TerminalView>(out, request.redraw);
  auto run = UpdateRun::create(view, std::move(options));
  run->setIsWebQuarvel(request.web);
  run->setUpdateStatus(UpdateStatusPending);
  view->setStatusText(UpdateRun::kCheckingNetworkText);
  if (!run->isNetworkEnable()) {
    view->printAlert(UpdateRun::kNoNetworkMessage, UpdateRun::kNoNetworkInformative);
    view->detach();
    return kUpdateExitNoNetwork;
  }

  run->start();
  while (!view->closed() && !run->waitUntilFinished(std::chrono::milliseconds(50))) {
    if (request.interrupted && request.interrupted()) {
      run->cancel();
      break;
    }
  }
  const std::int64_t outcome = run->updateStatus();
  if (outcome == UpdateStatusCancelled) view->printLine(kCancelledText);
  view->detach();
  return exitStatusForOutcome(outcome);
}

}  // namespace quarvel::cli
