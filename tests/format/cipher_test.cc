#include <gtest/gtest.h>

#include <cstring>
#include <numeric>
#include <optional>
#include <random>

#include "common/Log.h"
#include "datafiles/DataFileTestUtil.h"
#include "format/LineReader.h"
#include "quarvel/CommonLib.h"

namespace quarvel {
namespace {

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
// no mapping), the block reader declines.
TEST(Decrypt, ReadsByBlocksWhatItReadsWhole) {
  constexpr std::size_t kBlock = 256 << 10;  // the reader's block
  const std::string record = "app.exe\tMaker\t\xB0\xA1\xB3\xAA\t1.0\r\n";
  auto filled = [&](std::size_t bytes) {
    std::string text;
    while (text.size() < bytes) text += record;
    return text;
  };
  // Records, then a line of ASCII reaching `place`, `bytes` there, and more
  // records to two blocks and a bit.
  auto at = [&](std::size_t place, std::string_view bytes) {
    std::string text = filled(place - 2 * record.size());
    text.append(place - text.size(), 'p').append(bytes);
    return text + filled(2 * kBlock + 100 - text.size());
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
    // A file shorter than its size said (cut while read) is left to readLines.
    datafile::DecodedLines cut;
    EXPECT_FALSE(datafile::readLinesByBlocks(::fileno(file), c.plain.size() + 1, cut));
    ASSERT_TRUE(datafile::readLines(file, whole));
    std::fclose(file);
    EXPECT_TRUE(!c.byBlocks || byBlocks.lines == whole.lines);
  }
}

}  // namespace
}  // namespace quarvel
