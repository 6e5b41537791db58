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

bool isDotOrDotDot(const char* name) {
  return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}
}  // namespace

bool FoundFile::stat(struct stat& out) const {
  if (known_) {
    out = *known_;
    return true;
  }
  std::string name(name_);
  return ::fstatat(dirFd_, name.c_str(), &out, 0) == 0;
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
  DIR* dir = ::fdopendir(fd);
  if (!dir) {
    ::close(fd);
    countUnreadable();
    return;
  }
  ++stats_.folders;
  ancestors_.push_back(id);
  const std::size_t baseLength = path_.size();
  const bool atRoot = baseLength == 1 && path_[0] == '/';

  errno = 0;
  while (struct dirent* entry = ::readdir(dir)) {
    const char* name = entry->d_name;
    if (isDotOrDotDot(name) || (options_->skipHidden && name[0] == '.')) continue;
    tick();
    path_.resize(baseLength);
    if (!atRoot) path_.push_back('/');
    path_.append(name);

    unsigned char type = entry->d_type;
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
      (*onFile_)(FoundFile(
          fd, path_, std::string_view(path_).substr(path_.size() - std::strlen(name)), known));
    } else if (type == DT_DIR && depth < options_->maxDepth) {
      enter(fd, name, depth + 1);
    }
    errno = 0;
  }
  if (errno != 0) {
    path_.resize(baseLength);
    countUnreadable();
  }
  path_.resize(baseLength);
  ancestors_.pop_back();
  ::closedir(dir);
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
