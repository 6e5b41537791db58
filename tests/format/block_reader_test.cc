#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "common/Log.h"
#include "datafiles/DataFileTestUtil.h"
#include "quarvel/CommonLib.h"

namespace quarvel {
namespace {

using Lines = std::vector<std::string>;

// A file is read a block at a time unless its whole text is to be logged;
// with a log capture it is read whole. Both must make the same lines of
// every file, above all where a block ends inside a line, a CR LF or a
// two-byte code, or where the whole-file reader passes a text to its
// careful path (a lone CR, a line too long, a code with no mapping).
TEST(Decrypt, ReadsByBlocksWhatItReadsWhole) {
  constexpr std::size_t kBlock = 256 << 10;  // the reader's block
  const std::string record = "app.exe\tMaker\t\xB0\xA1\xB3\xAA\t1.0\r\n";
  auto filled = [&](std::size_t bytes) {
    std::string text;
    while (text.size() < bytes) text += record;
    return text;
  };
  auto at = [&](std::size_t place, std::string_view bytes) {
    std::string text = filled(2 * kBlock + 100);
    text.replace(place, bytes.size(), bytes);
    return text;
  };
  const std::string longLine = std::string(3000, 'x') + "\r\n";
  const struct Case {
    const char* name;
    std::string plain;
  } cases[] = {
      {"records over three blocks", filled(2 * kBlock + 5)},
      {"records ending at a block's end", filled(kBlock)},
      {"CR LF across a block's end", at(kBlock - 1, "\r\n")},
      {"lone CR at a block's end", at(kBlock - 1, "\rq")},
      {"Hangul code across a block's end", at(kBlock - 1, "\xB0\xA1")},
      {"zero byte in the second block", at(kBlock + 7, std::string(1, '\0'))},
      {"CR before a zero byte", at(kBlock + 7, std::string("\r\0", 2))},
      {"line longer than the limit across blocks", at(kBlock - 1500, longLine)},
      {"code with no mapping", at(kBlock + 3, "\xFF")},
      {"unfinished last line", filled(kBlock + 10) + "tail"},
  };
  testing::TempDir dir;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    testing::writeBytes(dir.path() / "list.dat", testing::encipher(c.plain));
    Lines byBlocks, whole;
    bool readByBlocks = false, readWhole = false;
    {
      setLogEcho(LogEcho::kNone);
      readByBlocks = CommonLib::Decrypt(byBlocks, dir.file("list.dat"));
      setLogEcho(LogEcho::kAll);
    }
    {
      LogCapture log;
      readWhole = CommonLib::Decrypt(whole, dir.file("list.dat"));
    }
    EXPECT_TRUE(readByBlocks);
    EXPECT_EQ(readByBlocks, readWhole);
    ASSERT_EQ(byBlocks.size(), whole.size());
    EXPECT_TRUE(byBlocks == whole);
  }
}

}  // namespace
}  // namespace quarvel
