#include "quarvel/UpdateRun.h"

#include <curl/curl.h>
#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <limits>
#include <thread>

#include "common/FileReplacement.h"
#include "common/HttpClient.h"
#include "common/Log.h"
#include "common/Platform.h"
#include "common/StringUtil.h"
#include "datafiles/DataFileKind.h"
#include "format/DataFileFormat.h"
#include "format/Signature.h"
#include "quarvel/CVUserDefaults.h"
#include "quarvel/Reachability.h"

#ifndef QUARVEL_LIST_SERVER_HOST
#define QUARVEL_LIST_SERVER_HOST "lists.quarvel.example"
#endif
#ifndef QUARVEL_FILE_SERVER_HOST
#define QUARVEL_FILE_SERVER_HOST "files.quarvel.example"
#endif
#ifndef QUARVEL_WINDOWS_SERVER_HOST
#define QUARVEL_WINDOWS_SERVER_HOST "winpkg.quarvel.example"
#endif

namespace quarvel {
namespace {

using PathGetter = std::optional<std::string> (CVUserDefaults::*)() const;

// One row of the file table. No endpoint sends the request to the fixed file
// server; no log format writes no line. `kind` is the class that reads a
// list (rows without an endpoint are no list).
struct FileRow {
  PathGetter localPath;
  const char* statusText;
  const datafile::ListEndpoint* list;
  const char* logFormat;
  datafile::DataFileKind kind;
};

using datafile::DataFileKind;
const FileRow kFileTable[] = {
    {&CVUserDefaults::verFilePath, "버전 체크 중입니다.", nullptr, nullptr,
     DataFileKind::CheckList},
    {&CVUserDefaults::checkListFilePath, "체크리스트 DB를 업데이트 중입니다.",
     &datafile::kListEndpoints[0], "체크리스트 : %s", DataFileKind::CheckList},
    {&CVUserDefaults::packageFilePath, "패키지 DB를 업데이트 중입니다.",
     &datafile::kListEndpoints[1], "패키지 : %s", DataFileKind::Package},
    {&CVUserDefaults::filterFilePath, "필터 DB를 업데이트 중입니다.", &datafile::kListEndpoints[2],
     "필터 : %s", DataFileKind::Filter},
    {&CVUserDefaults::userCheckListFilePath, "유저 체크 리스트 DB를 업데이트 중입니다.",
     &datafile::kListEndpoints[3], "유저 체크리스트 : %s", DataFileKind::CheckList},
    {&CVUserDefaults::fontListFilePath, "폰트리스트 DB를 업데이트 중입니다.",
     &datafile::kListEndpoints[4], "폰트리스트 : %s", DataFileKind::Font},
};
constexpr std::int64_t kFileTableSize = sizeof(kFileTable) / sizeof(kFileTable[0]);

// Where file `index` of the table is kept; "" outside the table.
std::string localPathOf(const CVUserDefaults& settings, std::int64_t index) {
  if (index < 0 || index >= kFileTableSize) return "";
  return (settings.*kFileTable[index].localPath)().value_or("");
}

// A setting as "%@" prints it: text as it stands, numbers in decimal,
// nothing as "(null)".
std::string describe(const std::optional<PlistValue>& value) {
  if (!value || value->isNone()) return "(null)";
  if (const std::string* text = value->asString()) return *text;
  if (value->kind() == PlistValue::Kind::Real) {
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%g", value->doubleValue());
    return buffer;
  }
  if (value->isNumber()) return std::to_string(value->integerValue());
  return "(null)";
}

std::string localDayOfMonth() {
  std::time_t now = std::chrono::system_clock::to_time_t(Platform::current()->wallNow());
  std::tm local{};
  localtime_r(&now, &local);
  char day[8];
  std::snprintf(day, sizeof day, "%.2d", local.tm_mday);
  return day;
}

// Earlier versions of the run wrote each file through a temporary made by
// mkstemp beside it, ".<name>.XXXXXX" with mode 0644, and a run killed
// before its rename left that behind for good. This removes such leftovers
// of `localPath`, and only what can have been one: a regular file (not a
// link) of this user, mode 0644, with six letters or digits after the name,
// not all of them lower-case (a word such as ".backup" is more likely a
// person's), untouched for a minute (so a run of an old version still going
// keeps its file). Today's temporaries have another form, which
// FileReplacement clears itself.
void removeOldRunTemporaries(const std::string& localPath) {
  constexpr std::size_t kRandomLength = 6;
  constexpr time_t kQuietSeconds = 60;
  const std::string name = lastPathComponent(localPath);
  if (name.empty() || name == "/") return;
  std::string folder = deletingLastPathComponent(localPath);
  if (folder.empty()) folder = ".";
  const std::string prefix = "." + name + ".";

  const int folderFd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (folderFd < 0) return;
  const int scanFd = ::dup(folderFd);
  DIR* dir = scanFd < 0 ? nullptr : ::fdopendir(scanFd);
  if (!dir) {
    if (scanFd >= 0) ::close(scanFd);
    ::close(folderFd);
    return;
  }
  const time_t now = std::chrono::system_clock::to_time_t(Platform::current()->wallNow());
  while (const dirent* entry = ::readdir(dir)) {
    const std::string_view candidate(entry->d_name);
    if (candidate.size() != prefix.size() + kRandomLength || !candidate.starts_with(prefix))
      continue;
    const std::string_view random = candidate.substr(prefix.size());
    bool alphanumeric = true, allLower = true;
    for (char c : random) {
      const bool lower = c >= 'a' && c <= 'z';
      alphanumeric = alphanumeric && (lower || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9'));
      allLower = allLower && lower;
    }
    if (!alphanumeric || allLower) continue;
    struct stat info {};
    if (::fstatat(folderFd, entry->d_name, &info, AT_SYMLINK_NOFOLLOW) != 0 ||
        !S_ISREG(info.st_mode) || info.st_uid != ::geteuid() || (info.st_mode & 07777) != 0644 ||
        now - info.st_mtime < kQuietSeconds)
      continue;
    if (::unlinkat(folderFd, entry->d_name, 0) == 0)
      logf("removed %s/%s, left by an earlier run", folder.c_str(), entry->d_name);
  }
  ::closedir(dir);
  ::close(folderFd);
}

// libcurl's receive buffer: larger pieces mean fewer writes for big lists.
constexpr long kReceiveBuffer = 512 * 1024;
// Reports the bytes received at most this often.
constexpr auto kReportInterval = std::chrono::milliseconds(100);

HttpExchange::Options exchangeOptions(std::chrono::milliseconds timeout,
                                      std::chrono::milliseconds limit, std::uint64_t ceiling) {
  HttpExchange::Options options;
  options.idleTimeout = timeout;
  options.totalLimit = limit;
  options.maxBodyBytes = ceiling;
  options.headers = {"Cache-Control: no-cache", "Pragma: no-cache"};
  options.receiveBuffer = kReceiveBuffer;
  return options;
}

// One synchronous GET whose body replaces `localPath` as it arrives; none of
// it is kept here. Nothing is cached on this side; the request also asks
// caches on the way not to answer from theirs. The HTTP status is not looked
// at: any body that arrives is the answer. `timeout` is an idle time-out;
// `limit` bounds the whole transfer and `ceiling` the body's size. The new
// file is put in place only when the transfer completed; otherwise the old
// one stays. Whether it could be written is not part of the answer.
std::optional<DownloadError> httpGet(const std::string& url, const std::string& localPath,
                                     std::chrono::milliseconds timeout,
                                     std::chrono::milliseconds limit, std::uint64_t ceiling,
                                     UpdateView* view) {
  // Opened with the first byte, so that a transfer that brings none leaves
  // the folder untouched. One that cannot be opened (an empty path, a
  // missing folder) has logged why; the bytes are then dropped. A failed
  // write abandons the replacement, which then refuses every later write:
  // the rest of the body is received and dropped, and the old file stays.
  std::optional<FileReplacement> file;
  std::uint64_t received = 0;
  const std::shared_ptr<Platform> platform = Platform::current();
  std::chrono::steady_clock::time_point lastReport{};
  HttpExchange exchange(url, exchangeOptions(timeout, limit, ceiling), [&](std::string_view piece) {
    received += piece.size();
    if (!file) file.emplace(localPath);
    if (file->isOpen()) (void)file->write(piece.data(), piece.size());
    if (view) {
      const auto now = platform->steadyNow();
      if (now - lastReport >= kReportInterval) {
        lastReport = now;
        view->setBytesReceived(received);
      }
    }
    return true;
  });
  CURLcode code = static_cast<CURLcode>(platform->performHttp(exchange));
  if (exchange.overCeiling()) code = CURLE_FILESIZE_EXCEEDED;
  if (view) view->setBytesReceived(received);
  if (code == CURLE_OK) {
    // A failed write goes unnoticed, as the run has always done; the old
    // file then stays whole.
    if (!file) file.emplace(localPath);  // an empty body
    (void)file->commit();
    return std::nullopt;
  }
  if (file) file->abandon();
  if (exchange.overCeiling()) {
    logf("download of %s ended: the body passed %llu bytes", url.c_str(),
         static_cast<unsigned long long>(ceiling));
  }
  return DownloadError{code, exchange.describe(code)};
}

// What a body must pass before it replaces its file.
struct BodyChecks {
  std::optional<signing::PublicKey> key;       // verifies `signature`
  std::string signature;                       // the signature file's text
  std::optional<datafile::DataFileKind> kind;  // opens as this kind
};

// A body held in an anonymous memory file until it has passed its checks:
// as bytes (mapped) for the signature, by a path for the data-file reader.
class StagedBody {
 public:
  StagedBody() : fd_(::memfd_create("quarvel-download", MFD_CLOEXEC)) {}
  ~StagedBody() {
    if (map_) ::munmap(map_, size_);
    if (fd_ >= 0) ::close(fd_);
  }
  StagedBody(const StagedBody&) = delete;
  StagedBody& operator=(const StagedBody&) = delete;

  bool append(std::string_view piece) {
    while (fd_ >= 0 && !piece.empty()) {
      const ssize_t written = ::write(fd_, piece.data(), piece.size());
      if (written < 0 && errno == EINTR) continue;
      if (written <= 0) return false;
      piece.remove_prefix(static_cast<std::size_t>(written));
      size_ += static_cast<std::size_t>(written);
    }
    return fd_ >= 0;
  }
  // The whole body; nothing when it cannot be mapped.
  std::optional<std::string_view> bytes() {
    if (fd_ < 0) return std::nullopt;
    if (size_ == 0) return std::string_view();
    if (!map_) {
      void* map = ::mmap(nullptr, size_, PROT_READ, MAP_PRIVATE, fd_, 0);
      if (map == MAP_FAILED) return std::nullopt;
      map_ = map;
    }
    return std::string_view(static_cast<const char*>(map_), size_);
  }
  std::string path() const { return "/proc/self/fd/" + std::to_string(fd_); }

 private:
  int fd_;
  void* map_ = nullptr;
  std::size_t size_ = 0;
};

// A GET whose body is staged, checked, and only then replaces `localPath`;
// answers as httpGet does, or a refusal when a check fails (logged).
std::optional<DownloadError> httpGetChecked(const std::string& url, const std::string& localPath,
                                            std::chrono::milliseconds timeout,
                                            std::chrono::milliseconds limit, std::uint64_t ceiling,
                                            UpdateView* view, const BodyChecks& checks) {
  StagedBody staged;
  std::uint64_t received = 0;
  const std::shared_ptr<Platform> platform = Platform::current();
  std::chrono::steady_clock::time_point lastReport{};
  HttpExchange exchange(url, exchangeOptions(timeout, limit, ceiling), [&](std::string_view piece) {
    received += piece.size();
    if (view) {
      const auto now = platform->steadyNow();
      if (now - lastReport >= kReportInterval) {
        lastReport = now;
        view->setBytesReceived(received);
      }
    }
    return staged.append(piece);
  });
  CURLcode code = static_cast<CURLcode>(platform->performHttp(exchange));
  if (exchange.overCeiling()) code = CURLE_FILESIZE_EXCEEDED;
  if (view) view->setBytesReceived(received);
  if (code != CURLE_OK) return DownloadError{code, exchange.describe(code)};

  const std::optional<std::string_view> body = staged.bytes();
  if (!body) return DownloadError{CURLE_WRITE_ERROR, "the received body could not be held"};
  if (checks.key && !signing::verify(*checks.key, *body, checks.signature)) {
    logf("download of %s refused: no signature by the trusted key", url.c_str());
    return DownloadError{DownloadRefusedSignature, "the signature does not verify"};
  }
  if (checks.kind && !datafile::makeDataFile(*checks.kind)->openWithFileName(staged.path(), true)) {
    logf("download of %s refused: not a readable %s file", url.c_str(),
         std::string(datafile::dataFileKindName(*checks.kind)).c_str());
    return DownloadError{DownloadRefusedUnreadable, "not a readable data file"};
  }
  // As with an unchecked body, a failed write goes unnoticed.
  (void)FileReplacement::replace(localPath, *body);
  return std::nullopt;
}

// A small body (a signature file) into memory; a body longer than `ceiling`
// fails the transfer.
std::optional<DownloadError> httpGetText(const std::string& url, std::chrono::milliseconds timeout,
                                         std::chrono::milliseconds limit, std::uint64_t ceiling,
                                         std::string& text) {
  text.clear();
  HttpExchange exchange(url, exchangeOptions(timeout, limit, ceiling), [&](std::string_view piece) {
    text.append(piece);
    return true;
  });
  CURLcode code = static_cast<CURLcode>(Platform::current()->performHttp(exchange));
  if (exchange.overCeiling()) code = CURLE_FILESIZE_EXCEEDED;
  if (code == CURLE_OK) return std::nullopt;
  return DownloadError{code, exchange.describe(code)};
}

}  // namespace

UpdateOptions UpdateOptions::defaults() {
  UpdateOptions options;
  options.listServer = std::string("http://") + QUARVEL_LIST_SERVER_HOST;
  options.fileServer = std::string("http://") + QUARVEL_FILE_SERVER_HOST + ":8080";
  options.windowsPackageServer = std::string("http://") + QUARVEL_WINDOWS_SERVER_HOST +
                                 std::string(datafile::kWindowsPackagePath);
  return options;
}

std::optional<std::string> UpdateRun::alertInformativeText(const std::string& code) {
  if (code == "DOWNLOAD_FAIL") return "DB 업데이트 도중 오류가 발생하였습니다.";
  if (code == "DB_LATEST_VERSION")
    return "이미 최신버전을 사용중입니다.\n업데이트 할 항목이 없습니다.";
  if (code == "DOWNLOAD_DONE") return std::string(kDoneText);
  return std::nullopt;
}

std::shared_ptr<UpdateRun> UpdateRun::create(std::shared_ptr<UpdateView> view,
                                             UpdateOptions options) {
  return std::shared_ptr<UpdateRun>(new UpdateRun(std::move(view), std::move(options)));
}

UpdateRun::UpdateRun(std::shared_ptr<UpdateView> view, UpdateOptions options)
    : view_(std::move(view)), options_(std::move(options)) {}

UpdateRun::~UpdateRun() = default;

bool UpdateRun::isNetworkEnable() {
  if (options_.networkCheck) return options_.networkCheck();
  auto monitor = Reachability::reachabilityForInternetConnection();
  return monitor && monitor->currentReachabilityStatus() != ReachabilityNone;
}

void UpdateRun::start() {
  bRun_.store(true);
  {
    std::lock_guard lock(workerMutex_);
    workerRunning_ = true;
  }
  std::thread([self = shared_from_this()] {
    self->updateKeyFile();
    self->finishWorker();
  }).detach();
}

bool UpdateRun::cancel() {
  if (!bRun_.load()) return false;
  std::int64_t pending = UpdateStatusPending;
  if (!updateStatus_.compare_exchange_strong(pending, UpdateStatusCancelled)) return false;
  bRun_.store(false);
  return true;
}

void UpdateRun::finishWorker() {
  std::lock_guard lock(workerMutex_);
  workerRunning_ = false;
  workerEnded_.notify_all();
}

bool UpdateRun::waitUntilFinished(std::chrono::milliseconds timeout) {
  std::unique_lock lock(workerMutex_);
  return workerEnded_.wait_for(lock, timeout, [this] { return !workerRunning_; });
}

void UpdateRun::pause() const { std::this_thread::sleep_for(options_.pacing); }

void UpdateRun::updateKeyFile() {
  // The day is taken when the run starts, so a run that crosses midnight
  // records the day it began.
  const std::string day = options_.dayOfMonth ? options_.dayOfMonth() : localDayOfMonth();
  CVUserDefaults* settings = CVUserDefaults::standardUserDefaultsWithisLiteVer(_isListVersion);
  // Read but not consulted: every run fetches all five files.
  (void)settings->lastUpdateDate();

  auto stopCancelled = [this] { updateStatus_.store(UpdateStatusCancelled); };
  std::optional<DownloadError> failure;
  for (std::int64_t index = 1; index <= 5; ++index) {
    if (!bRun_.load()) return stopCancelled();
    // Once per file, not per attempt: a scan of the folder each time.
    removeOldRunTemporaries(localPathOf(*settings, index));
    for (int attempt = 1; attempt <= 5; ++attempt) {
      std::optional<DownloadError> error = downloadKeyFile(index);
      if (!error) break;
      if (attempt == 5) {
        failure = std::move(error);
        break;
      }
      if (!bRun_.load()) return stopCancelled();
    }
    if (!bRun_.load()) return stopCancelled();
    pause();
    if (failure) break;
  }
  if (!bRun_.load()) return stopCancelled();

  if (!failure) {
    updateStatus_.store(UpdateStatusDone);
    settings->setUpdated(PlistValue::string(day));
    view_->setProgress(1.0);
    view_->setStatusText(kDoneText);
    view_->errorAlert("DOWNLOAD_DONE");
  } else {
    updateStatus_.store(UpdateStatusFailed);
    view_->errorAlert("DOWNLOAD_FAIL");
  }
  pause();
  view_->close();
}

std::optional<DownloadError> UpdateRun::downloadKeyFile(std::int64_t index) {
  CVUserDefaults* settings = CVUserDefaults::standardUserDefaultsWithisLiteVer(_isListVersion);
  const bool inTable = index >= 0 && index < kFileTableSize;
  const FileRow* row = inTable ? &kFileTable[index] : nullptr;
  const std::string localPath = localPathOf(*settings, index);

  std::string url;
  if (row && row->list) {
    if (_isWebQuarvel) {
      // The configured address goes in as it stands; it may carry a port.
      std::string address = describe(CVUserDefaults::standardUserDefaults()->webQuarvelIPAddress());
      url = "http://" + address + std::string(datafile::kDownloadEndpoint) +
            std::string(datafile::kKeyFileQuery) + std::string(row->list->fileName);
    } else {
      url = options_.listServer + std::string(row->list->publicPath);
    }
  }

  view_->setStatusText(row ? row->statusText : "");
  if (row && row->logFormat) {
    if (!_isWebQuarvel)
      logf(row->logFormat, url.c_str());
    else if (index == 1)
      logf("WebQuarvel : %s", url.c_str());
  }
  if (url.empty())
    url = options_.fileServer + std::string(datafile::kDownloadEndpoint) +
          std::string(datafile::kFileQuery) + lastPathComponent(localPath);

  view_->setBytesReceived(0);
  const int kind = row && row->list ? static_cast<int>(row->kind) : -1;
  if (auto error = fetch(url, localPath, options_.dataFileTimeout, kind, view_.get())) return error;
  view_->setProgress(static_cast<double>(index + 1) / 6.0);
  return std::nullopt;
}

std::optional<DownloadError> UpdateRun::fetch(const std::string& url, const std::string& localPath,
                                              std::chrono::milliseconds timeout, int kind,
                                              UpdateView* view) {
  // The run's key, else the one in the settings.
  std::optional<std::string> keyText = options_.trustedKey;
  if (!keyText) {
    if (auto setting = CVUserDefaults::standardUserDefaults()->trustedListKey()) {
      const std::string* text = setting->asString();
      keyText = text ? *text : std::string();
    }
  }
  BodyChecks checks;
  if (keyText) {
    checks.key = signing::parsePublicKey(*keyText);
    if (!checks.key) {
      logf("the trusted list key is not a public key file's text; %s is not fetched", url.c_str());
      return DownloadError{DownloadRefusedKey, "the trusted key cannot be read"};
    }
  }
  if (kind >= 0 && (checks.key || options_.requireReadableLists))
    checks.kind = static_cast<datafile::DataFileKind>(kind);
  if (!checks.key && !checks.kind)
    return httpGet(url, localPath, timeout, options_.transferLimit, options_.maxFileBytes, view);

  if (checks.key) {
    if (auto error = httpGetText(datafile::signatureUrl(url), timeout, options_.transferLimit,
                                 signing::kMaxSignatureFileBytes, checks.signature))
      return error;
  }
  // The reader takes no more than the cipher can count.
  const std::uint64_t ceiling =
      std::min<std::uint64_t>(options_.maxFileBytes, datafile::kMaxFileBytes);
  return httpGetChecked(url, localPath, timeout, options_.transferLimit, ceiling, view, checks);
}

std::optional<DownloadError> UpdateRun::downloadWindowsKeyFiles() {
  CVUserDefaults* settings = CVUserDefaults::standardUserDefaultsWithisLiteVer(_isListVersion);
  const std::string localPath = settings->windowPackageFilePath().value_or("");
  view_->setStatusText("윈도우즈용 패키지 파일을 다운로드중입니다.");
  const std::string url = options_.windowsPackageServer + "/" + lastPathComponent(localPath);
  removeOldRunTemporaries(localPath);
  return fetch(url, localPath, options_.windowsFileTimeout, -1, nullptr);
}

}  // namespace quarvel
