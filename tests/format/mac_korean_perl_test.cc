// Holds the codec to Perl's Encode, where Perl has its MacKorean: every
// byte and every pair of bytes decoded, and every BMP character encoded, by
// both; each text we decode must also encode back to its bytes.

#include <gtest/gtest.h>

#include <sstream>

#include "common/StringUtil.h"
#include "format/MacKorean.h"
#include "support/ToolProcess.h"

namespace quarvel {
namespace {

// Prints "D <bytes> <text or ->" for every byte sequence, then "E <character>
// <bytes or ->" for every BMP character, all in hex.
constexpr const char* kScript = R"PERL(
use strict; use warnings; use Encode ();
my $e = Encode::find_encoding("MacKorean") or exit 3;
sub hex_of { defined $_[0] ? unpack("H*", $_[0]) : "-" }
binmode STDOUT;
for my $a (-1 .. 255) { for my $b (0 .. 255) {
  my $bytes = ($a < 0 ? "" : chr $a) . chr $b; my $in = $bytes;
  my $text = eval { $e->decode($in, Encode::FB_CROAK) };
  print "D ", unpack("H*", $bytes), " ", hex_of($in eq "" && defined $text ? Encode::encode_utf8($text) : undef), "\n";
} }
for my $cp (0 .. 0xD7FF, 0xE000 .. 0xFFFF) {
  my $in = chr $cp; my $bytes = eval { $e->encode($in, Encode::FB_CROAK) };
  print "E ", unpack("H*", Encode::encode_utf8(chr $cp)), " ", hex_of($in eq "" ? $bytes : undef), "\n";
}
)PERL";

std::string hexOf(const std::optional<std::string>& bytes) {
  if (!bytes) return "-";
  std::string hex;
  for (unsigned char c : *bytes) hex += {"0123456789abcdef"[c >> 4], "0123456789abcdef"[c & 15]};
  return hex;
}

TEST(MacKoreanPerl, AgreesWithEncodeOnEveryByteSequenceAndCharacter) {
  const auto perl = [](std::vector<std::string> arguments) {
    return testing::runProgram("/usr/bin/perl", std::move(arguments), {});
  };
  if (perl({"-MEncode", "-e", "Encode::find_encoding(q(MacKorean)) or exit 1"}).exitStatus != 0)
    GTEST_SKIP() << "perl with Encode's MacKorean is not installed";
  const testing::ToolRun run = perl({"-e", kScript});
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
