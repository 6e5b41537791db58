// Holds the codec to Perl's Encode (tests/data/mac_korean_encode.pl) on every
// byte and pair of bytes decoded and every BMP character encoded; each text
// we decode must also encode back to its bytes.

#include <gtest/gtest.h>

#include <sstream>

#include "common/StringUtil.h"
#include "format/MacKorean.h"
#include "support/ToolProcess.h"

namespace quarvel {
namespace {

std::string hexOf(const std::optional<std::string>& bytes) {
  if (!bytes) return "-";
  std::string hex;
  for (unsigned char c : *bytes) hex += {"0123456789abcdef"[c >> 4], "0123456789abcdef"[c & 15]};
  return hex;
}

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
