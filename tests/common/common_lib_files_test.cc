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
#include <tuple>

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

TEST(CommonLibDatesTest, StampsAreLocalTimeAndCreationFallsBackToModification) {
  useTimeZone("KST-9");
  EXPECT_EQ(detail::fileDateStamp(k20140307_090503_utc - 9 * 3600), "20140307_090503");
  EXPECT_EQ(detail::fileDateStamp(k20140307_090503_utc), "20140307_180503");

  // The same clock as getToday's: time() reads a coarser one, which can
  // still show the previous second when the precise clock has turned.
  const auto now = [] {
    return detail::fileDateStamp(
        std::chrono::system_clock::to_time_t(std::chrono::system_clock::now()));
  };
  const std::string before = now(), today = CommonLib::getToday(), after = now();
  ASSERT_EQ(today.size(), 14u);
  EXPECT_LE(before, today.substr(0, 8) + "_" + today.substr(8));
  EXPECT_LE(today.substr(0, 8) + "_" + today.substr(8), after);

  // A birth time missing from the mask or at the epoch is none.
  for (auto [mask, birth, expected] : {std::tuple{STATX_BTIME | STATX_MTIME, 1000, 1000},
                                       {STATX_MTIME, 1000, 5000},
                                       {STATX_BTIME | STATX_MTIME, 0, 5000}}) {
    struct statx info {};
    info.stx_mask = mask;
    info.stx_btime.tv_sec = birth;
    info.stx_mtime.tv_sec = 5000;
    EXPECT_EQ(detail::creationTime(info), expected) << mask << " " << birth;
  }
}

TEST(CommonLibDatesTest, FileDatesFollowLinksAndUseBirthAndAccessTimes) {
  useTimeZone("UTC0");
  ScratchDir dir;
  const std::string file = dir / "file";
  const std::string before = detail::fileDateStamp(std::time(nullptr));
  std::ofstream(file) << "x";
  const std::string after = detail::fileDateStamp(std::time(nullptr));
  // Moving the modification time far back shows which time is read.
  const struct timespec times[2] = {{k20140307_090503_utc, 0}, {k20140307_090503_utc - 86400, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
  ASSERT_EQ(symlink(file.c_str(), (dir / "link").c_str()), 0);
  struct statx info {};
  ASSERT_EQ(statx(AT_FDCWD, file.c_str(), 0, STATX_BTIME, &info), 0);
  const bool hasBirth = (info.stx_mask & STATX_BTIME) && info.stx_btime.tv_sec != 0;
  for (const std::string& path : {file, dir / "link"}) {
    EXPECT_EQ(CommonLib::getFileAccessDate(path.c_str()), "20140307_090503") << path;
    const std::string created = CommonLib::getFileCreateDate(path.c_str());
    if (hasBirth) {
      EXPECT_LE(before, created);
      EXPECT_LE(created, after);
    } else {
      EXPECT_EQ(created, "20140306_090503");
    }
  }
}

TEST(CommonLibFilesTest, ExistenceAndFolderTests) {
  ScratchDir dir;
  std::ofstream(dir / "file") << "x";
  fs::create_directory(dir / "folder");
  fs::create_directory_symlink(dir / "folder", dir / "folder-link");
  fs::create_symlink(dir / "missing", dir / "dangling-link");
  const std::string tooLong = dir.path() + "/" + std::string(5000, 'a');
  const std::tuple<std::string, bool, bool> cases[] = {
      // path, exists, is a folder
      {dir / "file", true, false},       {dir / "folder", true, true},
      {dir / "folder-link", true, true}, {dir / "dangling-link", false, false},
      {dir / "missing", false, false},   {dir / "file/below-a-file", false, false},
      {tooLong, false, false},           {"", false, false}};
  for (const auto& [path, exists, directory] : cases) {
    EXPECT_EQ(CommonLib::isExists(path.c_str()), exists) << path;
    EXPECT_EQ(CommonLib::isDirectory(path.c_str()), directory) << path;
    if (!exists) {
      EXPECT_EQ(CommonLib::getFileCreateDate(path.c_str()), "");
      EXPECT_EQ(CommonLib::getFileAccessDate(path.c_str()), "");
    }
  }
  EXPECT_FALSE(CommonLib::isExists(nullptr));
  EXPECT_FALSE(CommonLib::isDirectory(nullptr));
  EXPECT_EQ(CommonLib::getFileCreateDate(nullptr), "");
  EXPECT_EQ(CommonLib::getFileAccessDate(nullptr), "");
}

TEST(CommonLibFilesTest, MkdirsMakesTheChainAndTheLastFolderOnlyWhenAsked) {
  ScratchDir dir;
  std::ofstream(dir / "plain") << "x";
  std::string deep = dir.path();  // cut at 1024 bytes, inside a component
  while (deep.size() < 1100) deep += "/" + std::string(200, 'p');
  const std::string cut = deep.substr(0, 1024);
  ASSERT_NE(cut.back(), '/');
  // The path, whether to make its last component, a folder then there and a
  // path then absent.
  const std::tuple<std::string, bool, std::string, std::string> cases[] = {
      {dir / "a/b/c", true, dir / "a/b/c", ""},
      {dir / "d/e/file.dat", false, dir / "d/e", dir / "d/e/file.dat"},
      {dir / "f/g/", false, dir / "f/g", ""},        // a trailing '/' makes the last
      {dir / "plain/h", true, "", dir / "plain/h"},  // a file in the way stops quietly
      {deep, false, cut.substr(0, cut.rfind('/')), cut},
      {deep, true, cut, cut + "p"},
  };
  for (const auto& [path, last, made, absent] : cases) {
    // In a heap block of exactly its size, so that the address sanitizer
    // catches a read past the end.
    auto copy = std::make_unique<char[]>(path.size() + 1);
    std::memcpy(copy.get(), path.c_str(), path.size() + 1);
    CommonLib::mkdirs(copy.get(), last);
    EXPECT_TRUE(made.empty() || CommonLib::isDirectory(made.c_str())) << made;
    EXPECT_TRUE(absent.empty() || !CommonLib::isExists(absent.c_str())) << absent;
  }
  EXPECT_EQ(fs::status(dir / "a/b").permissions() & fs::perms::owner_all, fs::perms::owner_all);
  CommonLib::mkdirs(nullptr);
  const fs::path previous = fs::current_path();  // relative to the current folder
  fs::current_path(dir.path());
  CommonLib::mkdirs("x/y");
  fs::current_path(previous);
  EXPECT_TRUE(CommonLib::isDirectory((dir / "x/y").c_str()));
}

TEST(CommonLibSystemTest, VersionTextFromOsReleaseAndKernel) {
  const std::tuple<const char*, const char*, const char*> cases[] = {
      {"# comment\n\nNAME=Fedora\r\nVERSION_ID=39\r\n", "6.5.6", "Fedora 39 (Kernel 6.5.6)"},
      {"NAME='Odd \"Linux\"'\nVERSION=\"1 \\\"beta\\\"\"\n", "5.0",
       "Odd \"Linux\" 1 \"beta\" (Kernel 5.0)"},
      {"PRETTY_NAME=\"Arch Linux\"\nVERSION_ID=rolling\n", "6.6", "Arch Linux (Kernel 6.6)"},
      {"", "6.6", "Linux (Kernel 6.6)"},
      {"garbage without equals\n", "", "Linux"},
      {"NAME=\"\nVERSION='\n", "6.6", "\" ' (Kernel 6.6)"},
  };
  for (const auto& [osRelease, kernel, expected] : cases)
    EXPECT_EQ(detail::systemVersionText(osRelease, kernel), expected) << osRelease;

  struct utsname names {};
  ASSERT_EQ(uname(&names), 0);
  const std::string version = CommonLib::getOSXVersion();
  EXPECT_NE(version.find(std::string(" (Kernel ") + names.release + ")"), std::string::npos)
      << version;
  EXPECT_GT(version.find(" (Kernel "), 0u) << version;  // a name comes first
}

}  // namespace
}  // namespace quarvel
