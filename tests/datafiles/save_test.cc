// Writing: round trips of the four kinds, folding before encoding, refused
// texts, atomic replacement and the package file's own folder creation.

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>

#include "common/Log.h"
#include "datafiles/DataFileKind.h"
#include "datafiles/DataFileTestUtil.h"
#include "format/MacKorean.h"
#include "quarvel/CVUserDefaults.h"
#include "quarvel/CommonLib.h"
#include "quarvel/FileCheckList.h"
#include "quarvel/FileFilter.h"
#include "quarvel/FileFontList.h"
#include "quarvel/FilePackage.h"
#include "support/SettingsSandbox.h"

namespace quarvel {
namespace {

using datafile::DataFileKind;
using enum DataFileKind;
using testing::checkLine;
using testing::contentsOf;
using testing::sections;
using testing::TempDir;

const std::string kHangul = "\xED\x95\x9C\xEA\xB8\x80";  // 한글

// The text of `file`'s sections as a save writes it before encoding.
std::string text(FileFramework& file, DataFileKind kind) {
  std::vector<std::pair<std::string, std::vector<std::string>>> parts;
  for (const std::string& tag : datafile::sectionTags(kind)) {
    Table* table = file.getTableByTag(tag);
    parts.push_back({tag, {}});
    for (std::uint64_t i = 0; i < table->getDataCount(); ++i)
      parts.back().second.push_back(table->selectToStr(static_cast<int>(i)));
  }
  return sections(parts);
}

void fill(FileFramework& file, const std::vector<std::pair<const char*, std::string>>& lines) {
  for (const auto& [tag, line] : lines)
    ASSERT_GE(file.getTableByTag(tag)->insertRecord(line, "\t"), 0) << line;
}

// A file saved, opened and saved again holds the same records and the same
// bytes: its text encoded and enciphered.
TEST(DataFileSave, AllFourKindsRoundTripWithIdenticalRecords) {
  std::string longest;  // 2,047 bytes stored, the longest line there is
  for (int i = 0; i < 1020; ++i) longest += kHangul.substr(0, 3);
  const std::pair<DataFileKind, std::vector<std::pair<const char*, std::string>>> cases[] = {
      {CheckList,
       {{"#HEADER", "2024.06.01"},
        {"#CHECKLIST", checkLine("1001", kHangul + "\xEC\x86\x8C\xED\x94\x84\xED\x8A\xB8", "Writer",
                                 "3", "Writer", "writer")},
        {"#CHECKLIST", checkLine("1002", "Northwind", "Sketch", "", "", "")},
        {"#CHECKLIST", checkLine("1001", "Northwind", "Sketch", "2", "Sketch", "sketch")}}},
      {Package,
       {{"#HEADER", "7"},
        {"#PACKAGE", "P1\tNorthwind\tOffice " + kHangul + "\t1\tG1\tSuite\t1\tY"},
        {"#SUB", "P1\t-\t120000\tY"},
        {"#SUB", "P1\tStandard\t99000\tN"}}},
      {Filter,
       {{"#HEADER", "1"},
        {"#SWLIST", "A\t\t\t"},
        {"#SWLIST", kHangul + "\tB\tC\tD"},
        {"#SWLIST", "A\tB\tC\t" + std::string(2041, 'x')},
        {"#SWLIST", longest + "x\tB\tC\tD"}}},
      {Font,
       {{"#HEADER", "3"},
        {"#CHECKLIST", checkLine("F1", kHangul, "Myungjo", "1", "M", "myungjo.ttf", true)}}},
  };
  for (const auto& [kind, lines] : cases) {
    TempDir dir;
    const std::unique_ptr<FileFramework> original = datafile::makeDataFile(kind);
    fill(*original, lines);
    const std::string path = dir.file("out.dat");
    ASSERT_TRUE(original->saveAsFileName(path, true));
    EXPECT_FALSE(original->m_strFileName().has_value());  // save-as does not adopt the name
    const std::string firstBytes = testing::readBytes(path);

    const std::unique_ptr<FileFramework> reread = datafile::makeDataFile(kind);
    ASSERT_TRUE(reread->openWithFileName(path, true));
    EXPECT_EQ(text(*reread, kind), text(*original, kind));
    EXPECT_EQ(testing::decipher(firstBytes), MacKorean::encode(text(*reread, kind)));
    ASSERT_TRUE(reread->save());
    EXPECT_EQ(testing::readBytes(path), firstBytes);
    EXPECT_EQ(dir.entries(), std::vector<std::string>{"out.dat"});
  }
}

// Most lines skip folding and take the encoder's fast lane, the others are
// folded and encoded alone; either way each is stored as folding and
// encoding the whole text would store it (an accented letter replaced,
// Hangul in its two-byte codes).
TEST(DataFileSave, EveryLineIsStoredAsTheWholeTextFoldedAndEncoded) {
  const std::string values[] = {
      "plain 1.0",
      kHangul + " 2 " + kHangul,
      "\xEC\x82\xAC",              // 사, which also begins a two-character code
      "\xEC\x82\xAC\xE2\x83\x9D",  // and that code: 사 in a circle
      "(" + kHangul,               // "(" begins a code too, not this one
      "(\xEF\xA1\xBC",             // but this one
      "Caf\xC3\xA9",               // a letter folding replaces
      "e\xCC\x81t" + kHangul,      // a letter and its mark
      "\xC2\xB5m \xC2\xBC",        // folded and removed symbols
      "\xC2\xA6 \xC2\xAF",         // symbols folding substitutes
  };
  FileFilter filter;
  std::vector<std::string> records;
  fill(filter, {{"#HEADER", "1"}});
  for (const std::string& value : values) {
    records.push_back(value + "\tx\t" + value + "\ty");
    fill(filter, {{"#SWLIST", records.back()}});
  }
  const std::string text = sections({{"#HEADER", {"1"}}, {"#SWLIST", records}});
  EXPECT_EQ(contentsOf(filter), MacKorean::encode(CommonLib::encodingForSpecialCharacter(text)));

  // A character without a code is named before an earlier line too long.
  fill(filter, {{"#SWLIST", std::string(2048, 'x') + "\t\t\t"}, {"#SWLIST", "\x7F\t\t\t"}});
  LogCapture log;
  EXPECT_EQ(contentsOf(filter), "<refused>");
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_TRUE(log.contains("SAVE REFUSED: U+007F")) << log.lines()[0];
}

// Text without a Mac Korean code, or that cannot be one line, is refused
// with the first record that holds it named, and the file is left as it was.
TEST(DataFileSave, RecordsThatCannotBeStoredAreRefusedAndTheFileKept) {
  std::string hangul;  // 2,032 bytes stored, 3,048 as UTF-8: with 16 tabs, 2,048
  for (int i = 0; i < 1016; ++i) hangul += "\xED\x95\x9C";
  const std::string tooLong = "a line of 2048 bytes, longer than 2047";
  const std::string lineBreak = "a CR or LF inside a value";
  const std::string noCode = "U+1F600 \"\xF0\x9F\x98\x80\" has no Mac Korean form";
  const char* const className[] = {"FileCheckList", "FilePackage", "FileFilter", "FileFontList"};
  const struct {
    DataFileKind kind;
    std::string tag, value, refusal;
  } cases[] = {
      {CheckList, "#CHECKLIST", "Smile \xF0\x9F\x98\x80", noCode},
      {Filter, "#HEADER", "v\xF0\x9F\x98\x80", noCode},
      {Filter, "#SWLIST", std::string(2045, 'x'), tooLong},
      {CheckList, "#CHECKLIST", hangul, tooLong},
      {Font, "#HEADER", std::string(2048, '9'), tooLong},
      {Package, "#SUB", "A\rB", lineBreak},
      {Package, "#PACKAGE", "A\r\nB", lineBreak},
      {Filter, "#HEADER", "1\n2", lineBreak},
  };
  TempDir dir;
  const std::string path = dir.file("old.dat");
  for (const auto& c : cases) {
    std::unique_ptr<FileFramework> file = datafile::makeDataFile(c.kind);
    // A sound record, then the value followed by empty ones (the header
    // keeps one record: there the second replaces the first).
    Table* table = file->getTableByTag(c.tag);
    const std::string empties(table->getFields()->size() - 1, '\t');
    fill(*file, {{c.tag.c_str(), "1" + empties}, {c.tag.c_str(), c.value + empties}});
    const std::string record = std::to_string(table->getDataCount() - 1);
    testing::writeBytes(path, "previous contents");
    LogCapture log;
    EXPECT_FALSE(file->saveAsFileName(path, true));
    EXPECT_EQ(testing::readBytes(path), "previous contents");
    EXPECT_EQ(dir.entries(), std::vector<std::string>{"old.dat"});
    EXPECT_EQ(log.lines(),
              std::vector<std::string>{std::string("-[") + className[static_cast<int>(c.kind)] +
                                       " getContents:] // SAVE REFUSED: " + c.refusal +
                                       " (section " + c.tag + ", record " + record + ")"});
  }
  // The buffer is refused alike: what getContents answers a save writes;
  // and a file that was not there is not made.
  FilePackage refused;
  fill(refused, {{"#SUB", "P1\t\r\t\t"}});
  std::uint64_t size = 7;
  EXPECT_EQ(refused.getContents(size), nullptr);
  EXPECT_EQ(size, 0u);
  EXPECT_FALSE(refused.saveAsFileName(dir.file("new.dat"), true));
  EXPECT_EQ(dir.entries(), std::vector<std::string>{"old.dat"});
}

TEST(DataFileSave, OnlyThePackageFileCreatesItsMissingFolder) {
  TempDir dir;
  const std::string nested = (dir.path() / "a" / "b" / "list.dat").string();
  for (DataFileKind kind : {CheckList, Filter, Font})
    EXPECT_FALSE(datafile::makeDataFile(kind)->saveAsFileName(nested, true));
  EXPECT_TRUE(dir.entries().empty());
  // Nor does a folder in the way make a file.
  std::filesystem::create_directory(dir.path() / "sub");
  EXPECT_FALSE(FileFontList().saveAsFileName(dir.file("sub"), true));
  EXPECT_TRUE(std::filesystem::is_directory(dir.path() / "sub"));

  FilePackage package;
  ASSERT_TRUE(package.saveAsFileName(nested, true));
  FilePackage reread;
  EXPECT_TRUE(reread.openWithFileName(nested, true));
}

TEST(DataFileSave, BareNamesResolveInTheLibraryFolder) {
  testing::SettingsSandbox sandbox;
  const std::optional<std::string> library = CVUserDefaults::standardUserDefaults()->libraryPath();
  ASSERT_TRUE(library.has_value());
  EXPECT_EQ(FileFramework::resolvePath("macfilterlist.dat", false),
            *library + "/macfilterlist.dat");

  FileFilter filter;
  ASSERT_GE(filter.getTableByTag("#HEADER")->insertRecord("9", "\t"), 0);
  ASSERT_TRUE(filter.saveAsFileName("macfilterlist.dat", false));
  FileFilter reread;
  ASSERT_TRUE(reread.openWithFileName("macfilterlist.dat", false));
  EXPECT_EQ(reread.m_strFileName(), *library + "/macfilterlist.dat");
  EXPECT_EQ(reread.getTableByTag("#HEADER")->select(0, "Version"), "9");
}

}  // namespace
}  // namespace quarvel
