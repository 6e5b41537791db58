#include <gtest/gtest.h>

#include <random>
#include <sstream>
#include <vector>

#include "common/StringUtil.h"
#include "format/MacKorean.h"
#include "support/ToolProcess.h"

namespace quarvel {
namespace {

std::string bytes2(unsigned lead, unsigned trail) {
  return {static_cast<char>(lead), static_cast<char>(trail)};
}

// Every code alone is held to Perl's Encode below; here, random texts of
// ASCII runs of every length, digits most of all as in real lists, cut by
// codes of every kind, some long enough to cross the decoder's slices. The
// word-wide and windowed paths must read them as their codes one by one, also
// where an ASCII byte that begins one of Apple's multi-character codes ends a
// run ("1" before U+20DE), and one bad byte fails the whole text.
TEST(MacKorean, RandomTextsReadAsTheirCodesOneByOne) {
  std::vector<std::string> codes = {"\xB0\xA1", "\xA5\x42", "\xA2\xE6", "\x82", "\x80", "\xA1\xB8"};
  const std::size_t cuts = codes.size();
  for (unsigned b = 0x80; b < 0x100; ++b)
    if (MacKorean::decode(std::string(1, static_cast<char>(b))))
      codes.emplace_back(1, static_cast<char>(b));
  for (unsigned lead = 0xA1; lead <= 0xFD; ++lead)
    for (unsigned trail = 0x41; trail <= 0xFE; ++trail)
      if (MacKorean::decode(bytes2(lead, trail))) codes.push_back(bytes2(lead, trail));
  std::mt19937 rng(11);
  for (int round = 0; round < 400; ++round) {
    std::string bytes, text;
    std::vector<std::size_t> boundaries;  // where each code's text starts
    const std::size_t pieces = round % 4 ? 12 : 1000, longestRun = round % 3 ? 40 : 2;
    for (std::size_t piece = 0; piece < pieces; ++piece) {
      for (std::size_t run = rng() % (longestRun + 1); run > 0; --run) {
        boundaries.push_back(text.size());
        const char c = rng() % 4 == 0
                           ? "\t\r\n"[rng() % 3]
                           : static_cast<char>(rng() % 2 ? '0' + rng() % 10 : 0x20 + rng() % 0x5F);
        bytes += c;
        text += c;
      }
      const std::string& code = codes[rng() % 2 ? rng() % cuts : rng() % codes.size()];
      boundaries.push_back(text.size());
      bytes += code;
      text += *MacKorean::decode(code);
    }
    ASSERT_EQ(MacKorean::decode(bytes), text) << round;
    const std::optional<std::string> encoded = MacKorean::encode(text);
    ASSERT_TRUE(encoded) << round;
    ASSERT_EQ(MacKorean::decode(*encoded), text) << round;
    // A DEL between codes is where encoding stops; anywhere in the bytes, or
    // a lead byte at their end, decoding fails.
    const std::size_t at = boundaries[rng() % boundaries.size()];
    MacKorean::EncodeError error;
    ASSERT_FALSE(MacKorean::encode(std::string(text).insert(at, 1, '\x7F'), &error)) << round;
    EXPECT_EQ(error.offset, at);
    EXPECT_EQ(error.character, U'\x7F');
    ASSERT_FALSE(MacKorean::decode(std::string(bytes).insert(rng() % bytes.size(), 1, '\x7F')));
    ASSERT_FALSE(MacKorean::decode(bytes + "\xB0"));
  }
  // A digit run's last byte before U+20DE joins it, whatever the run's length.
  for (std::size_t run = 1; run < 40; ++run)
    EXPECT_EQ(MacKorean::encode(std::string(run, '1') + "\xE2\x83\x9E"),
              std::string(run - 1, '1') + "\xA5\x42");
}

// Encoding takes the longest multi-character code, and otherwise reports the
// first character without a code (U+FFFD for bad UTF-8) and its offset.
TEST(MacKorean, EncodingTakesTheLongestCodeOrNamesTheFirstCharacterWithout) {
  struct Case {
    std::string text;
    std::optional<std::string> bytes;
    std::size_t offset = 0;
    char32_t character = 0;
  } cases[] = {
      {"1\xE2\x83\x9E\xEF\xA1\xBC", "\xA2\xE6"},  // 1 U+20DE U+F87C
      {"x\xF0\x9F\x98\x80", std::nullopt, 1, 0x1F600},
      {"ok\xC3", std::nullopt, 2, 0xFFFD},        // truncated
      {"\xED\xA0\x80", std::nullopt, 0, 0xFFFD},  // an encoded surrogate
      {"\xC0\xAF", std::nullopt, 0, 0xFFFD},      // overlong
  };
  for (const Case& c : cases) {
    MacKorean::EncodeError error;
    EXPECT_EQ(MacKorean::encode(c.text, &error), c.bytes) << ::testing::PrintToString(c.text);
    EXPECT_EQ(error.offset, c.offset);
    EXPECT_EQ(error.character, c.character);
    if (c.bytes) {
      EXPECT_EQ(MacKorean::decode(*c.bytes), c.text);
    }
  }
  EXPECT_FALSE(MacKorean::encode("\xC3\xA9"));  // the error is optional
}

std::string hexOf(const std::optional<std::string>& bytes) {
  if (!bytes) return "-";
  std::string hex;
  for (unsigned char c : *bytes) hex += {"0123456789abcdef"[c >> 4], "0123456789abcdef"[c & 15]};
  return hex;
}

// Holds the codec to Perl's Encode (tests/data/mac_korean_encode.pl) on every
// byte and pair of bytes decoded and every BMP character encoded; each text
// we decode must also encode back to its bytes.
TEST(MacKoreanPerl, AgreesWithEncodeOnEveryByteSequenceAndCharacter) {
  const testing::ToolRun run =
      testing::runProgram("/usr/bin/perl", {QUARVEL_TEST_DATA "/mac_korean_encode.pl"}, {});
  if (run.exitStatus == 3 || run.exitStatus < 0)
    GTEST_SKIP() << "perl with Encode's MacKorean is not installed";
  ASSERT_EQ(run.exitStatus, 0) << run.err;
  std::istringstream theirs(run.out);

  std::stringstream ours;
  for (int a = -1; a < 256; ++a)
    for (int b = 0; b < 256; ++b) {
      const std::string bytes =
          (a < 0 ? "" : std::string(1, static_cast<char>(a))) + static_cast<char>(b);
      const std::optional<std::string> text = MacKorean::decode(bytes);
      ours << "D " << hexOf(bytes) << ' ' << hexOf(text) << '\n';
      if (text) {
        ASSERT_EQ(hexOf(MacKorean::encode(*text)), hexOf(bytes)) << "encoding " << hexOf(text);
      }
    }
  for (char32_t c = 0; c <= 0xFFFF; c = c == 0xD7FF ? 0xE000 : c + 1) {
    std::string character;
    appendUtf8(character, c);
    ours << "E " << hexOf(character) << ' ' << hexOf(MacKorean::encode(character)) << '\n';
  }
  std::size_t lines = 0;
  for (std::string mine, perls; std::getline(ours, mine); ++lines) {
    ASSERT_TRUE(std::getline(theirs, perls)) << "Encode stopped before " << mine;
    ASSERT_EQ(mine, perls);
  }
  EXPECT_EQ(lines, 256 + 65536 + 0x10000 - 0x800);
  EXPECT_EQ(theirs.peek(), EOF);
}

}  // namespace
}  // namespace quarvel
