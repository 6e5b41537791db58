#pragma once
// Walks folder trees for the audit and reports every plain file it meets.
//
// The walker opens each folder relative to its parent's descriptor, reads its
// entries with getdents64 into a buffer kept for its depth and trusts the
// entry type the kernel gives, so listing a tree costs about what `find`
// costs and nothing is allocated per entry: a file is stat'ed only when its
// type is unknown or it is a symbolic link. Callers
// that need more (the mode bits) ask for them only for the few files they
// care about, through FoundFile::stat().
//
// Symbolic links are followed, to files and to folders; a folder already on
// the way down (same device and inode) is not entered again, so link loops
// end. Folders listed as excluded are never entered, whatever the path that
// leads to them; an excluded folder that is a mount point excludes its whole
// file system (that is how /proc, /sys and /dev are kept out). A folder that
// cannot be opened is skipped and counted, never fatal.
//
// Not thread-safe; one walker per thread.

#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace quarvel::audit {

// Running counts of one scan, shared by all the walks that make it up.
struct ScanStats {
  std::uint64_t files = 0;              // plain files reported
  std::uint64_t folders = 0;            // folders listed
  std::uint64_t unreadableFolders = 0;  // folders that could not be opened or read
  std::uint64_t loopsAvoided = 0;       // folders not entered again through a link
  std::uint64_t excludedFolders = 0;    // folders not entered because they are excluded
  // The first unreadable folders, for the report (at most kMaxUnreadableListed).
  std::vector<std::string> unreadablePaths;
  static constexpr std::size_t kMaxUnreadableListed = 50;
};

// One plain file met by the walk. Valid only during the callback.
class FoundFile {
 public:
  FoundFile(int dirFd, std::string_view path, std::string_view name, const struct stat* known)
      : dirFd_(dirFd), path_(path), name_(name), known_(known) {}

  std::string_view path() const { return path_; }  // full path as walked
  // The last component; it is the tail of path(), so name().data() is
  // NUL-terminated.
  std::string_view name() const { return name_; }
  // The file's status, following links; false when it cannot be had.
  bool stat(struct stat& out) const;

 private:
  int dirFd_;
  std::string_view path_;
  std::string_view name_;
  const struct stat* known_;  // already known status, or null
};

// Opens a folder for reading: openat(dirFd, name) with O_DIRECTORY. `path` is
// the folder's full path. Answers a descriptor or -1 with errno set. Tests
// replace it to make chosen folders unreadable.
using FolderOpener = std::function<int(int dirFd, const char* name, const std::string& path)>;
int openFolder(int dirFd, const char* name, const std::string& path);

struct WalkOptions {
  int maxDepth = 0;         // folder levels below the root that are entered
  bool skipHidden = false;  // leave out entries whose name starts with '.'
};

class TreeWalker {
 public:
  using FileCallback = std::function<void(const FoundFile&)>;
  using ProgressCallback = std::function<void(const ScanStats&)>;

  // `stats` must outlive the walker.
  explicit TreeWalker(ScanStats& stats);
  TreeWalker(const TreeWalker&) = delete;
  TreeWalker& operator=(const TreeWalker&) = delete;

  // Folders (and everything below them) never entered. Paths that do not
  // exist are ignored.
  void exclude(const std::vector<std::string>& paths);
  void setFolderOpener(FolderOpener opener) { opener_ = std::move(opener); }
  // Called every few thousand entries and at the end of each walk.
  void setProgress(ProgressCallback progress) { progress_ = std::move(progress); }

  // Reports every plain file under `root` (the root's own files are at depth
  // 0); a root that is a plain file is reported itself. A missing root is
  // skipped silently; an unreadable one is counted.
  void walk(const std::string& root, const WalkOptions& options, const FileCallback& onFile);

 private:
  using FileId = std::pair<dev_t, ino_t>;
  bool isExcluded(const struct stat& st) const;
  void walkFolder(int fd, int depth);
  void enter(int parentFd, const char* name, int depth);
  void countUnreadable();
  void tick();

  ScanStats& stats_;
  FolderOpener opener_ = openFolder;
  ProgressCallback progress_;
  std::set<FileId> excludedFolders_;
  std::set<dev_t> excludedDevices_;

  // State of the walk in progress.
  const WalkOptions* options_ = nullptr;
  const FileCallback* onFile_ = nullptr;
  std::string path_;               // full path of the folder being listed
  std::vector<FileId> ancestors_;  // folders on the way down, for loop checks
  // One listing buffer per depth, made on first use and kept for later walks.
  std::vector<std::unique_ptr<char[]>> buffers_;
  std::uint32_t sinceProgress_ = 0;
};

}  // namespace quarvel::audit
