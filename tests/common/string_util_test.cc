#include <gtest/gtest.h>

#include <tuple>

#include "common/StringUtil.h"

namespace quarvel {

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

}  // namespace quarvel
