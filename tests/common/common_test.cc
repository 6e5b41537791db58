// The log, the text helpers, the caseless numeric order, the folding (held to
// the passes of FoldingReference.h), the file and system helpers of CommonLib
// and the atomic file replacement.

#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unicode/locid.h>
#include <unicode/normalizer2.h>
#include <unicode/unistr.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "common/FileReplacement.h"
#include "common/FoldingReference.h"
#include "common/Log.h"
#include "common/StringUtil.h"
#include "common/TextCompare.h"
#include "common/detail/CommonLibDetail.h"
#include "common/detail/FoldingRows.h"
#include "quarvel/CommonLib.h"
#include "support/FileText.h"
#include "support/ScratchDir.h"
#include "support/TestPlatform.h"

namespace quarvel {
namespace {

namespace fs = std::filesystem;
using foldref::referenceFold;
using testing::readFile;
using testing::ScratchDir;

// A capture takes whole formatted lines from every thread; nested captures
// receive lines innermost first, debug lines even when debug logging is off.
TEST(Log, CapturesWholeLinesFromEveryThreadInnermostFirst) {
  setDebugLogging(false);
  LogCapture outer;
  {
    LogCapture inner;
    logf("%s(%d) // %s", "-[X y]", 85, "FAIL");
    std::thread([] { logLine("from another thread"); }).join();
    const std::string big(5000, 'x');
    logf("%s!", big.c_str());
    EXPECT_EQ(inner.lines(),
              (std::vector<std::string>{"-[X y](85) // FAIL", "from another thread", big + "!"}));
  }
  logDebugf("%s\n", "#HEADER_START");
  EXPECT_EQ(outer.lines(), std::vector<std::string>{"#HEADER_START\n"});
}

TEST(LogEcho, StandardErrorGetsWhatTheEchoLevelLetsThrough) {
  for (auto [echo, expected] : {std::pair{LogEcho::kAll, "a notice 1\na warning 2\n"},
                                {LogEcho::kWarnings, "a warning 2\n"},
                                {LogEcho::kNone, ""}}) {
    setLogEcho(echo);
    ::testing::internal::CaptureStderr();
    logf("a notice %d", 1);
    logWarningf("a warning %d", 2);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), expected);
  }
  setLogEcho(LogEcho::kAll);
}

TEST(StringUtil, SplitKeepsEveryEmptyField) {
  EXPECT_EQ(split("", "\t"), std::vector<std::string>{""});
  EXPECT_EQ(split(",a,", ","), (std::vector<std::string>{"", "a", ""}));
  EXPECT_EQ(split("a\t\tc", "\t"), (std::vector<std::string>{"a", "", "c"}));
  EXPECT_EQ(split("a::b", "::"), (std::vector<std::string>{"a", "b"}));
}

TEST(StringUtil, LowercaseIsFullUnicode) {
  EXPECT_EQ(lowercase("ACME\tEditor"), "acme\teditor");
  EXPECT_EQ(lowercase("\u0130"), "i\u0307");
  EXPECT_EQ(lowercase("\u03A3\u0391\u03A3"), "\u03C3\u03B1\u03C2");
  EXPECT_EQ(lowercase("한글 ÀB"), "한글 àb");
}

TEST(StringUtil, TrimsTheListedWhiteSpaceOnly) {
  EXPECT_EQ(trimWhitespace(" \t\u3000a b\u00A0"), "a b");
  EXPECT_EQ(trimWhitespace("\na\n"), "\na\n");
  EXPECT_EQ(trimWhitespace("\u2000\u200Ba\u200B"), "a");
  EXPECT_EQ(trimWhitespace("\u200Ca\u1FFF"), "\u200Ca\u1FFF");
  EXPECT_EQ(trimWhitespaceAndNewlines("\r\n 1.2.3.4\n\u2028"), "1.2.3.4");
  EXPECT_EQ(trimWhitespaceAndNewlines(" \n "), "");
}

TEST(StringUtil, PathComponents) {
  const std::tuple<const char*, const char*, const char*> cases[] = {
      // path, last, parent
      {"a/", "a", ""}, {"/a/b/", "b", "/a"}, {"ver.dat", "ver.dat", ""}, {"/tmp", "tmp", "/"},
      {"/", "/", "/"}, {"", "", ""},         {"//a//b", "b", "/a"}};
  for (const auto& [path, last, parent] : cases) {
    EXPECT_EQ(lastPathComponent(path), last) << path;
    EXPECT_EQ(deletingLastPathComponent(path), parent) << path;
  }
}

TEST(StringUtil, Utf16LengthCountsSurrogatePairsTwice) {
  EXPECT_EQ(utf16Length("x=1&y=2"), 7u);
  EXPECT_EQ(utf16Length("éa"), 2u);
  EXPECT_EQ(utf16Length("\U0001F600"), 2u);
  EXPECT_FALSE(isValidUtf8("\xC3"));
}

int sign(int v) { return (v > 0) - (v < 0); }

// Digit runs compare by value; case folding is full but literal; stray
// bytes keep their place. Each pair is checked both ways and through the
// sort keys as well.
TEST(TextCompare, OrdersPairsBothWaysAndThroughTheSortKeys) {
  const std::tuple<const char*, const char*, int> pairs[] = {
      {"a2", "a10", -1},
      {"v1.2.10", "v1.2.9", 1},
      {"A1B2", "a01b02", 0},
      {"18446744073709551616", "0", 0},  // wraps
      {"18446744073709551615", "18446744073709551614", 1},
      {"12", "1a", 1},
      {"1", "1a", -1},
      {"\xEF\xBC\x91", "2", 1},  // a fullwidth digit is an ordinary character
      {"xyz", "XYZ", 0},
      {"@", "`", -1},
      {"9", "a", -1},
      {".", "1", -1},
      {"_", "a", -1},
      {"[", "A", -1},
      {"\xC3\x89", "\xC3\xA9", 0},  // É é
      {"\xC3\xA9", "f", 1},         // é after f
      {"\xC3\x9F", "ss", 0},        // ß
      {"\xC3\x9F", "st", -1},
      {"s", "\xC3\x9F", -1},
      {"\xC4\xB0", "i\xCC\x87", 0},                  // İ and i + dot above
      {"\xC4\xB1", "i", 1},                          // dotless i stays
      {"\xCF\x82", "\xCE\xA3", 0},                   // final sigma, capital sigma
      {"\xEF\xAC\x80", "ff", 0},                     // ff ligature
      {"\xE2\x84\xAA", "K", 0},                      // Kelvin sign
      {"\xC3\xA9", "e\xCC\x81", 1},                  // no canonical equivalence
      {"\xEE\x80\x80", "\xF0\x90\x80\x80", -1},      // code point order, not UTF-16
      {"\xF0\x90\x90\x80", "\xF0\x90\x90\xA8", -1},  // no folding beyond the BMP
      {"\xEA\xB0\x80", "\xEB\x82\x98", -1},          // Hangul by code point
      // A prefix comes first; stray bytes compare as U+DC80..U+DCFF.
      {"", "", 0},
      {"", "a", -1},
      {"abc", "abcd", -1},
      {"\xFF", "\xFE", 1},
      {"\xFF", "\xEF\xBF\xBD", -1},  // U+DCFF before U+FFFD
      {"a\xC3", "a", 1},
      {"a\xC3", "a\xC3", 0},
      {"\xC3\x61", "\xC3\x42", -1},  // a, B after a stray byte
  };
  for (const auto& [a, b, order] : pairs) {
    EXPECT_EQ(compareCaselessNumeric(a, b), order) << a << " vs " << b;
    EXPECT_EQ(compareCaselessNumeric(b, a), -order) << a << " vs " << b;
    EXPECT_EQ(sign(caselessNumericSortKey(a).compare(caselessNumericSortKey(b))), order)
        << a << " vs " << b;
  }
}

std::string fast(std::string_view text) { return CommonLib::encodingForSpecialCharacter(text); }

// Ÿ has no row: row 58 (ÿ) catches it, as row 37 (å) catches Å before row 61
// would; small letters are caught by capitals; removing ¼ joins G and the
// tilde. Nothing is normalised: what no row catches keeps its code points.
TEST(FoldingTest, FoldsTheDocumentedExamplesAndLeavesTheRestLikeThePasses) {
  const std::pair<const char*, const char*> folds[] = {
      {"Crème brûlée", "CrEme brUlEe"},
      {"Ångström", "angstrOm"},
      {"\u0178", "y"},
      {"\u00FF", "y"},
      {"\u00BD size", " size"},
      {"e\u0301", "E"},
      {"G\u00BC\u0303", "G"},
      {"n\u00BE\u0308x", "Nx"},
      {"\u00A6 \u00AF \u00B5", "| ? \u03BC"},
      {"\u03BC\u039C", "\u03BC\u03BC"},
      {"\u00E5\u00C5\u212B", "aaa"},
      {"\u00E9\u00F1\u00FC\u0142", "ENUL"},
      {"\u0131\u0130", "iI"},
      {"\u212A\u030C \u017F\u0301", "K S"},
      {"g\u0303 \u1E96 h\u0331 \u01F0 n\u0308 \u1E97", "G H H J N T"}};
  for (const auto& [text, folded] : folds) {
    EXPECT_EQ(referenceFold(text), folded) << text;
    EXPECT_EQ(fast(text), folded) << text;
  }
  for (const char* same : {"\u017C\u017B\u0140\u00DF\u00E6\u0153\u00FE\u00F0",
                           "\uD55C\uAD6D\uC5B4 ASCII 123 \u1100\u1161", "", "e\u0301\u0301",
                           "\u00E9\u0323", "e\u0323\u0301", "\u00B5\u0301", "\u00A6\u034F",
                           "\u00BC\u034F", "\u01FF", "\u1EA5", "a\u200D\u0301"}) {
    EXPECT_EQ(referenceFold(same), same);
    EXPECT_EQ(fast(same), same);
  }
  EXPECT_EQ(fast("\xFF\xFE abc \xC3"), "\xFF\xFE abc \xC3");  // ill-formed bytes pass through
}

// `s` as it is, upper-cased, lower-cased, decomposed or composed.
icu::UnicodeString transformed(icu::UnicodeString u, int how) {
  UErrorCode status = U_ZERO_ERROR;
  if (how == 1) u.toUpper(icu::Locale::getRoot());
  if (how == 2) u.toLower(icu::Locale::getRoot());
  if (how == 3) u = icu::Normalizer2::getNFDInstance(status)->normalize(u, status);
  if (how == 4) u = icu::Normalizer2::getNFCInstance(status)->normalize(u, status);
  return u;
}

// The fast scan against the passes: every target in its own form, both
// cases, composed and decomposed, after nothing or ¼, before each context
// (marks, joiners, jamo, symbols, letters with special folding, a few
// pairs); then random mixtures of all these.
TEST(FoldingTest, FastScanAgreesWithThePasses) {
  std::set<std::string> forms;
  for (const auto& row : folding::kFoldingRows) {
    const icu::UnicodeString target(false, row.target.data(), int32_t(row.target.size()));
    for (int how = 0; how <= 4; ++how) {
      for (const auto& form :
           {transformed(target, how), transformed(transformed(target, how), 3)}) {
        std::string utf8;
        forms.insert(form.toUTF8String(utf8));
      }
    }
  }
  std::vector<std::string> contexts = {"", "\u00BD\u00BE", "\u00BC\u0301", "\u00BD\u0308"};
  for (char32_t c : std::u32string_view(
           U" xGn1\uD55C\u1100\u00BC\u0301\u0303\u0308\u0323\u0331\u030C\u0340\u034F\u0345"
           U"\u200C\u200D\uFE0F\U0001F3FB\u00B5\u039C\u00A6\u00AF\u00DF\u017F\u212A\u212B"
           U"\u0130\u0131\u0178\u01FF\uFB05\U00010400")) {
    contexts.emplace_back();
    icu::UnicodeString(static_cast<UChar32>(c)).toUTF8String(contexts.back());
  }
  for (const auto& form : forms) {
    for (const auto& before : {"", "\u00BC"}) {
      for (const auto& after : contexts) {
        const std::string text = before + form + after;
        ASSERT_EQ(fast(text), referenceFold(text)) << text;
      }
    }
  }
  std::vector<std::string> pieces(forms.begin(), forms.end());
  pieces.insert(pieces.end(), contexts.begin(), contexts.end());
  std::mt19937 random(20240611);
  std::uniform_int_distribution<std::size_t> pick(0, pieces.size() - 1);
  std::uniform_int_distribution<int> count(1, 10);
  for (int round = 0; round < 3000; ++round) {
    std::string text;
    for (int n = count(random); n > 0; --n) text += pieces[pick(random)];
    ASSERT_EQ(fast(text), referenceFold(text)) << text;
  }
}

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
  EXPECT_EQ(
      std::tuple(CommonLib::isExists(nullptr), CommonLib::isDirectory(nullptr),
                 CommonLib::getFileCreateDate(nullptr), CommonLib::getFileAccessDate(nullptr)),
      std::tuple(false, false, "", ""));
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
