#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "format/MacKorean.h"

namespace quarvel {
namespace {

std::string bytes2(unsigned lead, unsigned trail) {
  return {static_cast<char>(lead), static_cast<char>(trail)};
}

// Every single code and every two-byte sequence is held to Perl's Encode in
// mac_korean_perl_test.cc; here, the paths that take longer texts.

// Long texts go through the decoder's eight-byte windows and its slices;
// they must read exactly as their codes one by one, and one bad code
// anywhere must fail the whole text.
TEST(MacKorean, LongMixedTextDecodesAsItsCodesOneByOne) {
  std::vector<std::pair<std::string, std::string>> codes;  // bytes, text
  for (unsigned b = 0; b < 0x100; ++b)
    if (auto text = MacKorean::decode(std::string(1, static_cast<char>(b))))
      codes.emplace_back(std::string(1, static_cast<char>(b)), *text);
  for (unsigned lead = 0xA1; lead <= 0xFD; ++lead)
    for (unsigned trail = 0x41; trail <= 0xFE; ++trail)
      if (auto text = MacKorean::decode(bytes2(lead, trail)); text && text->size() >= 2)
        codes.emplace_back(bytes2(lead, trail), *text);
  std::mt19937 rng(9);
  for (int round = 0; round < 200; ++round) {
    std::string bytes, expected;
    const int length = static_cast<int>(rng() % 3000);
    for (int i = 0; i < length; ++i) {
      // Mostly Hangul and spaces, as real text, with everything else mixed in.
      const unsigned lead = 0xB0 + rng() % 25, trail = 0xA1 + rng() % 94;
      const auto& [code, text] =
          rng() % 3 ? std::pair(bytes2(lead, trail), *MacKorean::decode(bytes2(lead, trail)))
                    : codes[rng() % codes.size()];
      bytes += code;
      expected += text;
    }
    SCOPED_TRACE(round);
    ASSERT_EQ(MacKorean::decode(bytes), expected);
    if (bytes.empty()) continue;
    std::string broken = bytes;
    broken.insert(rng() % broken.size(), 1, '\x7F');
    ASSERT_FALSE(MacKorean::decode(broken));
    ASSERT_FALSE(MacKorean::decode(bytes + "\xB0"));
  }
}

// Runs of ASCII of every length, as real lists are made of, cut by codes
// of every kind: the word-wide paths must agree with the one-code paths at
// each boundary, above all where an ASCII character that begins one of
// Apple's multi-character codes ends a run ("1" before U+20DE).
TEST(MacKorean, AsciiRunsOfEveryLengthMeetEveryKindOfCode) {
  const std::string cuts[] = {"\xB0\xA1", "\xA5\x42", "\xA2\xE6", "\x82", "\x80", "\xA1\xB8"};
  std::mt19937 rng(11);
  for (int round = 0; round < 300; ++round) {
    std::string bytes, text;
    for (int piece = 0; piece < 12; ++piece) {
      const std::size_t run = rng() % 41;
      for (std::size_t i = 0; i < run; ++i) {
        // Printable text, tabs and line ends, digits most of all.
        const char c = rng() % 4 == 0
                           ? "\t\r\n"[rng() % 3]
                           : static_cast<char>(rng() % 2 ? '0' + rng() % 10 : 0x20 + rng() % 0x5F);
        bytes += c;
        text += c;
      }
      const std::string& code = cuts[rng() % std::size(cuts)];
      bytes += code;
      text += *MacKorean::decode(code);
    }
    SCOPED_TRACE(round);
    ASSERT_EQ(MacKorean::decode(bytes), text);
    const std::optional<std::string> encoded = MacKorean::encode(text);
    ASSERT_TRUE(encoded);
    ASSERT_EQ(MacKorean::decode(*encoded), text);

    std::size_t at = rng() % (text.size() + 1);
    while (at < text.size() && (static_cast<unsigned char>(text[at]) & 0xC0) == 0x80) ++at;
    std::string withDel = text;
    withDel.insert(at, 1, '\x7F');
    MacKorean::EncodeError error;
    ASSERT_FALSE(MacKorean::encode(withDel, &error));
    EXPECT_EQ(error.character, U'\x7F');
    EXPECT_EQ(error.offset, at);
    std::string bytesWithDel = bytes;
    bytesWithDel.insert(rng() % (bytes.size() + 1), 1, '\x7F');
    ASSERT_FALSE(MacKorean::decode(bytesWithDel));
  }
  // A digit run's last byte before U+20DE joins it, whatever the run's length.
  for (std::size_t run = 1; run < 40; ++run) {
    const std::string digits(run, '1');
    EXPECT_EQ(MacKorean::encode(digits + "\xE2\x83\x9E"), std::string(run - 1, '1') + "\xA5\x42")
        << run;
  }
}

TEST(MacKorean, DecodingRefusesBytesWithoutMapping) {
  for (const std::string bytes : {"\x7F", "\xB0", "ok\xB0", "\xB0\x41", "\xC9\xA1", "\xA0ok"})
    EXPECT_FALSE(MacKorean::decode(bytes)) << ::testing::PrintToString(bytes);
  EXPECT_EQ(MacKorean::decode(""), "");
  EXPECT_EQ(MacKorean::decode("\x80\x81\x83"), "\xC2\xA0\xE2\x82\xA9\xC2\xA9");
}

TEST(MacKorean, MultiCharacterCodesTakeTheLongestMatch) {
  struct Case {
    std::string text, bytes;
  } cases[] = {
      {"\xE3\x80\x8C\xEF\xA1\xBF", "\xA1\x41"},   // U+300C U+F87F
      {"\xE3\x80\x8C", "\xA1\xB8"},               // U+300C alone
      {"1\xE2\x83\x9E\xEF\xA1\xBC", "\xA2\xE6"},  // 1 U+20DE U+F87C
      {"1\xE2\x83\x9E", "\xA5\x42"},              // 1 U+20DE
      {"11\xE2\x83\x9E", "1\xA5\x42"},
      {"\xE2\x80\x93\xEF\xA1\xBF", "\x82"},  // a single byte for two characters
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.text));
    EXPECT_EQ(MacKorean::encode(c.text), c.bytes);
    EXPECT_EQ(MacKorean::decode(c.bytes), c.text);
  }
}

TEST(MacKorean, EncodingReportsTheFirstCharacterWithoutMapping) {
  struct Case {
    std::string text;
    std::size_t offset;
    char32_t character;
  } cases[] = {
      {"ab\x7F", 2, 0x7F},
      {"\xEA\xB0\x80\xC3\xA9x\xC3\xA9", 3, 0xE9},  // 가é
      {"x\xF0\x9F\x98\x80", 1, 0x1F600},
      {"\xEF\xA1\xBF", 0, 0xF87F},  // the private-use tag alone
      {"ok\xC3", 2, 0xFFFD},        // truncated UTF-8
      {"\xED\xA0\x80", 0, 0xFFFD},  // an encoded surrogate
      {"\xC0\xAF", 0, 0xFFFD},      // overlong
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.text));
    MacKorean::EncodeError error;
    EXPECT_FALSE(MacKorean::encode(c.text, &error));
    EXPECT_EQ(error.offset, c.offset);
    EXPECT_EQ(error.character, c.character);
  }
  EXPECT_FALSE(MacKorean::encode("\xC3\xA9"));  // the error is optional
}

}  // namespace
}  // namespace quarvel
