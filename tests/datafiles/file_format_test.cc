// The sectioned format as every data-file class reads it: section location,
// damage, stray text, the header's last line, appending, and files damaged
// byte by byte.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <typeinfo>

#include "common/Log.h"
#include "datafiles/DataFileTestUtil.h"
#include "quarvel/FileCheckList.h"
#include "quarvel/FileFilter.h"
#include "quarvel/FileFontList.h"
#include "quarvel/FilePackage.h"

namespace quarvel {
namespace {

using testing::checkLine;
using testing::contentsOf;
using testing::crlf;
using testing::sections;
using testing::TempDir;

constexpr const char* kDamaged =
    "-[FileCheckList openWithFileName:isFullPath:] (130) // ERROR: CHECKLIST DAMAGED";

std::vector<std::string> column(Table* table, std::string_view field) {
  std::vector<std::string> values;
  for (std::uint64_t i = 0; i < table->getDataCount(); ++i)
    values.push_back(table->select(static_cast<std::int64_t>(i), field));
  return values;
}

// The class's own failure lines (" // " follows the operation name).
std::vector<std::string> failureLines(const LogCapture& log) {
  std::vector<std::string> out;
  for (const std::string& line : log.lines())
    if (line.find(" // ") != std::string::npos) out.push_back(line);
  return out;
}

// A second open appends records and keys and replaces the header, which
// takes the last line of its section even when blank; what was read is
// written back as it was.
TEST(DataFileFormat, OpensAppendAndTheTextIsWrittenBackUnchanged) {
  TempDir dir;
  const std::string first = sections({{"#HEADER", {"20230101"}}, {"#SWLIST", {"A\tB\tC\tD"}}});
  FileFilter filter;
  ASSERT_TRUE(filter.openWithFileName(dir.writeDataFile("a", first), true));
  EXPECT_EQ(filter.getTableByTag("#HEADER")->select(0, "Version"), "20230101");
  EXPECT_EQ(contentsOf(filter), first);
  ASSERT_TRUE(filter.openWithFileName(
      dir.writeDataFile("b", sections({{"#HEADER", {"2", ""}}, {"#SWLIST", {"A\tB\tC\tD"}}})),
      true));
  EXPECT_EQ(filter.getTableByTag("#SWLIST")->getDataCount(), 2u);
  EXPECT_EQ(filter.getTableByTag("#HEADER")->select(0, "Version"), "");
  EXPECT_EQ(filter.getIdByFilter("a\tb\tc\td"), 1);
  EXPECT_EQ(filter.m_strFileName(), dir.file("b"));
}

TEST(DataFileFormat, DamagedLayoutsAreRefusedBeforeAnyRecordIsLoaded) {
  const std::string header = "#HEADER_START\r\n7\r\n#HEADER_END\r\n";
  const std::string record = checkLine("1", "Acme", "Editor", "2.0", "Editor", "editor") + "\r\n";
  struct Case {
    const char* name;
    std::string text;
  };
  const Case cases[] = {
      {"no end line", header + "#CHECKLIST_START\r\n" + record},
      {"end before start", header + "#CHECKLIST_END\r\n" + record + "#CHECKLIST_START\r\n"},
      {"header end before start",
       "#HEADER_END\r\n7\r\n#HEADER_START\r\n#CHECKLIST_START\r\n" + record + "#CHECKLIST_END\r\n"},
      {"no header", "#CHECKLIST_START\r\n" + record + "#CHECKLIST_END\r\n"},
      {"start repeated after end",
       header + "#CHECKLIST_START\r\n" + record + "#CHECKLIST_END\r\n#CHECKLIST_START\r\n"},
      {"tag in other case", header + "#checklist_START\r\n" + record + "#CHECKLIST_END\r\n"},
      {"tag with trailing blank", header + "#CHECKLIST_START \r\n" + record + "#CHECKLIST_END\r\n"},
      {"last line without its end", header + "#CHECKLIST_START\r\n" + record + "#CHECKLIST_END"},
      {"font list tag", header + "#SWLIST_START\r\n" + record + "#SWLIST_END\r\n"},
  };
  TempDir dir;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    FileCheckList list;
    LogCapture log;
    EXPECT_FALSE(list.openWithFileName(dir.writeDataFile("c.dat", c.text), true));
    EXPECT_EQ(failureLines(log), std::vector<std::string>{kDamaged});
    EXPECT_EQ(list.getTableByTag("#CHECKLIST")->getDataCount(), 0u);
    EXPECT_EQ(list.getTableByTag("#HEADER")->getDataCount(), 0u);
    EXPECT_EQ(list.getIdByFileName("editor"), -1);
    EXPECT_FALSE(list.m_strFileName().has_value());
  }
}

TEST(DataFileFormat, EachClassNeedsAllItsSections) {
  TempDir dir;
  const std::string header = "#HEADER_START\r\n1\r\n#HEADER_END\r\n";
  // A package file without "#SUB", and one whose "#SUB" ends before it starts.
  FilePackage noSub;
  EXPECT_FALSE(noSub.openWithFileName(
      dir.writeDataFile("p1", header + "#PACKAGE_START\r\n#PACKAGE_END\r\n"), true));
  FilePackage subBackwards;
  EXPECT_FALSE(subBackwards.openWithFileName(
      dir.writeDataFile("p2",
                        header + "#PACKAGE_START\r\n#PACKAGE_END\r\n#SUB_END\r\n#SUB_START\r\n"),
      true));
  // The font list's record section is "#CHECKLIST", not "#SWLIST".
  FileFontList font;
  EXPECT_FALSE(font.openWithFileName(
      dir.writeDataFile("f1", header + "#SWLIST_START\r\n#SWLIST_END\r\n"), true));
  // Empty sections are sound.
  FilePackage empty;
  EXPECT_TRUE(empty.openWithFileName(
      dir.writeDataFile("p3",
                        header + "#SUB_START\r\n#SUB_END\r\n#PACKAGE_START\r\n#PACKAGE_END\r\n"),
      true));
  EXPECT_EQ(empty.getPackageIndex("1"), -1);
}

TEST(DataFileFormat, SectionsInAnyOrderAndTextOutsideThemIsIgnored) {
  TempDir dir;
  const std::string text = crlf({
      "junk before",
      "#SWLIST_START",
      "Ignored\tbecause\tstart\trepeats",
      "#SWLIST_START",
      "A\tB\tC\tD",
      "E\tF\tG\tH",
      "#SWLIST_END",
      "between",
      "#HEADER_START",
      "v1",
      "v2\textra\tvalues",
      "#HEADER_END",
      "trailing",
  });
  FileFilter filter;
  ASSERT_TRUE(filter.openWithFileName(dir.writeDataFile("f.dat", text), true));
  EXPECT_EQ(column(filter.getTableByTag("#SWLIST"), "COMPANY"),
            (std::vector<std::string>{"A", "E"}));
  EXPECT_EQ(filter.getTableByTag("#HEADER")->selectToStr(0), "v2");
  EXPECT_EQ(filter.getIdByFilter("ignored\tBECAUSE\tstart\trepeats"), -1);
  EXPECT_EQ(filter.getIdByFilter("e\tf\tg\th"), 1);
}

// Positions persist between opens; an end line missing from a second,
// shorter file must not send the reader past that file's lines.
TEST(DataFileFormat, ReusedObjectRefusesAShorterFileWithoutAnEndLine) {
  const std::pair<std::function<std::unique_ptr<FileFramework>()>, std::vector<std::string>>
      cases[] = {
          {[] { return std::make_unique<FileCheckList>(); }, {"#HEADER", "#CHECKLIST"}},
          {[] { return std::make_unique<FilePackage>(); }, {"#HEADER", "#PACKAGE", "#SUB"}},
          {[] { return std::make_unique<FileFilter>(); }, {"#HEADER", "#SWLIST"}},
          {[] { return std::make_unique<FileFontList>(); }, {"#HEADER", "#CHECKLIST"}},
      };
  TempDir dir;
  for (const auto& [make, tags] : cases) {
    std::unique_ptr<FileFramework> file = make();
    const FileFramework& object = *file;
    SCOPED_TRACE(typeid(object).name());
    // Long: 300 records a section. Short: one, and no end line for the last.
    std::vector<std::string> longText, shortText;
    for (const std::string& tag : tags) {
      const std::string record(file->getTableByTag(tag)->getFields()->size() - 1, '\t');
      longText.push_back(tag + "_START");
      longText.insert(longText.end(), 300, record);
      shortText.insert(shortText.end(), {tag + "_START", record});
      longText.push_back(tag + "_END");
      if (tag != tags.back()) shortText.push_back(tag + "_END");
    }
    const std::string longPath = dir.writeDataFile("long.dat", crlf(longText));
    ASSERT_TRUE(file->openWithFileName(longPath, true));
    const std::uint64_t records = file->getTableByTag(tags.back())->getDataCount();
    LogCapture log;
    EXPECT_FALSE(file->openWithFileName(dir.writeDataFile("short.dat", crlf(shortText)), true));
    EXPECT_EQ(file->getTableByTag(tags.back())->getDataCount(), records);
    EXPECT_EQ(file->m_strFileName(), longPath);
    if (dynamic_cast<FileCheckList*>(file.get())) {
      EXPECT_EQ(failureLines(log), std::vector<std::string>{kDamaged});
    }
  }
}

TEST(DataFileFormat, RecordLinesWithTheWrongFieldCountAreSkipped) {
  TempDir dir;
  const std::string fontLine = checkLine("F1", "Type", "Serif", "1", "Serif", "serif.ttf", true);
  const std::string softLine = checkLine("S1", "Acme", "Editor", "2", "Editor", "editor");
  const std::string path = dir.writeDataFile(
      "x.dat", sections({{"#HEADER", {"1"}}, {"#CHECKLIST", {fontLine, softLine, ""}}}));

  FileCheckList list;
  LogCapture checkLog;
  ASSERT_TRUE(list.openWithFileName(path, true));
  EXPECT_EQ(
      failureLines(checkLog),
      (std::vector<std::string>{
          "-[FileCheckList openWithFileName:isFullPath:] (151) // CHECKLIST INSERT FAIL : " +
              fontLine,
          "-[FileCheckList openWithFileName:isFullPath:] (151) // CHECKLIST INSERT FAIL : "}));
  EXPECT_EQ(column(list.getTableByTag("#CHECKLIST"), "DB_ID"), std::vector<std::string>{"S1"});

  FileFontList fonts;
  LogCapture fontLog;
  ASSERT_TRUE(fonts.openWithFileName(path, true));
  EXPECT_TRUE(failureLines(fontLog).empty());
  EXPECT_EQ(column(fonts.getTableByTag("#CHECKLIST"), "DB_ID"), std::vector<std::string>{"F1"});
  EXPECT_EQ(fonts.getIdByFileName("editor"), -1);
}

TEST(DataFileFormat, FilesThatCannotBeReadAreRefusedWithTheirLogLine) {
  TempDir dir;
  testing::writeBytes(dir.path() / "empty.dat", "");
  struct Case {
    std::string path;
    std::string line;
  };
  const Case cases[] = {
      {dir.file("missing.dat"),
       "-[FileCheckList openWithFileName:isFullPath:](85) // CHECKLIST FILE OPEN FAIL. error code? "
       "0"},
      {dir.file("empty.dat"),
       "-[FileCheckList openWithFileName:isFullPath:](93) // CHECKLIST DECRYPT FAIL."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path);
    FileCheckList list;
    LogCapture log;
    EXPECT_FALSE(list.openWithFileName(c.path, true));
    EXPECT_TRUE(log.contains(c.line));
    EXPECT_FALSE(list.m_strFileName().has_value());
  }
  // A folder or a pipe is no data file: refused at once, without waiting.
  FileCheckList folder;
  EXPECT_FALSE(folder.openWithFileName(dir.path().string(), true));
  ASSERT_EQ(::mkfifo(dir.file("pipe").c_str(), 0600), 0);
  FileCheckList pipe;
  EXPECT_FALSE(pipe.openWithFileName(dir.file("pipe"), true));
  FileFilter silent;
  LogCapture log;
  EXPECT_FALSE(silent.openWithFileName(dir.file("missing.dat"), true));
  EXPECT_TRUE(failureLines(log).empty());
}

// A small check list saved by the library, then damaged byte by byte.
class DamagedFile : public ::testing::Test {
 protected:
  void SetUp() override {
    FileCheckList list;
    list.getTableByTag("#HEADER")->insertRecord("2024.06", "\t");
    for (int i = 0; i < 6; ++i) {
      const std::string n = std::to_string(i);
      list.getTableByTag("#CHECKLIST")
          ->insertRecord(
              checkLine("ID" + n, "Maker" + n, "Tool" + n, "1." + n, "Tool" + n, "tool" + n), "\t");
    }
    path_ = dir_.file("c.dat");
    ASSERT_TRUE(list.saveAsFileName(path_, true));
    file_ = testing::readBytes(path_);
    plain_ = testing::decipher(file_);
  }

  bool open(const std::string& fileBytes, FileCheckList& list) {
    testing::writeBytes(path_, fileBytes);
    return list.openWithFileName(path_, true);
  }

  TempDir dir_;
  std::string path_, file_, plain_;
};

// A dropped line end merges two records, which are refused; a flipped byte
// changes the one value it falls in.
TEST_F(DamagedFile, DamageInsideTheRecordsReachesOnlyTheRecordsHit) {
  std::string plain = plain_;
  plain.erase(plain.find("\r\nID3"), 2);
  std::string bytes = testing::encipher(plain);
  bytes[bytes.size() - 1 - plain.find("Maker4")] ^=
      ('M' ^ 'W');  // plain byte i sits at size - 1 - i
  FileCheckList list;
  LogCapture log;
  ASSERT_TRUE(open(bytes, list));
  EXPECT_TRUE(log.contains("(151) // CHECKLIST INSERT FAIL : ID2\t"));
  EXPECT_EQ(column(list.getTableByTag("#CHECKLIST"), "DB_ID"),
            (std::vector<std::string>{"ID0", "ID1", "ID4", "ID5"}));
  EXPECT_EQ(column(list.getTableByTag("#CHECKLIST"), "COMPANY"),
            (std::vector<std::string>{"Maker0", "Maker1", "Waker4", "Maker5"}));
  EXPECT_EQ(list.getIdByFileName("tool2"), -1);
  EXPECT_EQ(list.getIdByFileName("tool4"), 2);
}

TEST_F(DamagedFile, TruncationAnywhereIsRefusedOrLoadsWhatIsWhole) {
  // The file holds the text backwards: losing its head loses the text's end
  // (and the end line with it); losing its tail shifts every key byte.
  for (std::size_t cut : {1u, 7u, 16u, 100u}) {
    SCOPED_TRACE(cut);
    FileCheckList head, tail;
    EXPECT_FALSE(open(file_.substr(cut), head));
    EXPECT_FALSE(open(file_.substr(0, file_.size() - cut), tail));
  }
}

TEST_F(DamagedFile, SwappedSectionsOpenWithTheSameRecords) {
  const std::size_t split = plain_.find("#CHECKLIST_START");
  const std::string swapped = plain_.substr(split) + plain_.substr(0, split);
  FileCheckList list;
  ASSERT_TRUE(open(testing::encipher(swapped), list));
  EXPECT_EQ(list.getTableByTag("#CHECKLIST")->getDataCount(), 6u);
  EXPECT_EQ(list.getTableByTag("#HEADER")->select(0, "Version"), "2024.06");
  EXPECT_EQ(contentsOf(list), plain_) << "written back in the fixed order";
}

}  // namespace
}  // namespace quarvel
