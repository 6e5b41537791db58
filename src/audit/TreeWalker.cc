#include "audit/TreeWalker.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace quarvel::audit {

namespace {
constexpr std::uint32_t kProgressEvery = 4096;
// Bytes of folder entries read at once; most folders fit in one read.
constexpr std::size_t kListingBufferBytes = 32 * 1024;

bool isDotOrDotDot(const char* name) {
  return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}
}  // namespace

bool FoundFile::stat(struct stat& out) const {
  if (known_) {
    out = *known_;
    return true;
  }
  // The name is the tail of the walker's path, so it ends with a NUL.
  return ::fstatat(dirFd_, name_.data(), &out, 0) == 0;
}

int openFolder(int dirFd, const char* name, const std::string&) {
  return ::openat(dirFd, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
}

TreeWalker::TreeWalker(ScanStats& stats) : stats_(stats) {}

void TreeWalker::exclude(const std::vector<std::string>& paths) {
  for (const std::string& path : paths) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) continue;
    excludedFolders_.insert({st.st_dev, st.st_ino});
    // A mount point: its device differs from its parent's. Everything on
    // that file system is out, however it is reached.
    struct stat parent {};
    std::string up = path + "/..";
    if (::stat(up.c_str(), &parent) == 0 && parent.st_dev != st.st_dev)
      excludedDevices_.insert(st.st_dev);
  }
}

bool TreeWalker::isExcluded(const struct stat& st) const {
  return excludedDevices_.count(st.st_dev) > 0 ||
         excludedFolders_.count({st.st_dev, st.st_ino}) > 0;
}

void TreeWalker::countUnreadable() {
  ++stats_.unreadableFolders;
  if (stats_.unreadablePaths.size() < ScanStats::kMaxUnreadableListed)
    stats_.unreadablePaths.push_back(path_);
}

void TreeWalker::tick() {
  if (++sinceProgress_ >= kProgressEvery) {
    sinceProgress_ = 0;
    if (progress_) progress_(stats_);
  }
}

void TreeWalker::walk(const std::string& root, const WalkOptions& options,
                      const FileCallback& onFile) {
  options_ = &options;
  onFile_ = &onFile;
  path_ = root;
  while (path_.size() > 1 && path_.back() == '/') path_.pop_back();
  ancestors_.clear();
  int fd = opener_(AT_FDCWD, path_.c_str(), path_);
  if (fd < 0) {
    const int error = errno;
    struct stat st {};
    if (error == ENOTDIR && ::stat(path_.c_str(), &st) == 0 && S_ISREG(st.st_mode)) {
      // A plain file given as the root is reported itself.
      ++stats_.files;
      const std::size_t slash = path_.rfind('/');
      onFile(FoundFile(AT_FDCWD, path_,
                       std::string_view(path_).substr(slash == std::string::npos ? 0 : slash + 1),
                       &st));
    } else if (error != ENOENT && error != ENOTDIR) {
      countUnreadable();
    }
  } else {
    walkFolder(fd, 0);
  }
  if (progress_) progress_(stats_);
  options_ = nullptr;
  onFile_ = nullptr;
}

// Lists the open folder `fd` (whose path is path_) and takes ownership of fd.
// The entries are read with getdents64 straight into a buffer of this depth,
// which stays valid while the subfolders below are walked.
void TreeWalker::walkFolder(int fd, int depth) {
  struct stat self {};
  if (::fstat(fd, &self) != 0) {
    ::close(fd);
    countUnreadable();
    return;
  }
  if (isExcluded(self)) {
    ::close(fd);
    ++stats_.excludedFolders;
    return;
  }
  FileId id{self.st_dev, self.st_ino};
  if (std::find(ancestors_.begin(), ancestors_.end(), id) != ancestors_.end()) {
    ::close(fd);
    ++stats_.loopsAvoided;
    return;
  }
  ++stats_.folders;
  ancestors_.push_back(id);
  const std::size_t baseLength = path_.size();
  const bool atRoot = baseLength == 1 && path_[0] == '/';
  if (buffers_.size() <= static_cast<std::size_t>(depth))
    buffers_.resize(static_cast<std::size_t>(depth) + 1);
  std::unique_ptr<char[]>& slot = buffers_[static_cast<std::size_t>(depth)];
  if (!slot) slot = std::make_unique<char[]>(kListingBufferBytes);
  // The slot itself moves when deeper levels grow buffers_; its bytes do not.
  char* const buffer = slot.get();

  for (;;) {
    const ssize_t got = ::getdents64(fd, buffer, kListingBufferBytes);
    if (got == 0) break;
    if (got < 0) {
      if (errno == EINTR) continue;
      path_.resize(baseLength);
      countUnreadable();
      break;
    }
    for (ssize_t at = 0; at < got;) {
      const auto* entry = reinterpret_cast<const struct dirent64*>(buffer + at);
      at += entry->d_reclen;
      const char* name = entry->d_name;
      if (isDotOrDotDot(name) || (options_->skipHidden && name[0] == '.')) continue;
      tick();
      unsigned char type = entry->d_type;
      if (type != DT_REG && type != DT_DIR && type != DT_LNK && type != DT_UNKNOWN) continue;
      const std::size_t nameLength = std::strlen(name);
      path_.resize(baseLength);
      if (!atRoot) path_.push_back('/');
      path_.append(name, nameLength);

      struct stat st {};
      const struct stat* known = nullptr;
      if (type == DT_LNK || type == DT_UNKNOWN) {
        // Follow the link (or learn the type); a dangling link is skipped.
        if (::fstatat(fd, name, &st, 0) != 0) continue;
        known = &st;
        type = S_ISDIR(st.st_mode) ? DT_DIR : S_ISREG(st.st_mode) ? DT_REG : DT_UNKNOWN;
      }
      if (type == DT_REG) {
        ++stats_.files;
        (*onFile_)(
            FoundFile(fd, path_, std::string_view(path_).substr(path_.size() - nameLength), known));
      } else if (type == DT_DIR && depth < options_->maxDepth) {
        enter(fd, name, depth + 1);
      }
    }
  }
  path_.resize(baseLength);
  ancestors_.pop_back();
  ::close(fd);
}

void TreeWalker::enter(int parentFd, const char* name, int depth) {
  int child = opener_(parentFd, name, path_);
  if (child < 0) {
    if (errno != ENOENT) countUnreadable();
    return;
  }
  walkFolder(child, depth);
}

}  // namespace quarvel::audit
