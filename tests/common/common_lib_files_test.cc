#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "common/detail/CommonLibDetail.h"
#include "quarvel/CommonLib.h"
#include "support/ScratchDir.h"

namespace quarvel {
namespace {

namespace fs = std::filesystem;
using testing::ScratchDir;

constexpr std::time_t k20140307_090503_utc = 1394183103;

void useTimeZone(const char* tz) {
  setenv("TZ", tz, 1);
  tzset();
}

void writeFile(const std::string& path) { std::ofstream(path) << "x"; }

void setTimes(const std::string& path, std::time_t access, std::time_t modification) {
  struct timespec times[2] = {{access, 0}, {modification, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

TEST(CommonLibDatesTest, StampsPadEveryFieldToTwoDigitsInLocalTime) {
  useTimeZone("KST-9");
  EXPECT_EQ(detail::fileDateStamp(k20140307_090503_utc - 9 * 3600), "20140307_090503");
  EXPECT_EQ(detail::fileDateStamp(k20140307_090503_utc), "20140307_180503");
  useTimeZone("UTC0");
  EXPECT_EQ(detail::fileDateStamp(1704067198), "20231231_235958");

  // The same clock as getToday's: time() reads a coarser one, which can
  // still show the previous second when the precise clock has turned.
  auto now = [] { return std::chrono::system_clock::to_time_t(std::chrono::system_clock::now()); };
  const std::string before = detail::fileDateStamp(now());
  const std::string today = CommonLib::getToday();
  const std::string after = detail::fileDateStamp(now());
  ASSERT_EQ(today.size(), 14u);
  EXPECT_EQ(today.find_first_not_of("0123456789"), std::string::npos);
  const std::string asFileStamp = today.substr(0, 8) + "_" + today.substr(8);
  EXPECT_LE(before, asFileStamp);
  EXPECT_LE(asFileStamp, after);
}

TEST(CommonLibDatesTest, CreationTimeFallsBackToModificationWithoutBirthTime) {
  struct Case {
    const char* name;
    unsigned mask;
    std::int64_t birth;
    std::time_t expected;
  };
  const Case cases[] = {
      {"birth time recorded", STATX_BTIME | STATX_MTIME, 1000, 1000},
      {"no birth time in the mask", STATX_MTIME, 1000, 5000},
      {"birth time at the epoch", STATX_BTIME | STATX_MTIME, 0, 5000},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    struct statx info {};
    info.stx_mask = c.mask;
    info.stx_btime.tv_sec = c.birth;
    info.stx_mtime.tv_sec = 5000;
    EXPECT_EQ(detail::creationTime(info), c.expected);
  }
}

TEST(CommonLibDatesTest, FileDatesFollowLinksAndUseBirthAndAccessTimes) {
  useTimeZone("UTC0");
  ScratchDir dir;
  const std::string file = dir / "file";
  const std::string before = detail::fileDateStamp(std::time(nullptr));
  writeFile(file);
  const std::string after = detail::fileDateStamp(std::time(nullptr));
  // Moving the modification time far back shows which time is read.
  setTimes(file, k20140307_090503_utc, k20140307_090503_utc - 86400);
  ASSERT_EQ(symlink(file.c_str(), (dir / "link").c_str()), 0);

  for (const std::string& path : {file, dir / "link"}) {
    SCOPED_TRACE(path);
    EXPECT_EQ(CommonLib::getFileAccessDate(path.c_str()), "20140307_090503");
    const std::string created = CommonLib::getFileCreateDate(path.c_str());
    struct statx info {};
    ASSERT_EQ(statx(AT_FDCWD, file.c_str(), 0, STATX_BTIME, &info), 0);
    if ((info.stx_mask & STATX_BTIME) && info.stx_btime.tv_sec != 0) {
      EXPECT_LE(before, created);
      EXPECT_LE(created, after);
    } else {
      EXPECT_EQ(created, "20140306_090503");
    }
  }
}

TEST(CommonLibFilesTest, ExistenceAndFolderTests) {
  ScratchDir dir;
  writeFile(dir / "file");
  fs::create_directory(dir / "folder");
  fs::create_directory_symlink(dir / "folder", dir / "folder-link");
  fs::create_symlink(dir / "missing", dir / "dangling-link");
  const std::string tooLong = dir.path() + "/" + std::string(5000, 'a');

  struct Case {
    std::string path;
    bool exists;
    bool directory;
  };
  const Case cases[] = {
      {dir / "file", true, false},       {dir / "folder", true, true},
      {dir / "folder-link", true, true}, {dir / "dangling-link", false, false},
      {dir / "missing", false, false},   {dir / "file/below-a-file", false, false},
      {tooLong, false, false},           {"", false, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.path);
    EXPECT_EQ(CommonLib::isExists(c.path.c_str()), c.exists);
    EXPECT_EQ(CommonLib::isDirectory(c.path.c_str()), c.directory);
    if (!c.exists) {
      EXPECT_EQ(CommonLib::getFileCreateDate(c.path.c_str()), "");
      EXPECT_EQ(CommonLib::getFileAccessDate(c.path.c_str()), "");
    }
  }
  EXPECT_FALSE(CommonLib::isExists(nullptr));
  EXPECT_FALSE(CommonLib::isDirectory(nullptr));
  EXPECT_EQ(CommonLib::getFileCreateDate(nullptr), "");
  EXPECT_EQ(CommonLib::getFileAccessDate(nullptr), "");
}

// The path in a heap block of exactly its size, so that reading past the end
// is caught by the address sanitizer.
std::unique_ptr<char[]> exactCopy(const std::string& path) {
  auto copy = std::make_unique<char[]>(path.size() + 1);
  std::memcpy(copy.get(), path.c_str(), path.size() + 1);
  return copy;
}

TEST(CommonLibFilesTest, MkdirsMakesTheChainAndTheLastFolderOnlyWhenAsked) {
  ScratchDir dir;
  writeFile(dir / "plain");
  std::string deep = dir.path();  // cut at 1024 bytes, inside a component
  while (deep.size() < 1100) deep += "/" + std::string(200, 'p');
  const std::string cut = deep.substr(0, 1024);
  ASSERT_NE(cut.back(), '/');
  struct Case {
    const char* why;
    std::string path;
    bool last;
    std::string made, absent;
  } cases[] = {
      {"the whole chain", dir / "a/b/c", true, dir / "a/b/c", ""},
      {"without the last", dir / "d/e/file.dat", false, dir / "d/e", dir / "d/e/file.dat"},
      {"a trailing '/' makes the last", dir / "f/g/", false, dir / "f/g", ""},
      {"a file in the way stops quietly", dir / "plain/h", true, "", dir / "plain/h"},
      {"cut without the last", deep, false, cut.substr(0, cut.rfind('/')), cut},
      {"cut", deep, true, cut, cut + "p"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.why);
    CommonLib::mkdirs(exactCopy(c.path).get(), c.last);
    EXPECT_TRUE(c.made.empty() || CommonLib::isDirectory(c.made.c_str()));
    EXPECT_TRUE(c.absent.empty() || !CommonLib::isExists(c.absent.c_str()));
  }
  EXPECT_EQ(fs::status(dir / "a/b").permissions() & fs::perms::owner_all, fs::perms::owner_all);
  CommonLib::mkdirs(nullptr);

  // Relative to the current folder.
  const fs::path previous = fs::current_path();
  fs::current_path(dir.path());
  CommonLib::mkdirs(exactCopy("x/y").get());
  fs::current_path(previous);
  EXPECT_TRUE(CommonLib::isDirectory((dir / "x/y").c_str()));
}

TEST(CommonLibSystemTest, VersionTextFromOsReleaseAndKernel) {
  struct Case {
    const char* osRelease;
    const char* kernel;
    const char* expected;
  };
  const Case cases[] = {
      {"PRETTY_NAME=\"Debian GNU/Linux 12 (bookworm)\"\nNAME=\"Debian GNU/Linux\"\n"
       "VERSION_ID=\"12\"\nVERSION=\"12 (bookworm)\"\nID=debian\n",
       "6.1.0-18-amd64", "Debian GNU/Linux 12 (bookworm) (Kernel 6.1.0-18-amd64)"},
      {"# comment\n\nNAME=Fedora\r\nVERSION_ID=39\r\n", "6.5.6", "Fedora 39 (Kernel 6.5.6)"},
      {"NAME='Odd \"Linux\"'\nVERSION=\"1 \\\"beta\\\"\"\n", "5.0",
       "Odd \"Linux\" 1 \"beta\" (Kernel 5.0)"},
      {"PRETTY_NAME=\"Arch Linux\"\nVERSION_ID=rolling\n", "6.6", "Arch Linux (Kernel 6.6)"},
      {"", "6.6", "Linux (Kernel 6.6)"},
      {"garbage without equals\n", "", "Linux"},
      {"NAME=\"\nVERSION='\n", "6.6", "\" ' (Kernel 6.6)"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.osRelease);
    EXPECT_EQ(detail::systemVersionText(c.osRelease, c.kernel), c.expected);
  }

  struct utsname names {};
  ASSERT_EQ(uname(&names), 0);
  const std::string version = CommonLib::getOSXVersion();
  EXPECT_NE(version.find(std::string(" (Kernel ") + names.release + ")"), std::string::npos)
      << version;
  EXPECT_GT(version.find(" (Kernel "), 0u) << version;  // a name comes first
}

}  // namespace
}  // namespace quarvel
