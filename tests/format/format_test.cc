// The cipher and the reader's line splitting, the Mac Korean codec, and
// detached signatures and key files: what is accepted, and that any change to
// the data, the signature or the key is refused.

#include <gtest/gtest.h>

#include <cstring>
#include <numeric>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "common/Log.h"
#include "common/StringUtil.h"
#include "datafiles/DataFileTestUtil.h"
#include "format/DataFileFormat.h"
#include "format/LineReader.h"
#include "format/MacKorean.h"
#include "format/Signature.h"
#include "quarvel/CommonLib.h"
#include "support/ToolProcess.h"

namespace quarvel {
namespace {

using namespace signing;
using testing::encipher;
using Lines = std::vector<std::string>;

unsigned char* bytesOf(std::string& s) { return reinterpret_cast<unsigned char*>(s.data()); }
const unsigned char* bytesOf(std::string_view s) {
  return reinterpret_cast<const unsigned char*>(s.data());
}

// The block code paths against a plain rendering, at every length around
// the block sizes and at a few large odd ones.
TEST(Cipher, EncryptAndDecipherMatchThePlainRendering) {
  std::mt19937 rng(11);
  std::vector<std::uint32_t> sizes(101);
  std::iota(sizes.begin(), sizes.end(), 0);
  sizes.insert(sizes.end(), {255, 256, 257, 4095, 65537});
  for (std::uint32_t n : sizes) {
    std::string plain(n, '\0');
    for (char& c : plain) c = static_cast<char>(rng());
    std::string file = plain;
    ASSERT_TRUE(CommonLib::Encrypt(bytesOf(file), n));
    ASSERT_EQ(file, encipher(plain)) << n;
    datafile::decipher(bytesOf(file), n);
    ASSERT_EQ(file, plain) << n;
  }
}

// Splitting drops the unfinished tail and lines that do not decode, and
// logs only lines too long (a line of exactly the limit is kept); one
// buffer holds the same lines, logged alike, whether the text decodes whole
// or has something the scan steps around.
TEST(LineReader, SplitsAtLineEndsAndDropsTheUnfinishedTail) {
  const std::string longest(datafile::kMaxLineBytes, 'x'), tooLong = longest + "x";
  const std::pair<std::string, Lines> cases[] = {
      {"", {}},
      {"a\nb", {"a"}},
      {"\r\n\n\r\n", {"", "", ""}},
      {std::string("ok\r\nhalf\r\0rest\r\n", 16), {"ok", "halfrest"}},  // the CR swallows the 0
      {"a\r\nb\r", {"a"}},                                              // CR as the last byte
      {std::string("a\nb\0c\n", 7), {"a"}},  // a zero byte ends the text, at a line's start too
      {std::string("a\n\0", 3), {"a"}},
      {"a\tb\r\nc\n\xC7\xD1\xB1\xDB\r\ntail", {"a\tb", "c", "\xED\x95\x9C\xEA\xB8\x80"}},
      {"\x85\r\nok\r\n\xB0\r\n", {"ok"}},  // undecodable lines vanish silently
      {longest + "\r\n" + tooLong + "\r\nz\r\n", {longest, "z"}},
      // The same beyond the first sixteen bytes, which are searched whole.
      {"0123456789abcdefghij\rXklmn\r\n", {"0123456789abcdefghijklmn"}},
      {std::string("0123456789abcdefghij\r\ntail\rX\0more\r\n", 35), {"0123456789abcdefghij"}},
  };
  for (const auto& [plain, lines] : cases) {
    LogCapture log;
    Lines split;
    datafile::splitLines(bytesOf(plain), plain.size(), split);
    EXPECT_EQ(split, lines) << ::testing::PrintToString(plain.substr(0, 40));
    const Lines logged = log.lines();
    EXPECT_EQ(logged, plain.find(tooLong) == std::string::npos
                          ? Lines{}
                          : Lines{"ERROR : line 2 is longer than 2047 bytes and was dropped"});
    log.clear();
    datafile::DecodedLines decoded;
    datafile::splitLines(bytesOf(plain), plain.size(), decoded);
    EXPECT_EQ(Lines(decoded.lines.begin(), decoded.lines.end()), lines);
    EXPECT_EQ(log.lines(), logged);
  }
}

// By path: the lines are appended to what the list holds, and the log
// gives the size read against the size found, then the whole text when it is
// UTF-8; an empty or missing file is refused silently.
TEST(Decrypt, ReadsAnEncipheredFileByPath) {
  testing::TempDir dir;
  testing::writeBytes(dir.path() / "empty.dat", "");
  struct Case {
    const char* name;
    std::optional<std::string> plain;  // none: leave the file as it is
    bool read;
    Lines lines, log;
  } cases[] = {
      {"Mac Korean",
       "#HEADER_START\r\n\xB0\xA1\r\n",
       true,
       {"kept", "#HEADER_START", "\xEA\xB0\x80"},
       {"19 ?= 19", "(null)"}},
      {"UTF-8", "one\r\ntwo\r\n", true, {"kept", "one", "two"}, {"10 ?= 10", "one\r\ntwo\r\n"}},
      {"empty.dat", std::nullopt, false, {"kept"}, {}},
      {"missing.dat", std::nullopt, false, {"kept"}, {}},
  };
  for (const Case& c : cases) {
    if (c.plain) testing::writeBytes(dir.path() / c.name, encipher(*c.plain));
    LogCapture log;
    Lines lines = {"kept"};
    EXPECT_EQ(CommonLib::Decrypt(lines, dir.file(c.name)), c.read) << c.name;
    EXPECT_EQ(lines, c.lines) << c.name;
    EXPECT_EQ(log.lines(), c.log) << c.name;
  }
}

// A stream whose reported size and contents are the test's to choose.
struct FakeStream {
  std::string data;
  long long reportedSize, pos = 0;
  bool readCalled = false;
};

std::FILE* openFake(FakeStream& s, bool seekable) {
  cookie_io_functions_t io{};
  io.read = [](void* c, char* buf, size_t size) -> ssize_t {
    auto* s = static_cast<FakeStream*>(c);
    s->readCalled = true;
    const auto n = std::min<long long>(static_cast<long long>(s->data.size()) - s->pos, size);
    std::memcpy(buf, s->data.data() + s->pos, static_cast<size_t>(n));
    s->pos += n;
    return n;
  };
  if (seekable)
    io.seek = [](void* c, off64_t* offset, int whence) -> int {
      auto* s = static_cast<FakeStream*>(c);
      s->pos = (whence == SEEK_END ? s->reportedSize : whence == SEEK_CUR ? s->pos : 0) + *offset;
      *offset = s->pos;
      return 0;
    };
  return fopencookie(&s, "rb", io);
}

// Streams: a short read keeps the lines read and logs the raw bytes; a size
// beyond 32 bits is refused before any read; a stream that cannot seek is
// refused.
TEST(Decrypt, ReadsAStreamWithinItsReportedSize) {
  struct Case {
    FakeStream stream;
    bool seekable, read;
    Lines lines, logged;
  } cases[] = {
      {{"hi\r\nthere", 12}, true, true, {"hi"}, {"9 ?= 12", "ERROR : hi\r\nthere"}},
      {{"abc", 0x100000000LL}, true, false, {}, {"too large"}},
      {{"abc", 3}, false, false, {}, {"ERROR! code="}},
  };
  for (Case& c : cases) {
    std::FILE* f = openFake(c.stream, c.seekable);
    LogCapture log;
    Lines lines;
    EXPECT_EQ(CommonLib::Decrypt(lines, f), c.read) << c.stream.reportedSize;
    std::fclose(f);
    EXPECT_EQ(lines, c.lines);
    for (const std::string& line : c.logged)
      EXPECT_TRUE(log.contains(line)) << ::testing::PrintToString(log.lines());
    EXPECT_EQ(c.stream.readCalled, c.read);  // a refusal comes before any read
  }
}

// A file is read a block at a time wherever the whole-file reader would
// read it without a word. Both must make the same lines, above all where a
// block ends inside a line, a CR LF or a two-byte code; where the whole
// reader takes its careful path (a lone CR, a line too long, a code with
// no mapping), the block reader declines. Read in two halves on two
// threads, it must answer alike, also where what ends the text lies in one
// half and what would send it the careful way in the other.
TEST(Decrypt, ReadsByBlocksWhatItReadsWhole) {
  constexpr std::size_t kBlock = 256 << 10;  // the reader's block
  const std::string record = "app.exe\tMaker\t\xB0\xA1\xB3\xAA\t1.0\r\n";
  // Records, with a line like a tag now and then: the reader notes those.
  auto filled = [&](std::size_t bytes) {
    std::string text;
    for (int n = 0; text.size() < bytes; ++n) text += n % 700 == 1 ? "#TAG\r\n" : record;
    return text;
  };
  // Records, then a line of ASCII reaching each place and its bytes there,
  // and more records to two blocks and a bit.
  auto marked = [&](std::initializer_list<std::pair<std::size_t, std::string_view>> marks) {
    std::string text;
    for (const auto& [place, bytes] : marks) {
      while (text.size() + 2 * record.size() < place) text += record;
      text.append(place - text.size(), 'p').append(bytes);
    }
    return text + filled(2 * kBlock + 100 - text.size());
  };
  auto at = [&](std::size_t place, std::string_view bytes) { return marked({{place, bytes}}); };
  // Records, then lines of a code that decodes to three characters (seven
  // bytes of UTF-8): the text outgrows the room the reader sets aside.
  auto swelling = [&] {
    std::string text = filled(kBlock + 100), line;
    for (int i = 0; i < 100; ++i) line += "\xA2\xE6";  // 1 U+20DE U+F87C
    while (text.size() < 2 * kBlock + 100) text += line + "\r\n";
    return text;
  };
  const struct Case {
    const char* name;
    std::string plain;
    bool byBlocks;
  } cases[] = {
      {"records over three blocks", filled(2 * kBlock + 5), true},
      {"records ending at a block's end", filled(kBlock), true},
      {"CR LF across a block's end", at(kBlock - 1, "\r\n"), true},
      {"Hangul code across a block's end", at(kBlock - 1, "\xB0\xA1"), true},
      {"zero byte in the second block", at(kBlock + 7, std::string(1, '\0')), true},
      {"unfinished last line", filled(kBlock + 10) + "tail", true},
      {"lone CR at a block's end", at(kBlock - 1, "\rq"), false},
      {"CR before a zero byte", at(kBlock + 7, std::string("\r\0", 2)), false},
      {"line too long across blocks", at(kBlock - 2500, std::string(3000, 'x')), false},
      {"code with no mapping", at(kBlock + 3, "\xB0\x20"), false},
      {"zero byte, then a lone CR in the second half",
       marked({{kBlock / 2, {"\0", 1}}, {kBlock + kBlock / 2, "\rq"}}), true},
      {"lone CR, then a zero byte in the second half",
       marked({{kBlock / 2, "\rq"}, {kBlock + kBlock / 2, {"\0", 1}}}), false},
      {"zero byte where the halves meet", at(kBlock + 50, {"\0", 1}), true},
      {"code with no mapping in the second half", at(kBlock + kBlock / 2, "\xB0\x20"), false},
      {"second half longer than the room set aside", swelling(), true},
  };
  testing::TempDir dir;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    testing::writeBytes(dir.path() / "list.dat", testing::encipher(c.plain));
    std::FILE* file = std::fopen(dir.file("list.dat").c_str(), "rb");
    ASSERT_NE(file, nullptr);
    datafile::DecodedLines byBlocks, whole;
    LogCapture log;  // readLines then reads the file whole
    EXPECT_EQ(datafile::readLinesByBlocks(::fileno(file), c.plain.size(), byBlocks), c.byBlocks);
    datafile::DecodedLines halves;
    EXPECT_EQ(datafile::readLinesByBlocks(::fileno(file), c.plain.size(), halves, 0), c.byBlocks);
    // A file shorter than its size said (cut while read) is left to readLines.
    datafile::DecodedLines cut;
    EXPECT_FALSE(datafile::readLinesByBlocks(::fileno(file), c.plain.size() + 1, cut));
    EXPECT_FALSE(datafile::readLinesByBlocks(::fileno(file), c.plain.size() + 1, cut, 0));
    ASSERT_TRUE(datafile::readLines(file, whole));
    std::fclose(file);
    EXPECT_TRUE(!c.byBlocks || byBlocks.lines == whole.lines);
    EXPECT_TRUE(!c.byBlocks || halves.lines == whole.lines);
    // The lines a tag search visits: those starting with '#', all of them.
    std::vector<std::size_t> hashLines;
    for (std::size_t i = 0; i < whole.lines.size(); ++i)
      if (whole.lines[i].starts_with('#')) hashLines.push_back(i);
    EXPECT_TRUE(!c.byBlocks || byBlocks.hashLines == hashLines);
    EXPECT_TRUE(!c.byBlocks || halves.hashLines == hashLines);
    EXPECT_TRUE(!whole.hashLines || whole.hashLines == hashLines);
  }
}

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

TEST(SignatureTest, KeyFilesRoundTripAndSignaturesBindDataAndKey) {
  const auto pair = generateKeyPair(), other = generateKeyPair();
  ASSERT_TRUE(pair && other);
  const auto secret = parseSecretKey(formatSecretKey(pair->secretKey));
  ASSERT_TRUE(secret);
  EXPECT_EQ(secret->publicKey(), pair->publicKey);
  EXPECT_EQ(parsePublicKey(formatPublicKey(pair->publicKey)), pair->publicKey);

  const std::string data = "#HEADER_START\r\n1\r\n#HEADER_END\r\n";
  const std::string signature = sign(*secret, data);
  EXPECT_TRUE(verify(pair->publicKey, data, signature));
  // Signed in pieces, verified whole: the stream is the same hash.
  SignatureStream pieces;
  pieces.update(data.substr(0, 5));
  pieces.update(data.substr(5));
  EXPECT_TRUE(verify(pair->publicKey, data, pieces.sign(*secret)));

  std::string flipped = data, badSignature = signature;
  flipped[7] ^= 0x01;
  char& changed = badSignature[kSignaturePrefix.size() + 3];
  changed = changed == 'A' ? 'B' : 'A';
  const struct {
    const char* name;
    const PublicKey& key;
    std::string data, signature;
  } refused[] = {
      {"a flipped bit", pair->publicKey, flipped, signature},
      {"another key", other->publicKey, data, signature},
      {"a changed signature", pair->publicKey, data, badSignature},
      {"no signature", pair->publicKey, data, ""},
      {"a signature twice", pair->publicKey, data, signature + signature},
      {"a key line as signature", pair->publicKey, data, formatPublicKey(pair->publicKey)},
  };
  for (const auto& c : refused) EXPECT_FALSE(verify(c.key, c.data, c.signature)) << c.name;

  // Key file text: one line, its line end optional, nothing around it.
  const std::string line = formatPublicKey(pair->publicKey);
  ASSERT_TRUE(line.ends_with('\n'));
  const std::string bare = line.substr(0, line.size() - 1);
  const std::string base64 = bare.substr(kPublicKeyPrefix.size());
  const std::pair<std::string, bool> cases[] = {
      {line, true},
      {bare, true},
      {bare + "\r\n", true},
      {bare + "\n\n", false},
      {" " + line, false},
      {std::string(kSecretKeyPrefix) + base64, false},
      {bare.substr(0, bare.size() - 4) + "\n", false},  // 29 bytes
      {bare + "AAAA\n", false},                         // 35 bytes
      {bare + "!\n", false},
      {"", false},
  };
  for (const auto& [text, accepted] : cases)
    EXPECT_EQ(parsePublicKey(text).has_value(), accepted) << ::testing::PrintToString(text);
  // A secret key file is never read as a public one, nor the other way.
  EXPECT_FALSE(parseSecretKey(line));
}

TEST(SignatureTest, SignatureAddressOfEveryEndpoint) {
  const std::pair<std::string_view, std::string_view> cases[] = {
      {"http://h/file/keyfile60/package.dat", "http://h/file/keyfile60/package.dat.sig"},
      {"http://h:8/cmmn/download.nis?type=keyfile&filename=macchecklist.dat",
       "http://h:8/cmmn/download.nis?type=keyfile&filename=macchecklist.dat.sig"},
      {"http://h/cmmn/download.nis?filename=a.dat&type=file",
       "http://h/cmmn/download.nis?filename=a.dat.sig&type=file"},
      {"http://h/d?xfilename=a&filename=b", "http://h/d?xfilename=a&filename=b.sig"},
      {"http://h/d?type=file", "http://h/d.sig?type=file"},
  };
  for (const auto& [url, signature] : cases) EXPECT_EQ(datafile::signatureUrl(url), signature);
}

}  // namespace
}  // namespace quarvel
