// The log, the text helpers and the caseless numeric order.

#include <gtest/gtest.h>

#include <thread>
#include <tuple>

#include "common/Log.h"
#include "common/StringUtil.h"
#include "common/TextCompare.h"

namespace quarvel {
namespace {

TEST(Log, CaptureRecordsWholeFormattedLinesFromEveryThread) {
  LogCapture capture;
  logf("%s(%d) // %s", "-[X y]", 85, "FAIL");
  std::thread([] { logLine("from another thread"); }).join();
  const std::string big(5000, 'x');
  logf("%s!", big.c_str());
  EXPECT_EQ(capture.lines(),
            (std::vector<std::string>{"-[X y](85) // FAIL", "from another thread", big + "!"}));
}

// Debug lines reach captures even when debug logging is off.
TEST(Log, NestedCapturesReceiveLinesInnermostFirst) {
  setDebugLogging(false);
  LogCapture outer;
  {
    LogCapture inner;
    logLine("a");
    EXPECT_TRUE(inner.contains("a"));
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

}  // namespace
}  // namespace quarvel
