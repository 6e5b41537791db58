#include "TerminalUpdate.h"

#include <chrono>
#include <cmath>
#include <memory>
#include <mutex>

#include "quarvel/common/StringUtil.h"
#include "quarvel/settings/CVUserDefaults.h"
#include "quarvel/update/Reachability.h"

namespace quarvel::cli {
namespace {

constexpr int kBarWidth = 30;
constexpr const char* kCancelledText = "업데이트가 취소되었습니다.";

// Shows the run as text. Calls come from the worker thread; once detached
// (the command has returned) they are dropped.
class TerminalView : public UpdateView {
 public:
  TerminalView(std::ostream& out, bool redraw) : out_(&out), redraw_(redraw) {}

  void setStatusText(const std::string& text) override {
    std::lock_guard lock(mutex_);
    status_ = text;
    draw();
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
  std::string status_;
  std::string lastLine_;
};

std::string textOf(const std::optional<PlistValue>& value) {
  if (value) {
    if (const std::string* text = value->asString()) return *text;
  }
  return "";
}

}  // namespace

std::string hostOfServer(const std::string& server) {
  std::string rest = server;
  if (auto scheme = rest.find("://"); scheme != std::string::npos) rest = rest.substr(scheme + 3);
  rest = rest.substr(0, rest.find('/'));
  if (!rest.empty() && rest.front() == '[') {
    auto close = rest.find(']');
    return close == std::string::npos ? rest.substr(1) : rest.substr(1, close - 1);
  }
  // A single colon separates a port; more than one is a bare IPv6 address.
  auto colon = rest.find(':');
  if (colon != std::string::npos && rest.find(':', colon + 1) == std::string::npos) {
    return rest.substr(0, colon);
  }
  return rest;
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
  CVUserDefaults* settings = CVUserDefaults::standardUserDefaults();
  UpdateOptions options = request.options;
  if (request.server) options.listServer = "http://" + *request.server;
  if (!options.networkCheck) {
    // Ask about the server that will be used, so that an in-house server on
    // a closed network counts as reachable.
    std::string host = request.web ? hostOfServer(textOf(settings->webQuarvelIPAddress()))
                                   : hostOfServer(options.listServer);
    options.networkCheck = [host] {
      auto monitor = Reachability::reachabilityWithHostName(host);
      return monitor && monitor->currentReachabilityStatus() != ReachabilityNone;
    };
  }

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
