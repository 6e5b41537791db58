#include <gtest/gtest.h>

#include <cstring>
#include <optional>
#include <random>

#include "common/Log.h"
#include "datafiles/DataFileTestUtil.h"
#include "format/LineReader.h"
#include "quarvel/CommonLib.h"

namespace quarvel {
namespace {

using testing::encipher;
using testing::TempDir;
using Lines = std::vector<std::string>;

std::string encrypted(std::string bytes) {
  EXPECT_TRUE(CommonLib::Encrypt(reinterpret_cast<unsigned char*>(bytes.data()),
                                 static_cast<std::uint32_t>(bytes.size())));
  return bytes;
}

// The block code paths against a plain rendering, at every length around
// the block sizes and at a few large odd ones.
TEST(Cipher, EncryptAndDecipherMatchThePlainRendering) {
  std::mt19937 rng(11);
  std::vector<std::size_t> sizes;
  for (std::size_t n = 0; n <= 100; ++n) sizes.push_back(n);
  for (std::size_t n : {255u, 256u, 257u, 4095u, 65537u}) sizes.push_back(n);
  for (std::size_t n : sizes) {
    SCOPED_TRACE(n);
    std::string plain(n, '\0');
    for (char& c : plain) c = static_cast<char>(rng());
    const std::string file = encrypted(plain);
    ASSERT_EQ(file, encipher(plain));
    std::string back = file;
    datafile::decipher(reinterpret_cast<unsigned char*>(back.data()),
                       static_cast<std::uint32_t>(n));
    ASSERT_EQ(back, plain);
  }
}

Lines readLines(std::string_view plain) {
  Lines lines;
  datafile::splitLines(reinterpret_cast<const unsigned char*>(plain.data()), plain.size(), lines);
  return lines;
}

// Splitting drops the unfinished tail and lines that do not decode, and
// logs only lines too long (below); one buffer holds the same lines as
// splitting one by one, logged alike, whether the text decodes whole or has
// something the scan must step around.
TEST(LineReader, SplitsAtLineEndsAndDropsTheUnfinishedTail) {
  const std::string tooLong(2048, 'x');
  struct Case {
    std::string plain;
    Lines lines;
  } cases[] = {
      {"", {}},
      {"a\r\nb\r\n", {"a", "b"}},
      {"a\nb", {"a"}},
      {"a\r\n\r\nb\r\n", {"a", "", "b"}},
      {"\r\n\n\r\n", {"", "", ""}},
      {"ab\rcd\r\n", {"abd"}},  // a lone CR swallows the next byte
      {"one\r\r\ntwo\r\n", {"one", "two"}},
      {std::string("a\r\nb\0c\r\n", 8), {"a"}},  // a zero byte ends the text
      {std::string("ok\r\nhalf\r\0rest\r\n", 16),
       {"ok", "halfrest"}},  // ...unless a CR swallowed it
      {"a\r\nb\r", {"a"}},   // CR as the last byte
      {"\r", {}},
      {"a\tb\r\nc\n\xC7\xD1\xB1\xDB\r\ntail",
       {"a\tb", "c", "\xED\x95\x9C\xEA\xB8\x80"}},  // Mac Korean to UTF-8
      {"\xC7\r\nok\r\n", {"ok"}},                   // a lead byte cut off by the line end
      {"\x85\r\nok\r\n\xB0\r\n", {"ok"}},           // undecodable lines vanish silently
      {"ok\r\n\xFF\xFF\r\nok\r\n",                  // 0xFF is a code of two characters
       {"ok", "\xE2\x80\xA6\xEF\xA1\xBF\xE2\x80\xA6\xEF\xA1\xBF", "ok"}},
      {"ok\r\n" + tooLong + "\r\nok\r\n", {"ok", "ok"}},
      // The same beyond the first sixteen bytes, which are searched whole.
      {"0123456789abcdefghij\r\nklmnopqrstuvwxyz\r\n",
       {"0123456789abcdefghij", "klmnopqrstuvwxyz"}},
      {"0123456789abcdefghij\rXklmn\r\n", {"0123456789abcdefghijklmn"}},
      {std::string("0123456789abcdefghij\r\nhalf\r\0rest\r\n", 34),
       {"0123456789abcdefghij", "halfrest"}},
      {std::string("0123456789abcdefghij\r\ntail\rX\0more\r\n", 35),
       {"0123456789abcdefghij"}},  // a lone CR in the tail a zero byte cuts off
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.plain.substr(0, 40)));
    const auto* bytes = reinterpret_cast<const unsigned char*>(c.plain.data());
    LogCapture log;
    EXPECT_EQ(readLines(c.plain), c.lines);
    const Lines logged = log.lines();
    EXPECT_EQ(logged.empty(), c.plain.find(tooLong) == std::string::npos);
    log.clear();
    datafile::DecodedLines decoded;
    datafile::splitLines(bytes, c.plain.size(), decoded);
    EXPECT_EQ(Lines(decoded.lines.begin(), decoded.lines.end()), c.lines);
    EXPECT_EQ(log.lines(), logged);
  }
}

TEST(LineReader, TheScanNumbersLinesAndNamesWhatItPassesOver) {
  struct Events : datafile::LineScan {
    Lines seen;
    void line(std::size_t n, std::string_view bytes) override {
      seen.push_back(std::to_string(n) + ":" + std::string(bytes));
    }
    void loneCarriageReturn(std::size_t n) override { seen.push_back(std::to_string(n) + ":CR"); }
    void zeroByte(std::size_t n, std::size_t at) override {
      seen.push_back(std::to_string(n) + ":NUL@" + std::to_string(at));
    }
    void unterminatedLine(std::size_t n) override { seen.push_back(std::to_string(n) + ":TAIL"); }
  };
  struct Case {
    std::string plain;
    Lines events;
  } cases[] = {
      {"a\r\nb\n", {"1:a", "2:b"}},
      {"ab\rcd\r\n", {"1:CR", "1:abd"}},
      {std::string("a\r\0b\r\n", 6), {"1:CR", "1:ab"}},
      {"x\r\r\ny\n", {"1:CR", "1:x", "2:y"}},  // the swallowed CR cannot start a CR LF
      {std::string("a\nb\0c\n", 7), {"1:a", "2:NUL@3", "2:TAIL"}},
      {std::string("a\n\0", 3), {"1:a", "2:NUL@2"}},
      {"a\nb\r", {"1:a", "2:CR", "2:TAIL"}},
      {"\r", {"1:CR"}},
      {"a\nbc", {"1:a", "2:TAIL"}},
      {std::string(3000, 'x') + "\n", {"1:" + std::string(3000, 'x')}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.plain));
    Events events;
    datafile::scanLines(reinterpret_cast<const unsigned char*>(c.plain.data()), c.plain.size(),
                        events);
    EXPECT_EQ(events.seen, c.events);
  }
}

TEST(LineReader, LinesBeyondTheBufferAreDroppedAndLogged) {
  const std::string longest(datafile::kMaxLineBytes, 'x');
  LogCapture log;
  EXPECT_EQ(readLines(longest + "\r\n" + longest + "y\r\nz\r\n"), (Lines{longest, "z"}));
  EXPECT_EQ(log.lines(), Lines{"ERROR : line 2 is longer than 2047 bytes and was dropped"});
}

// By path: the lines are appended to what the list holds, and the log
// gives the size read against the size found, then the whole text when it is
// UTF-8; an empty or missing file is refused silently.
TEST(Decrypt, ReadsAnEncipheredFileByPath) {
  TempDir dir;
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
    SCOPED_TRACE(c.name);
    if (c.plain) testing::writeBytes(dir.path() / c.name, encipher(*c.plain));
    LogCapture log;
    Lines lines = {"kept"};
    EXPECT_EQ(CommonLib::Decrypt(lines, dir.file(c.name)), c.read);
    EXPECT_EQ(lines, c.lines);
    EXPECT_EQ(log.lines(), c.log);
  }
}

// A stream whose reported size and contents are the test's to choose.
struct FakeStream {
  std::string data;
  long long reportedSize;
  long long pos = 0;
  bool readCalled = false;
};

std::FILE* openFake(FakeStream& s, bool seekable = true) {
  cookie_io_functions_t io{};
  io.read = [](void* c, char* buf, size_t size) -> ssize_t {
    auto* s = static_cast<FakeStream*>(c);
    s->readCalled = true;
    const auto left = static_cast<long long>(s->data.size()) - s->pos;
    const auto n = std::min<long long>(left < 0 ? 0 : left, static_cast<long long>(size));
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
      {{"abc", 0x100000005LL}, true, false, {}, {"too large"}},
      {{"abc", 3}, false, false, {}, {"ERROR! code="}},
  };
  for (Case& c : cases) {
    SCOPED_TRACE(c.stream.reportedSize);
    std::FILE* f = openFake(c.stream, c.seekable);
    LogCapture log;
    Lines lines;
    EXPECT_EQ(CommonLib::Decrypt(lines, f), c.read);
    std::fclose(f);
    EXPECT_EQ(lines, c.lines);
    for (const std::string& line : c.logged)
      EXPECT_TRUE(log.contains(line)) << ::testing::PrintToString(log.lines());
    if (c.stream.reportedSize > 0xFFFFFFFFLL) {
      EXPECT_FALSE(c.stream.readCalled);  // refused before any read
    }
  }
}

}  // namespace
}  // namespace quarvel
