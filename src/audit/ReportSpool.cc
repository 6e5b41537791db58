#include "audit/ReportSpool.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <nlohmann/json.hpp>
#include <thread>
#include <tuple>

#include "audit/FleetReport.h"
#include "common/FileReplacement.h"
#include "common/Log.h"
#include "common/Platform.h"
#include "format/DataFileFormat.h"
#include "quarvel/CVUserDefaults.h"
#include "quarvel/CommonLib.h"

namespace quarvel::audit {

namespace {

constexpr std::string_view kSuffix = ".json";
constexpr std::chrono::milliseconds kLeasePoll{50};

struct Stamped {
  ReportSpool::Entry entry;
  timespec stamp{};
};

bool isDirectory(const std::string& path) {
  struct stat facts {};
  return ::stat(path.c_str(), &facts) == 0 && S_ISDIR(facts.st_mode);
}

// The report files of one folder, oldest first.
std::vector<Stamped> stampedReportsIn(const std::string& folder) {
  std::vector<Stamped> found;
  DIR* dir = ::opendir(folder.c_str());
  if (!dir) return found;
  while (const dirent* item = ::readdir(dir)) {
    const std::string_view name = item->d_name;
    if (!name.ends_with(kSuffix)) continue;
    const std::string_view id = name.substr(0, name.size() - kSuffix.size());
    if (!isReportId(id)) continue;
    struct stat facts {};
    if (::fstatat(::dirfd(dir), item->d_name, &facts, AT_SYMLINK_NOFOLLOW) != 0) continue;
    Stamped s;
    s.entry = {std::string(id), folder + "/" + std::string(name),
               static_cast<std::uint64_t>(facts.st_size)};
    s.stamp = facts.st_mtim;
    found.push_back(std::move(s));
  }
  ::closedir(dir);
  std::sort(found.begin(), found.end(), [](const Stamped& a, const Stamped& b) {
    return std::tie(a.stamp.tv_sec, a.stamp.tv_nsec, a.entry.reportId) <
           std::tie(b.stamp.tv_sec, b.stamp.tv_nsec, b.entry.reportId);
  });
  return found;
}

// Drops the oldest files of `folder` until at most `count` files and
// `bytes` bytes remain.
std::size_t trimFolder(const std::string& folder, std::size_t count, std::uint64_t bytes,
                       const char* what) {
  std::vector<Stamped> files = stampedReportsIn(folder);
  std::uint64_t total = 0;
  for (const Stamped& s : files) total += s.entry.bytes;
  std::size_t left = files.size();
  std::size_t dropped = 0;
  for (const Stamped& s : files) {
    if (left <= count && total <= bytes) break;
    if (::unlink(s.entry.path.c_str()) != 0 && errno != ENOENT) {
      logWarningf("cannot drop the %s report %s: %s", what, s.entry.path.c_str(),
                  std::strerror(errno));
      continue;
    }
    logWarningf("%s reports over their bound (%zu reports, %llu bytes): dropped the oldest, %s",
                what, count, static_cast<unsigned long long>(bytes), s.entry.reportId.c_str());
    --left;
    total -= s.entry.bytes;
    ++dropped;
  }
  return dropped;
}

}  // namespace

ReportSpool::ReportSpool(std::string folder, SpoolLimits limits)
    : folder_(std::move(folder)), limits_(limits) {}

std::optional<std::string> ReportSpool::defaultFolder() {
  std::optional<std::string> checkOut = CVUserDefaults::standardUserDefaults()->checkOutPath();
  if (!checkOut) return std::nullopt;
  return *checkOut + "/Reports";
}

ReportSpool::Lease::~Lease() {
  if (fd_ >= 0) ::close(fd_);  // closing releases the flock
}

bool ReportSpool::makeFolders() const {
  CommonLib::mkdirs(rejectedFolder().c_str());
  if (isDirectory(rejectedFolder())) return true;
  logWarningf("cannot make the report spool %s: %s", folder_.c_str(), std::strerror(errno));
  return false;
}

bool ReportSpool::add(const std::string& reportId, std::string_view body) {
  if (!isReportId(reportId) || !makeFolders()) return false;
  const std::string path = folder_ + "/" + reportId + std::string(kSuffix);
  if (!FileReplacement::replace(path, body, 0600)) return false;
  // The stamp orders the spool; the file system's own clock may be too
  // coarse to tell two reports of one second apart.
  const auto now = Platform::current()->wallNow().time_since_epoch();
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(now);
  const timespec stamp{static_cast<time_t>(seconds.count()),
                       static_cast<long>((now - seconds) / std::chrono::nanoseconds(1))};
  const timespec times[2] = {stamp, stamp};
  (void)::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW);
  return true;
}

std::optional<ReportSpool::Lease> ReportSpool::lease(std::chrono::milliseconds wait) {
  if (!makeFolders()) return std::nullopt;
  const std::string path = folder_ + "/.lock";
  const int fd = Platform::current()->openAt(AT_FDCWD, path.c_str(),
                                             O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0) {
    logWarningf("cannot open %s: %s", path.c_str(), std::strerror(errno));
    return std::nullopt;
  }
  Lease held(fd);
  const auto deadline = Platform::current()->steadyNow() + wait;
  for (;;) {
    if (::flock(fd, LOCK_EX | LOCK_NB) == 0) return held;
    if (errno != EWOULDBLOCK && errno != EINTR) {
      logWarningf("cannot lock %s: %s", path.c_str(), std::strerror(errno));
      return std::nullopt;
    }
    if (Platform::current()->steadyNow() >= deadline) return std::nullopt;
    std::this_thread::sleep_for(kLeasePoll);
  }
}

std::vector<ReportSpool::Entry> ReportSpool::pending() const {
  std::vector<Entry> entries;
  for (Stamped& s : stampedReportsIn(folder_)) entries.push_back(std::move(s.entry));
  return entries;
}

std::size_t ReportSpool::trim(const Lease& /*lease*/) {
  return trimFolder(folder_, limits_.maxReports, limits_.maxBytes, "spooled");
}

std::optional<std::string> ReportSpool::read(const Lease& lease, const Entry& entry) {
  const int fd = Platform::current()->openAt(AT_FDCWD, entry.path.c_str(),
                                             O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0);
  if (fd < 0) {
    if (errno == ENOENT) return std::nullopt;
    (void)reject(lease, entry, std::string("cannot be read: ") + std::strerror(errno));
    return std::nullopt;
  }
  struct stat facts {};
  std::string body;
  std::string fault;
  if (::fstat(fd, &facts) != 0 || !S_ISREG(facts.st_mode)) {
    fault = "not a regular file";
  } else if (static_cast<std::uint64_t>(facts.st_size) > datafile::kMaxReportBytes) {
    fault = "larger than " + std::to_string(datafile::kMaxReportBytes) + " bytes";
  } else {
    // One byte more than the file's size is asked for, to notice a file
    // that grew past the bound since.
    body.resize(static_cast<std::size_t>(facts.st_size) + 1);
    std::size_t have = 0;
    for (;;) {
      const ssize_t got = ::read(fd, body.data() + have, body.size() - have);
      if (got < 0 && errno == EINTR) continue;
      if (got < 0) {
        fault = std::string("cannot be read: ") + std::strerror(errno);
        break;
      }
      if (got == 0) break;
      have += static_cast<std::size_t>(got);
      if (have > datafile::kMaxReportBytes) {
        fault = "larger than " + std::to_string(datafile::kMaxReportBytes) + " bytes";
        break;
      }
      if (have == body.size()) body.resize(std::min(2 * have, datafile::kMaxReportBytes + 1));
    }
    body.resize(have);
  }
  ::close(fd);
  if (fault.empty()) {
    const auto doc = nlohmann::json::parse(body, nullptr, false);
    if (!doc.is_object())
      fault = "not a JSON object";
    else if (!doc.contains("reportId") || doc["reportId"] != entry.reportId)
      fault = "its reportId is not its name";
  }
  if (!fault.empty()) {
    (void)reject(lease, entry, fault);
    return std::nullopt;
  }
  return body;
}

bool ReportSpool::remove(const Lease& /*lease*/, const Entry& entry) {
  if (::unlink(entry.path.c_str()) == 0 || errno == ENOENT) return true;
  logWarningf("cannot remove the delivered report %s: %s", entry.path.c_str(),
              std::strerror(errno));
  return false;
}

bool ReportSpool::reject(const Lease& /*lease*/, const Entry& entry, std::string_view why) {
  if (!makeFolders()) return false;
  const std::string to = rejectedFolder() + "/" + entry.reportId + std::string(kSuffix);
  if (Platform::current()->renameAt(AT_FDCWD, entry.path.c_str(), AT_FDCWD, to.c_str()) != 0) {
    logWarningf("report %s refused (%.*s) and cannot be moved to %s: %s", entry.reportId.c_str(),
                static_cast<int>(why.size()), why.data(), to.c_str(), std::strerror(errno));
    return false;
  }
  logWarningf("report %s refused (%.*s): kept in %s", entry.reportId.c_str(),
              static_cast<int>(why.size()), why.data(), to.c_str());
  trimFolder(rejectedFolder(), limits_.maxRejected, limits_.maxRejectedBytes, "rejected");
  return true;
}

}  // namespace quarvel::audit
