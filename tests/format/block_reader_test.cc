#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "common/Log.h"
#include "datafiles/DataFileTestUtil.h"
#include "format/LineReader.h"

namespace quarvel {
namespace {

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
    if (!c.byBlocks) continue;
    ASSERT_EQ(byBlocks.lines.size(), whole.lines.size());
    EXPECT_TRUE(byBlocks.lines == whole.lines);
  }
}

}  // namespace
}  // namespace quarvel
