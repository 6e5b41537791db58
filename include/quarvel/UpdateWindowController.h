#pragma once
/// @file
/// The modal data update window (Qt Widgets). Loading the window checks the
/// internet connection and starts the download run on a worker thread; the
/// window shows the run's status text and progress, alerts the outcome and
/// closes itself. Closing it during the run cancels the run.
///
/// Threads: create, show and destroy it on the GUI thread. The worker's
/// status and progress reach the window as queued calls; the outcome alert
/// runs on the GUI thread while the worker waits for it. A worker still
/// finishing a transfer after the window closed keeps the run alive and
/// reports to nothing once the window is destroyed.

#include <QDialog>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "quarvel/CheckListUpdateProtocol.h"
#include "quarvel/UpdateRun.h"

class QLabel;
class QProgressBar;

namespace Ui {
class UpdateWindowController;
}

namespace quarvel {

class UpdateWindowBridge;

class UpdateWindowController : public QDialog, public CheckListUpdateProtocol {
  Q_OBJECT

 public:
  /// For the default settings object (edition flag false).
  UpdateWindowController();
  /// For the edition `isLite`; makes sure its settings object exists.
  /// `options` chooses the servers and the timing (tests use loopback).
  explicit UpdateWindowController(bool isLite, UpdateOptions options = UpdateOptions::defaults(),
                                  QWidget* parent = nullptr);
  ~UpdateWindowController() override;

  /// CheckListUpdateProtocol
  std::int64_t showWindow() override;
  void isWebQuarvelCheck() override;
  void setDelegate(void* delegate) override;

  void* delegate() const { return _delegate; }
  QLabel* statusTextField() const;
  QProgressBar* downloadProgressBar() const;
  /// The progress bar's value, 0.0 to 1.0.
  double downloadProgress() const;
  bool isListVersion() const;
  void setIsListVersion(bool value);
  bool isWebQuarvel() const;
  void setIsWebQuarvel(bool value);
  std::int64_t updateStatus() const;
  bool bRun() const;
  /// The run behind the window (its flag, outcome and worker).
  const std::shared_ptr<UpdateRun>& run() const { return run_; }

  /// Prepares the display and starts the run, or alerts that there is no
  /// network and closes the window a moment later. showWindow calls it once.
  void windowDidLoad();
  /// Cancels a run under way and ends the modal session.
  void windowWillClose();
  /// Closes the window after the pause and ends the modal session.
  void closeWindow();
  /// The outcome alert: title "Quarvel", the informative text of `code`
  /// (none for an unknown code), one button "확인", warning icon. Modal;
  /// returns once dismissed.
  void errorAlert(const std::string& code);

  /// The run's operations, on the calling thread.
  void updateKeyFile();
  std::optional<DownloadError> downloadKeyFile(std::int64_t index);
  std::optional<DownloadError> downloadWindowsKeyFiles();
  bool isNetworkEnable();

 public slots:
  void reject() override;

 private:
  friend class UpdateWindowBridge;
  void setStatusText(const QString& text);
  void setProgress(double value);

  std::unique_ptr<Ui::UpdateWindowController> ui_;
  std::shared_ptr<UpdateWindowBridge> bridge_;
  std::shared_ptr<UpdateRun> run_;
  void* _delegate = nullptr;
  bool loaded_ = false;
};

}  // namespace quarvel
