// Cross-checks the codec against Perl's Encode, where Perl is installed:
// every single byte and every two-byte sequence decoded by both, their
// texts encoded by both, and every BMP character encoded by both.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "common/StringUtil.h"
#include "format/MacKorean.h"

namespace quarvel {
namespace {

// Prints "D <bytes> <text or -> <Encode's encoding of the text or ->" for
// every byte sequence and "E <code point> <bytes or ->" for every BMP
// character, all in hex.
constexpr const char* kScript = R"PERL(
use strict; use warnings; use Encode ();
my $e = Encode::find_encoding("MacKorean") or exit 3;
sub whole { my ($how, $in) = @_; my $rest = $in;
  my $out = eval { $how eq "d" ? $e->decode($rest, Encode::FB_CROAK) : $e->encode($rest, Encode::FB_CROAK) };
  return (defined $out && $rest eq "") ? $out : undef; }
sub hex_of { my $s = shift; defined $s ? (unpack("H*", $s) || "=") : "-" }
binmode STDOUT;
my @seqs = map { chr } 0 .. 255;
for my $a (0 .. 255) { push @seqs, map { chr($a) . chr($_) } 0 .. 255 }
for my $bytes (@seqs) {
  my $text = whole("d", $bytes);
  my $back = defined $text ? whole("e", $text) : undef;
  print "D ", unpack("H*", $bytes), " ", hex_of(defined $text ? Encode::encode("UTF-8", $text) : undef), " ", hex_of($back), "\n";
}
for my $cp (0 .. 0xFFFF) {
  next if $cp >= 0xD800 && $cp < 0xE000;
  print "E ", sprintf("%04x", $cp), " ", hex_of(whole("e", chr $cp)), "\n";
}
)PERL";

std::string toHex(std::string_view bytes) {
  static const char digits[] = "0123456789abcdef";
  std::string hex;
  for (unsigned char c : bytes) {
    hex += digits[c >> 4];
    hex += digits[c & 15];
  }
  return hex;
}

std::string fromHex(const std::string& hex) {
  std::string bytes;
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2)
    bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
  return bytes;
}

std::string hexOr(const std::optional<std::string>& bytes) {
  if (!bytes) return "-";
  return bytes->empty() ? "=" : toHex(*bytes);
}

TEST(MacKoreanPerl, AgreesWithEncodeOnEveryByteSequenceAndCharacter) {
  if (std::system(
          "perl -MEncode -e 'Encode::find_encoding(q(MacKorean)) or exit 1' >/dev/null 2>&1") != 0)
    GTEST_SKIP() << "perl with Encode's MacKorean is not installed";
  const auto dir = std::filesystem::temp_directory_path();
  const std::string stem = (dir / ("quarvel-mackorean-" + std::to_string(::getpid()))).string();
  std::ofstream(stem + ".pl") << kScript;
  ASSERT_EQ(std::system(("perl " + stem + ".pl > " + stem + ".out").c_str()), 0);
  std::ifstream in(stem + ".out");
  std::stringstream all;
  all << in.rdbuf();
  std::filesystem::remove(stem + ".pl");
  std::filesystem::remove(stem + ".out");

  std::istringstream lines(all.str());
  std::string kind, key, perlText, perlBack;
  int sequences = 0, characters = 0, decoded = 0, multiOnlyHere = 0;
  while (lines >> kind >> key >> perlText) {
    if (kind == "D") {
      lines >> perlBack;
      ++sequences;
      const std::string bytes = fromHex(key);
      const std::optional<std::string> text = MacKorean::decode(bytes);
      ASSERT_EQ(hexOr(text), perlText) << "decoding " << key;
      if (!text) continue;
      ++decoded;
      // Our encoder gives the bytes back; Encode does too, except for the
      // multi-character texts it cannot encode at all.
      ASSERT_EQ(hexOr(MacKorean::encode(*text)), bytes.empty() ? "=" : key)
          << "encoding " << perlText;
      if (perlBack == "-")
        ++multiOnlyHere;
      else
        ASSERT_EQ(perlBack, key) << "Encode re-encoding " << perlText;
    } else {
      ++characters;
      std::string character;
      appendUtf8(character, static_cast<char32_t>(std::stoul(key, nullptr, 16)));
      ASSERT_EQ(hexOr(MacKorean::encode(character)), perlText) << "encoding U+" << key;
    }
  }
  EXPECT_EQ(sequences, 256 + 65536);
  EXPECT_EQ(characters, 0x10000 - 0x800);
  EXPECT_GT(decoded, 9000);
  EXPECT_GT(multiOnlyHere, 800);
}

}  // namespace
}  // namespace quarvel
