#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <set>
#include <string>
#include <thread>

#include "quarvel/common/FileReplacement.h"
#include "quarvel/common/Log.h"
#include "support/FileText.h"

namespace quarvel {
namespace {

namespace fs = std::filesystem;
using testing::readFile;

class ScratchDir {
 public:
  ScratchDir() {
    std::string pattern = ::testing::TempDir() + "quarvel-replace-XXXXXX";
    path_ = ::mkdtemp(pattern.data());
    ::chmod(path_.c_str(), 0755);  // reachable by the unprivileged child
  }
  ~ScratchDir() {
    std::error_code ignored;
    for (const auto& entry : fs::recursive_directory_iterator(path_, ignored))
      if (entry.is_directory(ignored) && !entry.is_symlink(ignored))
        ::chmod(entry.path().c_str(), 0755);
    fs::remove_all(path_, ignored);
  }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }
  std::set<std::string> names() const {
    std::set<std::string> found;
    for (const auto& entry : fs::directory_iterator(path_)) found.insert(entry.path().filename());
    return found;
  }

 private:
  std::string path_;
};

void put(const std::string& path, const std::string& bytes, mode_t mode = 0644) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
  ASSERT_EQ(::chmod(path.c_str(), mode), 0);
}

struct stat statOf(const std::string& path) {
  struct stat info {};
  ::lstat(path.c_str(), &info);
  return info;
}

// Runs `body` in a child process and answers its exit status, or -1 when it
// did not end within `limit` (it is then killed).
int inChild(const std::function<int()>& body,
            std::chrono::milliseconds limit = std::chrono::seconds(3)) {
  const pid_t pid = ::fork();
  if (pid == 0) ::_exit(body());
  const auto deadline = std::chrono::steady_clock::now() + limit;
  int status = 0;
  while (::waitpid(pid, &status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() > deadline) {
      ::kill(pid, SIGKILL);
      ::waitpid(pid, &status, 0);
      return -1;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

TEST(FileReplacement, ReplacesWhatAWriteThroughThePathWouldReach) {
  struct Case {
    const char* name;
    std::function<void(const ScratchDir&)> setUp;
    std::string path;  // what is written
    bool answer;
    const char* reaches;  // the file that then holds "new", or null
    std::set<std::string> names;
  } cases[] = {
      {"plain file", [](const ScratchDir& d) { put(d / "f", "old"); }, "f", true, "f", {"f"}},
      {"new file", [](const ScratchDir&) {}, "f", true, "f", {"f"}},
      {"link",
       [](const ScratchDir& d) {
         put(d / "f", "old");
         fs::create_symlink(d / "f", d / "l");
       },
       "l",
       true,
       "f",
       {"f", "l"}},
      {"relative chain",
       [](const ScratchDir& d) {
         put(d / "f", "old");
         fs::create_directory(d / "sub");
         fs::create_symlink("../f", d / "sub/b");
         fs::create_symlink("sub/b", d / "l");
       },
       "l",
       true,
       "f",
       {"f", "l", "sub"}},
      {"dangling link",
       [](const ScratchDir& d) { fs::create_symlink("f", d / "l"); },
       "l",
       true,
       "f",
       {"f", "l"}},
      {"link loop",
       [](const ScratchDir& d) {
         fs::create_symlink("b", d / "a");
         fs::create_symlink("a", d / "b");
       },
       "a",
       false,
       nullptr,
       {"a", "b"}},
      {"folder",
       [](const ScratchDir& d) { fs::create_directory(d / "f"); },
       "f",
       false,
       nullptr,
       {"f"}},
      {"missing folder", [](const ScratchDir&) {}, "no/f", false, nullptr, {}},
      {"long name",
       [](const ScratchDir& d) { put(d / std::string(255, 'n'), "old"); },
       std::string(255, 'n'),
       true,
       nullptr,
       {std::string(255, 'n')}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ScratchDir dir;
    c.setUp(dir);
    LogCapture log;
    EXPECT_EQ(FileReplacement::replace(dir / c.path, "new"), c.answer);
    EXPECT_EQ(log.lines().size(), c.answer ? 0u : 1u);
    if (c.reaches) {
      EXPECT_EQ(readFile(dir / c.reaches), "new");
    }
    EXPECT_EQ(dir.names(), c.names);
    for (const std::string& name : c.names) {
      if (name.starts_with("l")) {
        EXPECT_TRUE(fs::is_symlink(dir / name)) << name;
      }
    }
  }
}

TEST(FileReplacement, KeepsModeAndOwnerAndCreatesWithTheUmask) {
  ScratchDir dir;
  const bool root = ::geteuid() == 0;
  for (mode_t mode : {0640, 0755, 0444, 0600, 02755, 04711}) {
    SCOPED_TRACE(mode);
    const std::string path = dir / "f";
    put(path, "old", mode);
    if (root) {
      ASSERT_EQ(::chown(path.c_str(), 65534, 65534), 0);
    }
    ASSERT_EQ(::chmod(path.c_str(), mode), 0);  // chown cleared the set-id bits
    const struct stat before = statOf(path);
    ASSERT_TRUE(FileReplacement::replace(path, "new"));
    const struct stat after = statOf(path);
    EXPECT_EQ(after.st_mode & 07777, before.st_mode & 07777);
    EXPECT_EQ(after.st_uid, before.st_uid);
    EXPECT_EQ(after.st_gid, before.st_gid);
    EXPECT_NE(after.st_ino, before.st_ino) << "replaced by rename";
  }
  struct {
    mode_t umask, newFileMode, mode;
  } created[] = {{022, 0666, 0644}, {077, 0666, 0600}, {002, 0600, 0600}};
  for (const auto& c : created) {
    SCOPED_TRACE(c.umask);
    const std::string path = dir / ("n" + std::to_string(c.umask));
    const mode_t saved = ::umask(c.umask);
    const bool written = FileReplacement::replace(path, "new", c.newFileMode);
    ::umask(saved);
    ASSERT_TRUE(written);
    EXPECT_EQ(statOf(path).st_mode & 07777, c.mode);
  }
}

TEST(FileReplacement, HardLinksStayLinked) {
  ScratchDir dir;
  put(dir / "f", "old contents, longer than the new");
  ASSERT_EQ(::link((dir / "f").c_str(), (dir / "g").c_str()), 0);
  FileReplacement replacement(dir / "g");
  ASSERT_TRUE(replacement.write("ne") && replacement.write("w"));
  EXPECT_EQ(readFile(dir / "f"), "old contents, longer than the new") << "untouched until commit";
  ASSERT_TRUE(replacement.commit());
  EXPECT_EQ(readFile(dir / "f"), "new");
  EXPECT_EQ(statOf(dir / "f").st_ino, statOf(dir / "g").st_ino);
  EXPECT_EQ(dir.names(), (std::set<std::string>{"f", "g"}));
}

TEST(FileReplacement, RefusesSpecialFilesWithoutBlocking) {
  ScratchDir dir;
  ASSERT_EQ(::mkfifo((dir / "pipe").c_str(), 0666), 0);
  const int sock = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::snprintf(address.sun_path, sizeof address.sun_path, "%s", (dir / "sock").c_str());
  ASSERT_EQ(::bind(sock, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ::close(sock);
  fs::create_symlink("/dev/null", dir / "null");
  for (const char* name : {"pipe", "sock", "null"}) {
    SCOPED_TRACE(name);
    const std::string path = dir / name;
    EXPECT_EQ(inChild([&] { return FileReplacement::replace(path, "new") ? 0 : 1; }), 1);
  }
  EXPECT_EQ(dir.names(), (std::set<std::string>{"pipe", "sock", "null"}));
}

TEST(FileReplacement, RemovesOnlyTemporariesWhoseWriterDied) {
  ScratchDir dir;
  put(dir / "f", "old");
  put(dir / ".f.~qv-short", "not one of ours");      // not the name form
  put(dir / ".g.~qv-dead0002", "another target's");  // another target's
  fs::create_symlink("f", dir / ".f.~qv-link0003");  // not a regular file
  fs::create_directory(dir / ".f.~qv-fold0004");

  FileReplacement live(dir / "f");  // holds its own, locked
  ASSERT_TRUE(live.isOpen() && live.write("first"));
  put(dir / ".f.~qv-dead0001", "stale");  // its writer was killed
  const std::set<std::string> withLive = dir.names();
  ASSERT_EQ(withLive.size(), 7u);
  ASSERT_TRUE(FileReplacement::replace(dir / "f", "second"));
  EXPECT_EQ(readFile(dir / "f"), "second");
  std::set<std::string> expected = withLive;
  expected.erase(".f.~qv-dead0001");
  EXPECT_EQ(dir.names(), expected);
  ASSERT_TRUE(live.commit());
  EXPECT_EQ(readFile(dir / "f"), "first");
  expected = {"f", ".f.~qv-short", ".g.~qv-dead0002", ".f.~qv-link0003", ".f.~qv-fold0004"};
  EXPECT_EQ(dir.names(), expected);
}

// Past the file-size limit (a full disk, as far as the writer can tell) or
// when abandoned, nothing of the new contents reaches the file.
TEST(FileReplacement, AFailedReplacementLeavesTheOldFile) {
  ScratchDir dir;
  put(dir / "f", "old");
  put(dir / "h", "old");
  ASSERT_EQ(::link((dir / "h").c_str(), (dir / "h2").c_str()), 0);
  for (const char* name : {"f", "h"}) {
    SCOPED_TRACE(name);
    const std::string path = dir / name;
    EXPECT_EQ(inChild([&] {
                ::signal(SIGXFSZ, SIG_IGN);
                rlimit limit{};
                ::getrlimit(RLIMIT_FSIZE, &limit);
                limit.rlim_cur = 1000;
                ::setrlimit(RLIMIT_FSIZE, &limit);
                return FileReplacement::replace(path, std::string(4096, 'x')) ? 0 : 1;
              }),
              1);
    EXPECT_EQ(readFile(path), "old");
    {
      FileReplacement abandoned(path);
      ASSERT_TRUE(abandoned.write("new"));
    }
    EXPECT_EQ(readFile(path), "old");
  }
  EXPECT_EQ(dir.names(), (std::set<std::string>{"f", "h", "h2"}));
}

// What an unprivileged process may write, it writes; what it may not, it
// answers false for and leaves alone.
TEST(FileReplacement, PermissionsBindAnUnprivilegedWriter) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to become another user";
  struct Case {
    const char* name;
    mode_t fileMode, folderMode;
    uid_t owner;
    bool answer;
  } cases[] = {
      {"read-only file", 0444, 0777, 65534, false},
      {"writable file, read-only folder", 0666, 0555, 0, true},
      {"new file, read-only folder", 0, 0555, 0, false},
      {"someone else's file", 0644, 0777, 0, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ScratchDir dir;
    const std::string folder = dir / "d", path = dir / "d/f";
    fs::create_directory(folder);
    if (c.fileMode) {
      put(path, "old", c.fileMode);
      ASSERT_EQ(::chown(path.c_str(), c.owner, c.owner), 0);
    }
    ASSERT_EQ(::chmod(folder.c_str(), c.folderMode), 0);
    const ino_t inode = statOf(path).st_ino;
    const int status = inChild([&] {
      if (::setgroups(0, nullptr) != 0 || ::setgid(65534) != 0 || ::setuid(65534) != 0) return 2;
      return FileReplacement::replace(path, "new") ? 0 : 1;
    });
    EXPECT_EQ(status, c.answer ? 0 : 1);
    EXPECT_EQ(readFile(path), c.answer ? "new" : c.fileMode ? "old" : "<missing>");
    EXPECT_EQ(statOf(path).st_ino, inode);
    EXPECT_EQ(std::distance(fs::directory_iterator(folder), fs::directory_iterator()),
              c.fileMode ? 1 : 0)
        << "no temporary left";
  }
}

}  // namespace
}  // namespace quarvel
