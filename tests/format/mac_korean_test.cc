#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "format/MacKorean.h"

namespace quarvel {
namespace {

std::string bytes2(unsigned lead, unsigned trail) {
  return {static_cast<char>(lead), static_cast<char>(trail)};
}

// One code point of a UTF-8 string, or 0 when it is not exactly one.
char32_t single(const std::string& utf8) {
  const auto* s = reinterpret_cast<const unsigned char*>(utf8.data());
  if (utf8.size() == 3 && (s[0] & 0xF0) == 0xE0)
    return (s[0] & 0x0Fu) << 12 | (s[1] & 0x3Fu) << 6 | (s[2] & 0x3Fu);
  return 0;
}

// Rows 0xB0..0xC8 hold the 2,350 Hangul syllables, rows 0xCA..0xFD the
// 4,888 Hanja, 94 to a row; each is one character and comes back unchanged.
TEST(MacKorean, EveryKsX1001HangulSyllableAndHanjaRoundTrips) {
  struct Block {
    unsigned firstLead, lastLead;
    char32_t low, high;
    int expected;
  } blocks[] = {{0xB0, 0xC8, 0xAC00, 0xD7A3, 2350}, {0xCA, 0xFD, 0x4E00, 0xFA0B, 4888}};
  for (const Block& block : blocks) {
    int count = 0;
    char32_t previous = 0;
    for (unsigned lead = block.firstLead; lead <= block.lastLead; ++lead)
      for (unsigned trail = 0xA1; trail <= 0xFE; ++trail) {
        const std::string code = bytes2(lead, trail);
        SCOPED_TRACE(::testing::PrintToString(code));
        const std::optional<std::string> text = MacKorean::decode(code);
        ASSERT_TRUE(text);
        const char32_t c = single(*text);
        ASSERT_GE(c, block.low);
        ASSERT_LE(c, block.high);
        if (block.low == 0xAC00) {
          ASSERT_GT(c, previous);  // Hangul rows are in syllable order
        }
        previous = c;
        ASSERT_EQ(MacKorean::encode(*text), code);
        ++count;
      }
    EXPECT_EQ(count, block.expected);
  }
}

// Whatever decodes encodes back to the same bytes, multi-character codes
// included (no two codes share a text).
TEST(MacKorean, EveryMappedCodeRoundTrips) {
  int singles = 0, doubles = 0, multis = 0;
  for (unsigned b = 0; b < 0x100; ++b) {
    const std::string code(1, static_cast<char>(b));
    if (auto text = MacKorean::decode(code)) {
      ++singles;
      EXPECT_EQ(MacKorean::encode(*text), code) << b;
    }
  }
  for (unsigned lead = 0x80; lead < 0x100; ++lead)
    for (unsigned trail = 0; trail < 0x100; ++trail) {
      const std::string code = bytes2(lead, trail);
      if (MacKorean::decode(code.substr(0, 1))) continue;  // two single bytes
      auto text = MacKorean::decode(code);
      if (!text) continue;
      ++doubles;
      if (single(*text) == 0 && text->size() > 2) ++multis;
      ASSERT_EQ(MacKorean::encode(*text), code) << ::testing::PrintToString(code);
    }
  EXPECT_EQ(singles, 127 + 6);
  EXPECT_GT(doubles, 9000);
  EXPECT_GT(multis, 800);
}

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
  const std::string refused[] = {
      "\x7F",                      // DEL has no mapping
      "\x85",     "\xA0", "\xFE",  // neither a character nor a lead byte
      "\xB0",                      // lead byte at the end
      "ok\xB0",
      "\xB0\x41",  // lead byte followed by a trail it does not take
      "\xB0\xFF",
      "\xC9\xA1",  // a lead-byte range Apple leaves empty
  };
  for (const std::string& bytes : refused)
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
