#include "common/FileReplacement.h"

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "common/Log.h"
#include "common/Platform.h"

namespace quarvel {
namespace {

// As deep as the kernel follows links before it answers ELOOP.
constexpr int kMaxLinks = 40;
// A temporary file is named ".<name>.~qv-" and this many letters or digits.
constexpr std::size_t kRandomLength = 8;
constexpr std::string_view kMark = ".~qv-";
constexpr std::size_t kCopyChunk = 1 << 16;
constexpr std::size_t kWriteChunk = 1 << 30;

void closeQuietly(int& fd) {
  if (fd >= 0) ::close(fd);
  fd = -1;
}

bool sameFile(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// The temporary files of a target named `name` start with this; long names
// are cut so that the whole name stays within NAME_MAX bytes.
std::string temporaryPrefix(std::string_view name) {
  const std::size_t room = NAME_MAX - 1 - kMark.size() - kRandomLength;
  std::string prefix = ".";
  prefix += name.substr(0, room);
  prefix += kMark;
  return prefix;
}

bool isTemporaryName(std::string_view candidate, std::string_view prefix) {
  if (candidate.size() != prefix.size() + kRandomLength || !candidate.starts_with(prefix))
    return false;
  for (char c : candidate.substr(prefix.size()))
    if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'))) return false;
  return true;
}

std::string randomLetters() {
  static constexpr char kAlphabet[] =
      "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";
  unsigned char bytes[kRandomLength];
  if (::getrandom(bytes, sizeof bytes, GRND_NONBLOCK) != static_cast<ssize_t>(sizeof bytes)) {
    // No entropy yet (early boot): a counter, the process and the clock
    // still keep concurrent writers apart; O_EXCL settles any clash.
    static std::atomic<unsigned long long> counter{0};
    unsigned long long mix = (counter++ * 0x9E3779B97F4A7C15ull) ^
                             (static_cast<unsigned long long>(::getpid()) << 32) ^
                             static_cast<unsigned long long>(
                                 std::chrono::steady_clock::now().time_since_epoch().count());
    for (unsigned char& b : bytes) {
      b = static_cast<unsigned char>(mix);
      mix = (mix >> 8) | (mix << 56);
    }
  }
  std::string letters;
  for (unsigned char b : bytes) letters += kAlphabet[b % (sizeof kAlphabet - 1)];
  return letters;
}

// Follows `path` through symbolic links to the file a write would reach.
// Answers 0 and sets `target` (and `info` when `exists`), or an errno value.
int resolveTarget(std::string path, std::string& target, struct stat& info, bool& exists) {
  for (int depth = 0;; ++depth) {
    if (::lstat(path.c_str(), &info) != 0) {
      if (errno != ENOENT) return errno;
      exists = false;
      target = path;
      return 0;
    }
    if (!S_ISLNK(info.st_mode)) {
      exists = true;
      target = path;
      return 0;
    }
    if (depth == kMaxLinks) return ELOOP;
    std::string link(static_cast<std::size_t>(info.st_size > 0 ? info.st_size : PATH_MAX), '\0');
    for (;;) {
      const ssize_t n = ::readlink(path.c_str(), link.data(), link.size());
      if (n < 0) return errno;
      if (static_cast<std::size_t>(n) < link.size()) {
        link.resize(static_cast<std::size_t>(n));
        break;
      }
      link.resize(link.size() * 2);  // the link grew since lstat
    }
    if (link.empty()) return ENOENT;
    if (link.front() == '/') {
      path = link;
    } else {
      // A relative link is read from the folder that holds it.
      const std::size_t slash = path.rfind('/');
      path = slash == std::string::npos ? link : path.substr(0, slash + 1).append(link);
    }
  }
}

// Writes all of `size` bytes at the file offset, through short writes and
// interruptions. Answers 0 or an errno value.
int writeAll(Platform& platform, int fd, const char* data, std::size_t size) {
  while (size > 0) {
    const ssize_t n = platform.write(fd, data, size < kWriteChunk ? size : kWriteChunk);
    if (n < 0) {
      if (errno == EINTR) continue;
      return errno;
    }
    if (n == 0) return ENOSPC;
    data += n;
    size -= static_cast<std::size_t>(n);
  }
  return 0;
}

}  // namespace

struct FileReplacement::State {
  // Taken once, so that a replacement runs on one platform throughout.
  std::shared_ptr<Platform> platform = Platform::current();
  std::string path;      // as given, for the log
  std::string name;      // the final target's name in its folder
  int folderFd = -1;     // O_PATH of the target's folder
  int targetFd = -1;     // the existing target, open for writing
  int tempFd = -1;       // the named temporary, or the staging file in place
  std::string tempName;  // empty when staging in place or once renamed
  bool exists = false;
  bool inPlace = false;
  bool open = false;
  struct stat target {};
  std::uint64_t written = 0;
  rlim_t sizeLimit = RLIM_INFINITY;

  ~State() { close(); }

  void close() {
    if (!tempName.empty() && folderFd >= 0) ::unlinkat(folderFd, tempName.c_str(), 0);
    tempName.clear();
    closeQuietly(tempFd);  // releases the lock after the name is gone
    closeQuietly(targetFd);
    closeQuietly(folderFd);
    open = false;
  }

  bool fail(const char* what, int error) {
    if (error != 0)
      logWarningf("%s not written: %s (%s)", path.c_str(), what, std::strerror(error));
    else
      logWarningf("%s not written: %s", path.c_str(), what);
    close();
    return false;
  }

  bool openFor(const std::string& given, mode_t newFileMode);
  void removeStaleTemporaries(const std::string& prefix);
  int createTemporary(const std::string& prefix, mode_t mode);
  int createStaging();
  int copyInPlace();
};

bool FileReplacement::State::openFor(const std::string& given, mode_t newFileMode) {
  path = given;
  if (given.empty()) return fail("no path", ENOENT);
  std::string resolved;
  // A file removed between the look and the open is looked for again: the
  // write then creates it, as one through the path would.
  for (int attempt = 0;; ++attempt) {
    if (int error = resolveTarget(given, resolved, target, exists))
      return fail("cannot reach the file", error);
    if (!exists) break;
    if (S_ISDIR(target.st_mode)) return fail("the path names a folder", EISDIR);
    if (!S_ISREG(target.st_mode)) return fail("not a regular file", 0);
    // Opening it is the exact test of whether a write through the path would
    // be allowed. Non-blocking, in case it became a pipe since lstat.
    targetFd = platform->openAt(AT_FDCWD, resolved.c_str(),
                                O_WRONLY | O_NONBLOCK | O_NOCTTY | O_NOFOLLOW | O_CLOEXEC, 0);
    if (targetFd >= 0) break;
    if (errno != ENOENT || attempt == 2) return fail("cannot open the file for writing", errno);
  }
  if (exists) {
    if (::fstat(targetFd, &target) != 0) return fail("cannot read the file's status", errno);
    if (!S_ISREG(target.st_mode)) return fail("not a regular file", 0);
  }
  if (resolved.back() == '/') return fail("the path names a folder", EISDIR);
  const std::size_t slash = resolved.rfind('/');
  const std::string folder = slash == std::string::npos ? "."
                             : slash == 0               ? "/"
                                                        : resolved.substr(0, slash);
  name = slash == std::string::npos ? resolved : resolved.substr(slash + 1);

  folderFd = ::open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  if (folderFd < 0) return fail("cannot reach the folder", errno);

  rlimit limit{};
  if (::getrlimit(RLIMIT_FSIZE, &limit) == 0) sizeLimit = limit.rlim_cur;

  // Other names of the same file keep sharing it only when it is written
  // in place.
  inPlace = exists && target.st_nlink > 1;
  if (!inPlace) {
    const std::string prefix = temporaryPrefix(name);
    removeStaleTemporaries(prefix);
    int error = createTemporary(prefix, exists ? 0600 : newFileMode);
    if (error != 0) {
      // A folder that takes no new entry still lets a writable file be
      // written, as a write through the path would.
      const bool refused =
          error == EACCES || error == EPERM || error == EROFS || error == ENOSPC || error == EDQUOT;
      if (!exists || !refused) return fail("cannot create a temporary file", error);
      inPlace = true;
    }
  }
  if (inPlace) {
    if (int error = createStaging()) return fail("cannot create a staging file", error);
  } else if (exists) {
    // Owner first: changing it clears the set-id bits that fchmod then sets.
    // Where the process may not give the file away, it may still keep the
    // group.
    if (::fchown(tempFd, target.st_uid, target.st_gid) != 0 && errno == EPERM)
      (void)::fchown(tempFd, static_cast<uid_t>(-1), target.st_gid);
    // A file system without modes (or that refuses them) keeps the 0600 the
    // temporary was created with, which leaks nothing.
    if (::fchmod(tempFd, target.st_mode & 07777) != 0 && errno != EPERM && errno != EOPNOTSUPP)
      return fail("cannot set the file's mode", errno);
  }
  open = true;
  return true;
}

// Removes the temporaries of this target that no live writer holds: a
// writer keeps its file locked until the file is renamed or removed.
void FileReplacement::State::removeStaleTemporaries(const std::string& prefix) {
  const int listFd = ::openat(folderFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (listFd < 0) return;
  DIR* dir = ::fdopendir(listFd);
  if (!dir) {
    ::close(listFd);
    return;
  }
  while (const dirent* entry = ::readdir(dir)) {
    const char* candidate = entry->d_name;
    if (!isTemporaryName(candidate, prefix)) continue;
    struct stat before {};
    if (::fstatat(folderFd, candidate, &before, AT_SYMLINK_NOFOLLOW) != 0 ||
        !S_ISREG(before.st_mode))
      continue;
    int fd =
        ::openat(folderFd, candidate, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0 && errno == EACCES)
      fd = ::openat(folderFd, candidate, O_WRONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) continue;
    struct stat held {};
    struct stat now {};
    if (::fstat(fd, &held) == 0 && S_ISREG(held.st_mode) && sameFile(held, before) &&
        ::flock(fd, LOCK_EX | LOCK_NB) == 0 &&
        ::fstatat(folderFd, candidate, &now, AT_SYMLINK_NOFOLLOW) == 0 && sameFile(held, now))
      ::unlinkat(folderFd, candidate, 0);
    ::close(fd);
  }
  ::closedir(dir);
}

// Creates, locks and names the temporary beside the target. Between the
// creation and the lock another writer's scan may take the file for a stale
// one and remove it; the name is checked again once the lock is held.
int FileReplacement::State::createTemporary(const std::string& prefix, mode_t mode) {
  int error = EEXIST;
  for (int attempt = 0; attempt < 100; ++attempt) {
    std::string candidate = prefix + randomLetters();
    int fd = platform->openAt(folderFd, candidate.c_str(),
                              O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC, mode);
    if (fd < 0) {
      if (errno == EEXIST) continue;
      return errno;
    }
    // A file system without locks still takes the write; its stale
    // temporaries then stay, as no scan can tell them from live ones.
    const bool locked = ::flock(fd, LOCK_EX | LOCK_NB) == 0 || errno == ENOLCK ||
                        errno == EOPNOTSUPP || errno == ENOSYS;
    error = errno;
    struct stat held {};
    struct stat named {};
    const bool stillNamed =
        ::fstat(fd, &held) == 0 &&
        ::fstatat(folderFd, candidate.c_str(), &named, AT_SYMLINK_NOFOLLOW) == 0 &&
        sameFile(held, named);
    if (locked && stillNamed) {
      tempFd = fd;
      tempName = std::move(candidate);
      return 0;
    }
    // Not usable: never leave it behind under its name.
    if (stillNamed) ::unlinkat(folderFd, candidate.c_str(), 0);
    if (locked || error == 0) error = EEXIST;
    ::close(fd);
  }
  return error;
}

// An unnamed file in the temporary folder that holds the new contents until
// they are copied over the target.
int FileReplacement::State::createStaging() {
  std::error_code ec;
  std::string folder = std::filesystem::temp_directory_path(ec).string();
  if (ec) folder = "/tmp";
  tempFd = platform->openAt(AT_FDCWD, folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
  if (tempFd >= 0) return 0;
  std::string pattern = folder + "/.qv-staging-XXXXXX";
  tempFd = ::mkostemp(pattern.data(), O_CLOEXEC);
  if (tempFd < 0) return errno;
  ::unlink(pattern.c_str());
  return 0;
}

// Copies the staged contents over the target. The room for them is taken
// first, so that a full disk is found before the old contents are touched.
int FileReplacement::State::copyInPlace() {
  const auto size = static_cast<off_t>(written);
  if (written > static_cast<std::uint64_t>(target.st_size)) {
    int result;
    do {
      result = ::fallocate(targetFd, FALLOC_FL_KEEP_SIZE, 0, size);
    } while (result != 0 && errno == EINTR);
    if (result != 0 && errno != EOPNOTSUPP && errno != ENOSYS) return errno;
  }
  const std::unique_ptr<char[]> buffer(new char[kCopyChunk]);
  for (off_t offset = 0; offset < size;) {
    const ssize_t n = ::pread(tempFd, buffer.get(), kCopyChunk, offset);
    if (n < 0) {
      if (errno == EINTR) continue;
      return errno;
    }
    if (n == 0) return EIO;  // the staging file is shorter than written
    for (ssize_t done = 0; done < n;) {
      const ssize_t w = platform->writeAt(targetFd, buffer.get() + done,
                                          static_cast<std::size_t>(n - done), offset + done);
      if (w < 0) {
        if (errno == EINTR) continue;
        return errno;
      }
      if (w == 0) return ENOSPC;
      done += w;
    }
    offset += n;
  }
  if (platform->truncate(targetFd, size) != 0) return errno;
  if (platform->sync(targetFd) != 0) return errno;
  return 0;
}

FileReplacement::FileReplacement(const std::string& path, mode_t newFileMode)
    : state_(std::make_unique<State>()) {
  state_->openFor(path, newFileMode);
}

FileReplacement::~FileReplacement() = default;
FileReplacement::FileReplacement(FileReplacement&& other) noexcept = default;
FileReplacement& FileReplacement::operator=(FileReplacement&& other) noexcept = default;

bool FileReplacement::isOpen() const { return state_ && state_->open; }

bool FileReplacement::write(std::string_view bytes) { return write(bytes.data(), bytes.size()); }

bool FileReplacement::write(const void* data, std::size_t size) {
  if (!isOpen()) return false;
  State& s = *state_;
  // Past the file-size limit the write would raise SIGXFSZ, which ends the
  // process unless it is ignored; the replacement cannot succeed anyway.
  if (s.sizeLimit != RLIM_INFINITY &&
      (s.written + size < s.written || s.written + size > s.sizeLimit))
    return s.fail("the file would pass the file-size limit", EFBIG);
  if (int error = writeAll(*s.platform, s.tempFd, static_cast<const char*>(data), size))
    return s.fail("cannot write the new contents", error);
  s.written += size;
  return true;
}

bool FileReplacement::commit() {
  if (!isOpen()) return false;
  State& s = *state_;
  if (s.inPlace) {
    if (int error = s.copyInPlace()) return s.fail("cannot write the file in place", error);
    s.close();
    return true;
  }
  // A write by a process without CAP_FSETID clears the set-id bits that were
  // set before it; they are set again once the contents are complete.
  if (s.exists && (s.target.st_mode & (S_ISUID | S_ISGID)) != 0)
    (void)::fchmod(s.tempFd, s.target.st_mode & 07777);
  if (s.platform->sync(s.tempFd) != 0) return s.fail("cannot flush the new contents", errno);
  // The lock is held until the name is gone, so that no scan takes the file
  // for a stale one.
  if (s.platform->renameAt(s.folderFd, s.tempName.c_str(), s.folderFd, s.name.c_str()) != 0) {
    const int error = errno;
    // A sticky folder lets only the file's owner replace it; its other
    // writers may still write it in place.
    if (!((error == EPERM || error == EACCES) && s.targetFd >= 0))
      return s.fail("cannot rename the temporary file over the file", error);
    if (int copyError = s.copyInPlace()) return s.fail("cannot write the file in place", copyError);
    s.close();
    return true;
  }
  s.tempName.clear();
  const int syncFd = ::openat(s.folderFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (syncFd >= 0) {
    (void)s.platform->sync(
        syncFd);  // the rename is done; a folder that cannot be flushed is no failure
    ::close(syncFd);
  }
  s.close();
  return true;
}

void FileReplacement::abandon() {
  if (state_) state_->close();
}

bool FileReplacement::replace(const std::string& path, std::string_view bytes, mode_t newFileMode) {
  FileReplacement replacement(path, newFileMode);
  return replacement.write(bytes) && replacement.commit();
}

}  // namespace quarvel
