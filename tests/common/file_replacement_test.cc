#include <grp.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "common/FileReplacement.h"
#include "common/Log.h"
#include "support/FileText.h"
#include "support/ScratchDir.h"
#include "support/TestPlatform.h"

namespace quarvel {
namespace {

namespace fs = std::filesystem;
using testing::readFile;
using testing::ScratchDir;

void put(const std::string& path, const std::string& bytes, mode_t mode = 0644) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
  ASSERT_EQ(::chmod(path.c_str(), mode), 0);
}

struct stat statOf(const std::string& path) {
  struct stat info {};
  ::lstat(path.c_str(), &info);
  return info;
}

// Runs `body` in a child process and answers its exit status; a child still
// running after 3 seconds is ended by SIGALRM (128 + 14).
int inChild(const std::function<int()>& body) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::alarm(3);
    ::_exit(body());
  }
  int status = 0;
  ::waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

TEST(FileReplacement, ReplacesWhatAWriteThroughThePathWouldReach) {
  const std::string longName(255, 'n');
  // Entries made first, in order: "" a file holding "old", "dir" a folder,
  // "->x" a symbolic link to x, "=>x" one to x by its absolute path.
  struct Case {
    std::vector<std::pair<std::string, std::string>> entries;
    std::string path;
    bool answer;
    std::string reaches;  // the file that then holds "new"
  } cases[] = {
      {{{"f", ""}}, "f", true, "f"},
      {{}, "f", true, "f"},
      {{{"f", ""}, {"l", "=>f"}}, "l", true, "f"},
      {{{"f", ""}, {"sub", "dir"}, {"sub/b", "->../f"}, {"l", "->sub/b"}}, "l", true, "f"},
      {{{"l", "->f"}}, "l", true, "f"},  // dangling
      {{{"a", "->b"}, {"b", "->a"}}, "a", false, ""},
      {{{"f", "dir"}}, "f", false, ""},
      {{}, "no/f", false, ""},
      {{{longName, ""}}, longName, true, longName},
  };
  for (const Case& c : cases) {
    ScratchDir dir;
    std::set<std::string> names;
    for (const auto& [name, what] : c.entries) {
      if (what.empty()) put(dir / name, "old");
      if (what == "dir") fs::create_directory(dir / name);
      if (what.starts_with("->")) fs::create_symlink(what.substr(2), dir / name);
      if (what.starts_with("=>")) fs::create_symlink(dir / what.substr(2), dir / name);
      names.insert(name.substr(0, name.find('/')));
    }
    if (!c.reaches.empty()) names.insert(c.reaches);
    LogCapture log;
    EXPECT_EQ(FileReplacement::replace(dir / c.path, "new"), c.answer) << c.path;
    EXPECT_EQ(log.lines().size(), c.answer ? 0u : 1u) << c.path;
    EXPECT_TRUE(c.reaches.empty() || readFile(dir / c.reaches) == "new") << c.path;
    EXPECT_EQ(dir.names(), names) << "no temporary left";
    for (const auto& [name, what] : c.entries)
      EXPECT_EQ(fs::is_symlink(dir / name), what.size() > 1 && what[1] == '>') << name;
  }
}

TEST(FileReplacement, KeepsModeAndOwnerAndCreatesWithTheUmask) {
  ScratchDir dir;
  const bool root = ::geteuid() == 0;
  for (mode_t mode : {0640, 0755, 0444, 0600, 02755, 04711}) {
    if (!root && !(mode & 0200)) continue;  // only root may write it
    const std::string path = dir / "f";
    put(path, "old", mode);
    if (root) {
      ASSERT_EQ(::chown(path.c_str(), 65534, 65534), 0);
    }
    ASSERT_EQ(::chmod(path.c_str(), mode), 0);  // chown cleared the set-id bits
    const struct stat before = statOf(path);
    ASSERT_TRUE(FileReplacement::replace(path, "new"));
    const struct stat after = statOf(path);
    EXPECT_EQ(std::tuple(after.st_mode & 07777, after.st_uid, after.st_gid),
              std::tuple(before.st_mode & 07777, before.st_uid, before.st_gid))
        << mode;
    EXPECT_NE(after.st_ino, before.st_ino) << "replaced by rename";
  }
  // A new file: `newFileMode` less the umask.
  for (auto [mask, newFileMode, mode] : {std::tuple{022, 0666, 0644}, {077, 0666, 0600}}) {
    const std::string path = dir / ("n" + std::to_string(mask));
    const mode_t saved = ::umask(mask);
    EXPECT_TRUE(FileReplacement::replace(path, "new", newFileMode));
    ::umask(saved);
    EXPECT_EQ(statOf(path).st_mode & 07777, static_cast<mode_t>(mode)) << mask;
  }
}

TEST(FileReplacement, RefusesSpecialFilesWithoutBlocking) {
  ScratchDir dir;
  ASSERT_EQ(::mkfifo((dir / "pipe").c_str(), 0666), 0);
  fs::create_symlink("/dev/null", dir / "null");
  for (const char* name : {"pipe", "null"})
    EXPECT_EQ(inChild([&] { return FileReplacement::replace(dir / name, "new") ? 0 : 1; }), 1);
  EXPECT_EQ(dir.names(), (std::set<std::string>{"pipe", "null"}));
}

TEST(FileReplacement, RemovesOnlyTemporariesWhoseWriterDied) {
  ScratchDir dir;
  put(dir / "f", "old");
  put(dir / ".f.~qv-short", "");                     // not the name form
  put(dir / ".g.~qv-dead0002", "");                  // another target's
  fs::create_symlink("f", dir / ".f.~qv-link0003");  // not a regular file
  fs::create_directory(dir / ".f.~qv-fold0004");
  const std::set<std::string> kept = dir.names();

  FileReplacement live(dir / "f");  // holds its own, locked
  ASSERT_TRUE(live.write("first"));
  put(dir / ".f.~qv-dead0001", "");  // its writer was killed
  ASSERT_EQ(dir.names().size(), kept.size() + 2);
  ASSERT_TRUE(FileReplacement::replace(dir / "f", "second"));
  EXPECT_EQ(dir.names().size(), kept.size() + 1) << "the live one is kept";
  EXPECT_FALSE(fs::exists(dir / ".f.~qv-dead0001"));
  ASSERT_TRUE(live.commit());
  EXPECT_EQ(readFile(dir / "f"), "first");
  EXPECT_EQ(dir.names(), kept);
}

// Past the file-size limit (a full disk, as far as the writer can tell) or
// before commit, nothing of the new contents reaches the file, whether it is
// replaced by rename or (with a second link, which stays linked) in place.
TEST(FileReplacement, AFailedReplacementLeavesTheOldFileAndHardLinksStayLinked) {
  ScratchDir dir;
  put(dir / "f", "old");
  put(dir / "h", "old");
  ASSERT_EQ(::link((dir / "h").c_str(), (dir / "h2").c_str()), 0);
  for (const std::string& path : {dir / "f", dir / "h"}) {
    EXPECT_EQ(inChild([&] {
                ::signal(SIGXFSZ, SIG_IGN);
                rlimit limit{};
                ::getrlimit(RLIMIT_FSIZE, &limit);
                limit.rlim_cur = 1000;
                ::setrlimit(RLIMIT_FSIZE, &limit);
                return FileReplacement::replace(path, std::string(4096, 'x')) ? 0 : 1;
              }),
              1);
    EXPECT_EQ(readFile(path), "old") << path;
    FileReplacement replacement(path);
    ASSERT_TRUE(replacement.write("n") && replacement.write("e"));
    EXPECT_EQ(readFile(path), "old") << "untouched until commit";
    if (path == dir / "f") continue;  // abandoned
    ASSERT_TRUE(replacement.commit());
    EXPECT_EQ(readFile(dir / "h2"), "ne") << "still linked, cut to the new size";
  }
  EXPECT_EQ(readFile(dir / "f"), "old");
  EXPECT_EQ(dir.names().size(), 3u);
}

// A write that stores nothing is a full disk, not a reason to try again for
// ever; one interrupted by a signal is tried again.
struct StallingWrites : PlatformWrapper {
  explicit StallingWrites(bool interruptOnce) : interruptOnce(interruptOnce) {}
  ssize_t write(int fd, const void* data, std::size_t size) override {
    if (!interruptOnce) return 0;
    if (!interrupted.exchange(true)) return errno = EINTR, -1;
    return PlatformWrapper::write(fd, data, size);
  }
  bool interruptOnce;
  std::atomic<bool> interrupted{false};
};

TEST(FileReplacement, AWriteThatStoresNothingFailsAndAnInterruptedOneIsRetried) {
  // The child's status: 0 replaced, 1 refused.
  for (auto [interruptOnce, status, after] : {std::tuple{false, 1, "old"}, {true, 0, "new"}}) {
    ScratchDir dir;
    put(dir / "f", "old");
    EXPECT_EQ(inChild([&, interruptOnce = interruptOnce] {
                testing::ScopedPlatform scope(std::make_shared<StallingWrites>(interruptOnce));
                return FileReplacement::replace(dir / "f", "new") ? 0 : 1;
              }),
              status);
    EXPECT_EQ(readFile(dir / "f"), after) << interruptOnce;
  }
}

// What an unprivileged process may write, it writes; what it may not, it
// answers false for and leaves alone.
TEST(FileReplacement, PermissionsBindAnUnprivilegedWriter) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to become another user";
  // What is in the way, the file's mode (0: none), the folder's, the file's
  // owner, and whether the writer may replace it.
  const std::tuple<const char*, mode_t, mode_t, uid_t, bool> cases[] = {
      {"read-only file", 0444, 0777, 65534, false},
      {"writable file, read-only folder", 0666, 0555, 0, true},
      {"new file, read-only folder", 0, 0555, 0, false},
      {"own set-group-id file", 02755, 0777, 65534, true},
      {"writable file, sticky folder", 0666, 01777, 0, true},
  };
  for (const auto& [name, fileMode, folderMode, owner, answer] : cases) {
    ScratchDir dir;
    const std::string folder = dir / "d", path = dir / "d/f";
    fs::create_directory(folder);
    if (fileMode) {
      put(path, "old");
      ASSERT_EQ(::chown(path.c_str(), owner, owner), 0);
      ASSERT_EQ(::chmod(path.c_str(), fileMode), 0);
    }
    ASSERT_EQ(::chmod(folder.c_str(), folderMode), 0);
    const ino_t inode = statOf(path).st_ino;
    const int status = inChild([&] {
      if (::setgroups(0, nullptr) != 0 || ::setgid(65534) != 0 || ::setuid(65534) != 0) return 2;
      return FileReplacement::replace(path, "new") ? 0 : 1;
    });
    EXPECT_EQ(status, answer ? 0 : 1) << name;
    EXPECT_EQ(readFile(path), answer ? "new" : fileMode ? "old" : "<missing>") << name;
    EXPECT_TRUE(!fileMode || (statOf(path).st_mode & 07777) == fileMode) << name;
    EXPECT_TRUE((answer && folderMode == 0777) || statOf(path).st_ino == inode)
        << "written in place or not at all";
    EXPECT_EQ(std::distance(fs::directory_iterator(folder), fs::directory_iterator()),
              fileMode ? 1 : 0)
        << "no temporary left";
  }
}

}  // namespace
}  // namespace quarvel
