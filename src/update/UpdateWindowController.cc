#include "quarvel/UpdateWindowController.h"

#include <QCloseEvent>
#include <QLabel>
#include <QMessageBox>
#include <QProgressBar>
#include <QPushButton>
#include <QTimer>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>

#include "quarvel/CVUserDefaults.h"
#include "ui_UpdateWindowController.h"

namespace quarvel {

// The run's view. The worker only queues calls here, under this object's own
// lock; the window drains the queue on its thread from a short timer, so no
// toolkit object is touched from the worker. When the window is destroyed
// the bridge detaches: later calls are dropped and a waiting alert is
// released.
class UpdateWindowBridge : public UpdateView {
 public:
  using Call = std::function<void(UpdateWindowController*)>;

  explicit UpdateWindowBridge(UpdateWindowController* window) : window_(window) {}

  void detach() {
    std::lock_guard lock(mutex_);
    window_ = nullptr;
    calls_.clear();
    changed_.notify_all();
  }

  // Runs the queued calls in order; on the window's thread.
  void drain() {
    for (;;) {
      Call call;
      UpdateWindowController* window;
      {
        std::lock_guard lock(mutex_);
        if (!window_ || calls_.empty()) return;
        call = std::move(calls_.front());
        calls_.pop_front();
        window = window_;
      }
      // Popped before it runs: an alert's nested event loop may drain again.
      call(window);
    }
  }

  void setStatusText(const std::string& text) override {
    post([text](UpdateWindowController* w) { w->setStatusText(QString::fromStdString(text)); });
  }
  void setProgress(double value) override {
    post([value](UpdateWindowController* w) { w->setProgress(value); });
  }
  void close() override {
    post([](UpdateWindowController* w) { w->close(); });
  }
  void errorAlert(const std::string& code) override {
    std::unique_lock lock(mutex_);
    if (!window_) return;
    const std::uint64_t ticket = ++alertsPosted_;
    calls_.push_back([this, code, ticket](UpdateWindowController* w) {
      w->errorAlert(code);
      std::lock_guard done(mutex_);
      if (ticket > alertsDismissed_) alertsDismissed_ = ticket;
      changed_.notify_all();
    });
    changed_.wait(lock, [&] { return alertsDismissed_ >= ticket || window_ == nullptr; });
  }

 private:
  void post(Call call) {
    std::lock_guard lock(mutex_);
    if (window_) calls_.push_back(std::move(call));
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  UpdateWindowController* window_;     // guarded by mutex_
  std::deque<Call> calls_;             // guarded by mutex_
  std::uint64_t alertsPosted_ = 0;     // guarded by mutex_
  std::uint64_t alertsDismissed_ = 0;  // guarded by mutex_
};

namespace {
constexpr int kProgressScale = 1000;
// How often the window picks up the worker's updates.
constexpr std::chrono::milliseconds kBridgeInterval{15};
}  // namespace

UpdateWindowController::UpdateWindowController() : UpdateWindowController(false) {
  // The plain constructor belongs to the default settings object.
  CVUserDefaults::standardUserDefaults();
}

UpdateWindowController::UpdateWindowController(bool isLite, UpdateOptions options, QWidget* parent)
    : QDialog(parent), ui_(std::make_unique<Ui::UpdateWindowController>()) {
  ui_->setupUi(this);
  bridge_ = std::make_shared<UpdateWindowBridge>(this);
  auto* pump = new QTimer(this);
  pump->setInterval(kBridgeInterval);
  connect(pump, &QTimer::timeout, this, [this] { bridge_->drain(); });
  pump->start();
  run_ = UpdateRun::create(bridge_, std::move(options));
  setIsListVersion(isLite);
  CVUserDefaults::standardUserDefaultsWithisLiteVer(isLite);
}

UpdateWindowController::~UpdateWindowController() { bridge_->detach(); }

std::int64_t UpdateWindowController::showWindow() {
  if (!loaded_) windowDidLoad();
  exec();
  return run_->updateStatus();
}

void UpdateWindowController::isWebQuarvelCheck() { setIsWebQuarvel(true); }
void UpdateWindowController::setDelegate(void* delegate) { _delegate = delegate; }

QLabel* UpdateWindowController::statusTextField() const { return ui_->statusTextField; }
QProgressBar* UpdateWindowController::downloadProgressBar() const {
  return ui_->downloadProgressBar;
}
double UpdateWindowController::downloadProgress() const {
  return static_cast<double>(ui_->downloadProgressBar->value()) / kProgressScale;
}
bool UpdateWindowController::isListVersion() const { return run_->isListVersion(); }
void UpdateWindowController::setIsListVersion(bool value) { run_->setIsListVersion(value); }
bool UpdateWindowController::isWebQuarvel() const { return run_->isWebQuarvel(); }
void UpdateWindowController::setIsWebQuarvel(bool value) { run_->setIsWebQuarvel(value); }
std::int64_t UpdateWindowController::updateStatus() const { return run_->updateStatus(); }
bool UpdateWindowController::bRun() const { return run_->bRun(); }

void UpdateWindowController::setStatusText(const QString& text) {
  ui_->statusTextField->setText(text);
}

void UpdateWindowController::setProgress(double value) {
  ui_->downloadProgressBar->setValue(static_cast<int>(std::lround(value * kProgressScale)));
}

void UpdateWindowController::windowDidLoad() {
  loaded_ = true;
  run_->setUpdateStatus(UpdateStatusPending);
  ui_->downloadProgressBar->setRange(0, kProgressScale);
  ui_->downloadProgressBar->setValue(0);
  setStatusText(QString::fromUtf8(UpdateRun::kCheckingNetworkText));
  if (isNetworkEnable()) {
    run_->start();
    return;
  }
  QMessageBox alert;
  alert.setIcon(QMessageBox::Warning);
  alert.setWindowTitle(QString::fromUtf8(UpdateRun::kAlertTitle));
  alert.setText(QString::fromUtf8(UpdateRun::kNoNetworkMessage));
  alert.setInformativeText(QString::fromUtf8(UpdateRun::kNoNetworkInformative));
  alert.addButton(QString::fromUtf8(UpdateRun::kAlertButton), QMessageBox::AcceptRole);
  alert.exec();
  closeWindow();
}

void UpdateWindowController::windowWillClose() {
  run_->cancel();
  QDialog::done(QDialog::Rejected);
}

void UpdateWindowController::reject() {
  // Every way of closing the dialog (close button, Escape, close()) lands
  // here.
  windowWillClose();
}

void UpdateWindowController::closeWindow() {
  QTimer::singleShot(run_->options().pacing, this, [this] {
    close();
    QDialog::done(QDialog::Rejected);
  });
}

void UpdateWindowController::errorAlert(const std::string& code) {
  QMessageBox alert(this);
  alert.setIcon(QMessageBox::Warning);
  alert.setWindowTitle(QString::fromUtf8(UpdateRun::kAlertTitle));
  alert.setText(QString::fromUtf8(UpdateRun::kAlertTitle));
  if (auto text = UpdateRun::alertInformativeText(code)) {
    alert.setInformativeText(QString::fromStdString(*text));
  }
  alert.addButton(QString::fromUtf8(UpdateRun::kAlertButton), QMessageBox::AcceptRole);
  alert.exec();
}

void UpdateWindowController::updateKeyFile() { run_->updateKeyFile(); }
std::optional<DownloadError> UpdateWindowController::downloadKeyFile(std::int64_t index) {
  return run_->downloadKeyFile(index);
}
std::optional<DownloadError> UpdateWindowController::downloadWindowsKeyFiles() {
  return run_->downloadWindowsKeyFiles();
}
bool UpdateWindowController::isNetworkEnable() { return run_->isNetworkEnable(); }

}  // namespace quarvel
