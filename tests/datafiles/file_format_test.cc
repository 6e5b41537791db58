// The sectioned format as every data-file class reads it: section location,
// stray text, the header's last line, appending, and the files an open
// refuses.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "common/Log.h"
#include "datafiles/DataFileKind.h"
#include "datafiles/DataFileTestUtil.h"
#include "quarvel/FileCheckList.h"
#include "quarvel/FileFilter.h"
#include "quarvel/FileFontList.h"
#include "quarvel/FilePackage.h"

namespace quarvel {
namespace {

using datafile::DataFileKind;
using testing::checkLine;
using testing::contentsOf;
using testing::crlf;
using testing::sections;
using testing::TempDir;

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

// Sections may come in any order, a start line repeated restarts its
// section and text outside the sections is passed over; what was read is
// written back in the fixed order. A second open appends records and keys
// and replaces the header, which takes the last line of its section even
// when blank.
TEST(DataFileFormat, SectionsInAnyOrderAndASecondOpenAppends) {
  TempDir dir;
  const std::string text =
      crlf({"junk before", "#SWLIST_START", "Ignored\tbecause\tstart\trepeats", "#SWLIST_START",
            "A\tB\tC\tD", "E\tF\tG\tH", "#SWLIST_END", "between", "#HEADER_START", "v1",
            "v2\textra\tvalues", "#HEADER_END", "trailing"});
  FileFilter filter;
  ASSERT_TRUE(filter.openWithFileName(dir.writeDataFile("a", text), true));
  EXPECT_EQ(column(filter.getTableByTag("#SWLIST"), "COMPANY"),
            (std::vector<std::string>{"A", "E"}));
  EXPECT_EQ(filter.getTableByTag("#HEADER")->selectToStr(0), "v2");
  EXPECT_EQ(filter.getIdByFilter("ignored\tBECAUSE\tstart\trepeats"), -1);
  EXPECT_EQ(filter.getIdByFilter("e\tf\tg\th"), 1);
  EXPECT_EQ(contentsOf(filter),
            sections({{"#HEADER", {"v2"}}, {"#SWLIST", {"A\tB\tC\tD", "E\tF\tG\tH"}}}));

  ASSERT_TRUE(filter.openWithFileName(
      dir.writeDataFile("b", sections({{"#HEADER", {"2", ""}}, {"#SWLIST", {"A\tB\tC\tD"}}})),
      true));
  EXPECT_EQ(filter.getTableByTag("#SWLIST")->getDataCount(), 3u);
  EXPECT_EQ(filter.getTableByTag("#HEADER")->select(0, "Version"), "");
  EXPECT_EQ(filter.getIdByFilter("a\tb\tc\td"), 2);
  EXPECT_EQ(filter.m_strFileName(), dir.file("b"));
}

// Each section of `kind` with `records` empty records, the last section's
// end line left out when `cut`.
std::string emptyRecords(DataFileKind kind, std::size_t records, bool cut) {
  const std::unique_ptr<FileFramework> file = datafile::makeDataFile(kind);
  std::vector<std::string> lines;
  for (const std::string& tag : datafile::sectionTags(kind)) {
    lines.push_back(tag + "_START");
    lines.insert(lines.end(), records,
                 std::string(file->getTableByTag(tag)->getFields()->size() - 1, '\t'));
    lines.push_back(tag + "_END");
  }
  if (cut) lines.pop_back();
  return crlf(lines);
}

// What an open answers for a file it cannot take: false and the check
// list's log line (the other classes log none), with nothing loaded and no
// name adopted. A reused object keeps the section positions of its last
// open: a shorter file without its last end line must not send the reader
// past that file's lines.
TEST(DataFileFormat, BrokenFilesAreRefusedBeforeAnyRecordIsLoaded) {
  using enum DataFileKind;
  TempDir dir;
  const std::string header = "#HEADER_START\r\n7\r\n#HEADER_END\r\n";
  const std::string record = checkLine("1", "Acme", "Editor", "2.0", "Editor", "editor") + "\r\n";
  const std::string start = "#CHECKLIST_START\r\n", end = "#CHECKLIST_END\r\n";
  const std::string file = testing::encipher(header + start + record + end);
  const std::string open = "-[FileCheckList openWithFileName:isFullPath:]";
  const std::string damaged = open + " (130) // ERROR: CHECKLIST DAMAGED";
  const std::string cannotOpen = open + "(85) // CHECKLIST FILE OPEN FAIL. error code? 0";
  const auto e = [](const std::string& text) { return testing::encipher(text); };
  testing::writeBytes(dir.file("empty.dat"), "");
  ASSERT_EQ(::mkfifo(dir.file("pipe").c_str(), 0600), 0);
  const struct {
    const char* what;
    DataFileKind kind;
    std::string bytes, log;
    std::string path = "";  // the file to open instead of one holding `bytes`
    bool reused = false;    // the object has first opened a longer file
  } cases[] = {
      {"no end line", CheckList, e(header + start + record), damaged},
      {"end before start", CheckList, e(header + end + record + start), damaged},
      {"header end before start", CheckList,
       e("#HEADER_END\r\n7\r\n#HEADER_START\r\n" + start + record + end), damaged},
      {"no header", CheckList, e(start + record + end), damaged},
      {"start repeated after end", CheckList, e(header + start + record + end + start), damaged},
      {"tag in other case", CheckList, e(header + "#checklist_START\r\n" + record + end), damaged},
      {"tag with trailing blank", CheckList, e(header + "#CHECKLIST_START \r\n" + record + end),
       damaged},
      {"last line without its end", CheckList, e(header + start + record + "#CHECKLIST_END"),
       damaged},
      {"filter list tag", CheckList, e(header + "#SWLIST_START\r\n" + record + "#SWLIST_END\r\n"),
       damaged},
      {"font list needs #CHECKLIST", Font, e(header + "#SWLIST_START\r\n#SWLIST_END\r\n"), ""},
      {"package without #SUB", Package, e(header + "#PACKAGE_START\r\n#PACKAGE_END\r\n"), ""},
      {"#SUB backwards", Package,
       e(header + "#PACKAGE_START\r\n#PACKAGE_END\r\n#SUB_END\r\n#SUB_START\r\n"), ""},
      {"reused, shorter", CheckList, e(emptyRecords(CheckList, 1, true)), damaged, "", true},
      {"reused, shorter", Package, e(emptyRecords(Package, 1, true)), "", "", true},
      {"missing", CheckList, "", cannotOpen, dir.file("missing.dat")},
      {"missing", Filter, "", "", dir.file("missing.dat")},
      {"empty", CheckList, "", open + "(93) // CHECKLIST DECRYPT FAIL.", dir.file("empty.dat")},
      {"folder", CheckList, "", cannotOpen, dir.path()},
      {"pipe", CheckList, "", cannotOpen, dir.file("pipe")},
      // The file holds the text backwards: a cut head loses the text's end
      // line, a cut tail shifts every key byte.
      {"head cut 1", CheckList, file.substr(1), damaged},
      {"head cut 7", CheckList, file.substr(7), damaged},
      {"tail cut 1", CheckList, file.substr(0, file.size() - 1), damaged},
      {"tail cut 7", CheckList, file.substr(0, file.size() - 7), damaged},
  };
  for (const auto& c : cases) {
    const std::unique_ptr<FileFramework> object = datafile::makeDataFile(c.kind);
    if (c.reused) {
      const std::string longer = dir.writeRawDataFile("long.dat", emptyRecords(c.kind, 300, false));
      ASSERT_TRUE(object->openWithFileName(longer, true));
    }
    const auto counts = [&] {
      std::vector<std::uint64_t> n;
      for (const std::string& tag : datafile::sectionTags(c.kind))
        n.push_back(object->getTableByTag(tag)->getDataCount());
      return n;
    };
    const std::vector<std::uint64_t> records = counts();
    const std::optional<std::string> name = object->m_strFileName();
    std::string path = c.path;
    if (path.empty()) testing::writeBytes(path = dir.file("c.dat"), c.bytes);
    LogCapture log;
    EXPECT_FALSE(object->openWithFileName(path, true)) << c.what;
    EXPECT_EQ(failureLines(log),
              c.log.empty() ? std::vector<std::string>{} : std::vector<std::string>{c.log})
        << c.what;
    EXPECT_EQ(counts(), records) << c.what;
    EXPECT_EQ(object->m_strFileName(), name) << c.what;
  }
  // Empty sections are sound.
  FilePackage empty;
  EXPECT_TRUE(empty.openWithFileName(
      dir.writeDataFile("p.dat", sections({{"#HEADER", {"1"}}, {"#SUB", {}}, {"#PACKAGE", {}}})),
      true));
}

TEST(DataFileFormat, RecordLinesWithTheWrongFieldCountAreSkipped) {
  TempDir dir;
  const std::string fontLine = checkLine("F1", "Type", "Serif", "1", "Serif", "serif.ttf", true);
  const std::string softLine = checkLine("S1", "Acme", "Editor", "2", "Editor", "editor");
  const std::string path = dir.writeDataFile(
      "x.dat", sections({{"#HEADER", {"1"}}, {"#CHECKLIST", {fontLine, softLine, ""}}}));
  const std::string refused =
      "-[FileCheckList openWithFileName:isFullPath:] (151) // CHECKLIST INSERT FAIL : ";

  FileCheckList list;
  LogCapture checkLog;
  ASSERT_TRUE(list.openWithFileName(path, true));
  EXPECT_EQ(failureLines(checkLog), (std::vector<std::string>{refused + fontLine, refused}));
  EXPECT_TRUE(checkLog.contains("#CHECKLIST_END\n"));  // each line read is traced
  EXPECT_EQ(column(list.getTableByTag("#CHECKLIST"), "DB_ID"), std::vector<std::string>{"S1"});

  FileFontList fonts;
  LogCapture fontLog;
  ASSERT_TRUE(fonts.openWithFileName(path, true));
  EXPECT_TRUE(failureLines(fontLog).empty());
  EXPECT_EQ(column(fonts.getTableByTag("#CHECKLIST"), "DB_ID"), std::vector<std::string>{"F1"});
  EXPECT_EQ(fonts.getIdByFileName("editor"), -1);
  EXPECT_EQ(fonts.getIdByFileName("SERIF.ttf"), 0);  // file names are case-blind, ids exact
  EXPECT_EQ(fonts.getIndex("F1"), 0);
  EXPECT_EQ(fonts.getIndex("f1"), -1);
}

}  // namespace
}  // namespace quarvel
