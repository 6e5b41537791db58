#pragma once
/// @file
/// The data update run: fetches the five data files over HTTP, one after
/// another with up to five attempts each, writes each over its local copy in
/// the work folder, reports status text and progress to an UpdateView, and
/// on success records the day of the update in the settings.
///
/// A run is driven by whoever shows it (the update window, the terminal
/// tool): start() sets the run flag and starts one detached worker thread on
/// updateKeyFile(); cancel() is what closing the window does. The run flag
/// and the outcome code are atomics shared by the worker and the caller's
/// thread; everything else is set before start().

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "quarvel/UpdateView.h"

namespace quarvel {

/// Outcome codes of an update run.
enum : std::int64_t {
  UpdateStatusPending = -200,    ///< not finished, or never started (no network)
  UpdateStatusCancelled = -100,  ///< the window was closed during the run
  UpdateStatusFailed = -1,       ///< a file failed five attempts in a row
  UpdateStatusDone = 0,          ///< all five files written
};

/// A transfer that did not complete (no connection, time-out, bad host), or
/// a body that arrived and was refused by the checks a trusted key turns on
/// (UpdateOptions::trustedKey). An HTTP error status is not one: unless
/// checked, its body is written like any other.
struct DownloadError {
  int code = 0;         ///< the transfer library's code, or a refusal below
  std::string message;  ///< readable description
};

/// DownloadError codes of a refused body; no transfer library code is one.
enum : int {
  DownloadRefusedSignature = 1001,   ///< no signature, or one the trusted key does not verify
  DownloadRefusedUnreadable = 1002,  ///< not a readable data file of its kind
  DownloadRefusedKey = 1003,         ///< the trusted key that is set cannot be read
};

/// Where and how the run fetches. defaults() gives the deployment's servers
/// (fixed at configure time) and the production timing; tests point the
/// servers at loopback and shorten the pauses.
struct UpdateOptions {
  std::string listServer;            ///< public list server, "http://host[:port]"
  std::string fileServer;            ///< fixed file server, "http://host:8080"
  std::string windowsPackageServer;  ///< "http://host[:port]/file/keyfile60"
  /// A transfer fails when no byte has arrived for its time-out (connecting
  /// included), as the platform's request time-out does.
  std::chrono::milliseconds dataFileTimeout{60000};
  std::chrono::milliseconds windowsFileTimeout{2000};
  /// The longest any one transfer may take however steadily bytes arrive:
  /// ends a trickle that would never finish.
  std::chrono::milliseconds transferLimit{30 * 60 * 1000};
  /// The largest body a file may have. A body that grows past it ends the
  /// attempt as a failed transfer and the old file stays: a server that
  /// streams without end cannot fill the disk or hold the run.
  std::uint64_t maxFileBytes = std::uint64_t{1} << 30;
  /// The pause after each file and before the run closes the window.
  std::chrono::milliseconds pacing{1000};
  /// Whether the network can be reached. Empty: the internet-connection
  /// monitor (Reachability::reachabilityForInternetConnection).
  std::function<bool()> networkCheck;
  /// Today's day of the month, "01" to "31". Empty: the local clock.
  std::function<std::string()> dayOfMonth;
  /// The list maintainers' public key, as its key file's text
  /// (format/Signature.h). Empty: the settings' trustedListKey, when set.
  /// With a key, every attempt also fetches the file's signature (its URL
  /// with ".sig", by the rule of datafile::signatureUrl) and a body replaces
  /// the old file only when the key verifies it and, for the five lists,
  /// when it reads as a data file of its kind; otherwise the attempt fails
  /// (DownloadRefused...) and the old file stays. A key that is set but
  /// cannot be read fails every attempt. The checked body is held in memory
  /// (an anonymous file) until it has passed.
  std::optional<std::string> trustedKey;
  /// Without a key, whether a list must still read as a data file of its
  /// kind to replace the old one. Off by default: the run writes whatever
  /// arrives.
  bool requireReadableLists = false;

  static UpdateOptions defaults();
};

class UpdateRun : public std::enable_shared_from_this<UpdateRun> {
 public:
  /// User-visible texts shared by every front end.
  static constexpr const char* kCheckingNetworkText = "인터넷 연결상태를 확인 중입니다.";
  static constexpr const char* kNoNetworkMessage = "인터넷 연결 오류";
  static constexpr const char* kNoNetworkInformative =
      "인터넷 연결 상태를 확인해 주세요.\n※체크리스트를 다운로드 하시려면 인터넷 환경을 "
      "확인하세요.";
  static constexpr const char* kDoneText = "업데이트가 완료되었습니다.";
  static constexpr const char* kAlertTitle = "Quarvel";
  static constexpr const char* kAlertButton = "확인";

  /// The informative text of the outcome alert for `code`: "DOWNLOAD_FAIL",
  /// "DB_LATEST_VERSION" and "DOWNLOAD_DONE" have one (codes compare whole
  /// and case-sensitively); any other code has none.
  static std::optional<std::string> alertInformativeText(const std::string& code);

  /// The view must stay usable until the worker has finished; it may ignore
  /// calls that arrive after its window is gone.
  static std::shared_ptr<UpdateRun> create(std::shared_ptr<UpdateView> view,
                                           UpdateOptions options = UpdateOptions::defaults());
  ~UpdateRun();
  UpdateRun(const UpdateRun&) = delete;
  UpdateRun& operator=(const UpdateRun&) = delete;

  /// Edition variant: every path and the update day come from the settings
  /// object of this variant. Set before start().
  bool isListVersion() const { return _isListVersion; }
  void setIsListVersion(bool value) { _isListVersion = value; }
  /// In-house web server variant. Set before start().
  bool isWebQuarvel() const { return _isWebQuarvel; }
  void setIsWebQuarvel(bool value) { _isWebQuarvel = value; }

  const UpdateOptions& options() const { return options_; }

  std::int64_t updateStatus() const { return updateStatus_.load(); }
  void setUpdateStatus(std::int64_t value) { updateStatus_.store(value); }
  bool bRun() const { return bRun_.load(); }

  /// True when the network check answers anything but unreachable.
  bool isNetworkEnable();

  /// Sets the run flag and starts updateKeyFile() on a detached worker thread
  /// that keeps this run alive until it ends. Call once.
  void start();
  /// What closing the window does: while the run flag is set and the outcome
  /// is still pending, clears the flag and sets the outcome to cancelled.
  /// Answers whether it did. A transfer under way is not interrupted; the
  /// worker stops at its next check.
  bool cancel();
  /// Waits until the worker started by start() has ended (true at once when
  /// none was started); false when `timeout` passed first.
  bool waitUntilFinished(std::chrono::milliseconds timeout);

  /// The worker's body: files 1 to 5 in order, five attempts each, pauses,
  /// outcome, alert and close. Runs on the calling thread.
  void updateKeyFile();
  /// Fetches and writes one file of the file table: 0 the version file, 1 the
  /// check list, 2 the package list, 3 the filter list, 4 the user check
  /// list, 5 the font check list; any other index asks the file server for an
  /// empty name and writes nowhere. Answers the transfer's error, or nothing
  /// when a body arrived (written whatever its HTTP status); with a trusted
  /// key, or readable lists required, also the refusal of a body that fails
  /// its checks (UpdateOptions::trustedKey), which leaves the old file.
  std::optional<DownloadError> downloadKeyFile(std::int64_t index);
  /// Fetches the Windows package file ("package.dat") once, with the short
  /// time-out; with a trusted key, only a body its signature vouches for
  /// replaces the old file. Not part of the run.
  std::optional<DownloadError> downloadWindowsKeyFiles();

 private:
  UpdateRun(std::shared_ptr<UpdateView> view, UpdateOptions options);
  void pause() const;
  void finishWorker();
  // Fetches `url` into `localPath` with the checks the options and the
  // settings call for; `kind` is the data-file kind of a list, or -1.
  std::optional<DownloadError> fetch(const std::string& url, const std::string& localPath,
                                     std::chrono::milliseconds timeout, int kind, UpdateView* view);

  std::shared_ptr<UpdateView> view_;
  UpdateOptions options_;
  bool _isListVersion = false;
  bool _isWebQuarvel = false;
  std::atomic<bool> bRun_{false};
  std::atomic<std::int64_t> updateStatus_{UpdateStatusPending};

  std::mutex workerMutex_;
  std::condition_variable workerEnded_;
  bool workerRunning_ = false;  ///< guarded by workerMutex_
};

}  // namespace quarvel
