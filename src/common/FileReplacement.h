#pragma once
// Replaces a file's contents as a whole: every file the library writes goes
// through here, so that a reader sees the old contents or the new ones,
// never a torn mix, and a failed write leaves the old file as it was.
//
// The answers are those a plain write through the path would give, only
// atomic where the file system allows it:
//   - A symbolic link (or a chain of them, relative or absolute, at most 40
//     deep) is followed and its final target replaced; the link stays a link.
//     A dangling link creates its target.
//   - The replaced file keeps its mode bits (07777) and, where the process
//     may set them, its owner and group. A new file is created with
//     `newFileMode` less the umask (0666 by default, as open(2) would).
//   - A file the process could not open for writing is refused, as are
//     folders, pipes, devices and sockets (without ever blocking on them).
//   - Normally the bytes go to a temporary file beside the target,
//     ".<name>.~qv-XXXXXXXX", which is flushed to disk, renamed over the
//     target, and the folder flushed. A file with more than one hard link,
//     or whose folder refuses new entries, is written in place instead, as a
//     write through the path would: the bytes are staged in an unnamed
//     temporary file and copied over the target at commit, once the space
//     for them is reserved and the process's file-size limit checked, so
//     that most failures happen before the old contents are touched.
//   - A temporary file is locked (flock) while its writer uses it. Opening
//     a replacement removes the temporaries of the same target that writers
//     killed before they finished left behind: regular files with the exact
//     name form whose lock is free.
//   - A write beyond the process's file-size limit (RLIMIT_FSIZE) fails
//     with EFBIG before it is attempted, so that no SIGXFSZ is raised; the
//     library never changes signal dispositions.
//
// Every failure is answered (false), removes the temporary file and logs one
// line naming the path and the system's error text.
//
// Not thread-safe: use an object from one thread at a time. Objects for
// different targets, or for the same target, may be used on different
// threads or processes at once; the last commit wins.

#include <sys/types.h>

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

namespace quarvel {

class FileReplacement {
 public:
  // Opens a replacement of `path`; isOpen() tells whether it could be (the
  // failure is logged). Nothing changes on disk but the new temporary file
  // and the removal of stale ones.
  explicit FileReplacement(const std::string& path, mode_t newFileMode = 0666);
  // Abandons a replacement that was not committed: the temporary file is
  // removed and the target keeps its old contents.
  ~FileReplacement();
  FileReplacement(FileReplacement&& other) noexcept;
  FileReplacement& operator=(FileReplacement&& other) noexcept;
  FileReplacement(const FileReplacement&) = delete;
  FileReplacement& operator=(const FileReplacement&) = delete;

  // True from a successful open until commit, abandon or a failure.
  bool isOpen() const;

  // Appends bytes to the new contents. False when the replacement is not
  // open or the bytes cannot be written; the replacement is then abandoned
  // and every later call answers false.
  bool write(std::string_view bytes);
  bool write(const void* data, std::size_t size);

  // Puts the new contents in place of the old, flushed to disk. False when
  // the replacement is not open or this fails; the old file then stays as
  // it was (but for a failure part-way through an in-place copy, which
  // leaves what a failed write through the path would). Closes the
  // replacement either way.
  bool commit();

  // Removes the temporary file and closes the replacement; the target is not
  // touched. Does nothing when it is not open.
  void abandon();

  // The whole replacement in one call: open, write `bytes`, commit.
  static bool replace(const std::string& path, std::string_view bytes, mode_t newFileMode = 0666);

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace quarvel
