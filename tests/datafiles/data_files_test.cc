// The data-file classes. Reading: section location, stray text, the
// header's last line, appending, and the files an open refuses. The look-ups:
// which keys are case-blind, which repeat-rule applies and when each index is
// built. Writing: round trips of the four kinds, folding before encoding,
// refused texts, atomic replacement and the package file's own folder
// creation.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <random>

#include "ListGenerator.h"
#include "common/Log.h"
#include "common/StringUtil.h"
#include "datafiles/DataFileKind.h"
#include "datafiles/DataFileTestUtil.h"
#include "datafiles/LookupIndex.h"
#include "format/LineReader.h"
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
      {"tail cut 1", CheckList, file.substr(0, file.size() - 1), damaged},
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

// Case-blind look-ups lower and hash the key in words, the last one
// overlapping the one before: every length must find its key in any case,
// and miss a key that differs in any one byte.
TEST(LookupKeys, FindLoweredFindsEveryLengthAndMissesAnyOtherByte) {
  std::vector<std::string> keys;
  for (std::size_t length = 0; length <= 40; ++length) {
    std::string key;
    for (std::size_t i = 0; i < length; ++i) key += "aB3-zQ."[(length + i) % 7];
    keys.push_back(key);
  }
  keys.push_back("\xED\x95\x9C Gl\xED\x95\x9C");                    // Hangul between ASCII
  keys.push_back("\xCE\xA3\xCE\x9F\xCE\xA6\xCE\x99\xCE\x91 Soft");  // Greek capitals
  keys.push_back(std::string(300, 'Q') + "X");                      // longer than the stack
  LookupIndex index;
  for (std::size_t i = 0; i < keys.size(); ++i) index.set(lowerKey(keys[i]), static_cast<int>(i));
  for (std::size_t i = 0; i < keys.size(); ++i) {
    EXPECT_EQ(index.findLowered(keys[i]), static_cast<std::int64_t>(i)) << keys[i];
    EXPECT_EQ(index.findLowered(lowercase(keys[i])), static_cast<std::int64_t>(i));
    EXPECT_EQ(index.find(lowerKey(keys[i])), static_cast<std::int64_t>(i));
    for (std::size_t at = 0; at < keys[i].size(); ++at) {
      std::string other = keys[i];
      other[at] = other[at] == '#' ? '%' : '#';
      ASSERT_EQ(index.findLowered(other), -1) << keys[i] << " byte " << at;
    }
  }
}

// Keys of 16 to 64 bytes are lowered and hashed 16 bytes a step, their
// characters beyond ASCII copied, and checked when the key is entered or
// missed; a key holding any with case takes the full rule. Keys built from
// pieces on both sides of each line drawn there (letters and the bytes next
// to them, caseless characters and their cased neighbours, broken
// sequences, a character cut at the key's end), at lengths around the
// steps, find what the full Unicode rule finds, as given and already
// lowered, through set and through a filler.
TEST(LookupKeys, WideLoweringDrawsTheLineWhereTheFullRuleDoes) {
  const std::string pieces[] = {
      "A",
      "z",
      "Q7",
      "\t",
      "@[",
      "`{",                // the bytes each side of the letters
      "\xE3\x80\x81",      // U+3001, caseless
      "\xE3\x84\xB1",      // U+3131, caseless, the byte-by-byte way
      "\xE4\xB8\x80",      // U+4E00
      "\xE4\xB7\xBF",      // U+4DFF, before the ideographs
      "\xE9\xBF\xBF",      // U+9FFF
      "\xEA\xB0\x80",      // U+AC00, the first syllable
      "\xEA\x99\x80",      // U+A640, Cyrillic capital: lowers
      "\xED\x9D\xBF",      // U+D77F
      "\xED\x9E\xA3",      // U+D7A3, the last syllable
      "\xE2\x92\xB6",      // U+24B6, circled capital: lowers
      "\xEF\xBC\xA1",      // U+FF21, fullwidth capital: lowers
      "\xCE\xA3",          // Greek capital
      "\xF0\x9F\x98\x80",  // beyond the BMP
      "\xEB",              // a lead without its continuations
      "\x80",              // a continuation without its lead
      "\xED\xA0\x80",      // a surrogate
  };
  std::mt19937 rng(23);
  std::vector<std::string> keys;
  for (int i = 0; i < 6000; ++i) {
    std::string key;
    const std::size_t length = 12 + rng() % 60;
    // Mostly ASCII and caseless characters, as real keys are.
    while (key.size() < length) key += pieces[rng() % (i % 4 ? 10 : std::size(pieces))];
    if (i % 5 == 0) key.resize(length);  // cut anywhere, a character too
    keys.push_back(key);
  }
  for (std::size_t length : {16, 17, 31, 32, 33, 62, 63, 64, 65})
    for (const std::string end : {"\xEB", "\xEB\x80", "\xEB\x80\x80"}) {
      keys.push_back(std::string(length - end.size(), 'M') + end);
      keys.push_back(end + std::string(length - end.size(), 'm'));
    }
  LookupIndex expected, filled;
  {
    LookupIndex::Filler filler(filled, keys.size());
    for (std::size_t i = 0; i < keys.size(); ++i) {
      expected.set(lowercase(keys[i]), static_cast<std::int64_t>(i));
      filler.add(keys[i], static_cast<std::int64_t>(i));
    }
    filler.finish();
  }
  ASSERT_EQ(filled.size(), expected.size());
  for (const std::string& key : keys) {
    const std::int64_t want = expected.find(lowercase(key));
    ASSERT_GE(want, 0);
    ASSERT_EQ(expected.findLowered(key), want) << key;
    ASSERT_EQ(expected.findLowered(lowercase(key)), want) << key;
    ASSERT_EQ(filled.find(lowercase(key)), want) << key;
  }
}

// A million keys of one length that differ only in their last part,
// entered one by one through every growth of the table: among them some
// hundred pairs share a 32-bit hash, which only the bytes of that part tell
// apart. Keys of 15 bytes are compared as two 8-byte words, keys of 24 as
// two 16-byte steps; each shape's first word or step is the same in every
// key. Each key finds its own value, a repeat replaces it, and keys one
// byte longer or shorter (other entry padding) are absent.
TEST(LookupKeys, MillionKeysThroughGrowthAndSharedHashes) {
  constexpr int kKeys = 1000000;
  for (const bool wide : {false, true}) {
    const auto key = [wide](int i) {
      const unsigned mixed = static_cast<unsigned>(i) * 2654435761u;
      char text[32];
      if (wide)
        std::snprintf(text, sizeof text, "filename-prefix-%08x", mixed);
      else
        std::snprintf(text, sizeof text, "filename%07x", mixed & 0x0FFFFFFFu);
      return std::string(text);
    };
    LookupIndex index;
    for (int i = 0; i < kKeys; ++i) index.set(key(i), i);
    for (int i = 0; i < kKeys; i += 3) index.set(key(i), kKeys - i);
    ASSERT_EQ(index.size(), static_cast<std::size_t>(kKeys));
    for (int i = 0; i < kKeys; ++i) {
      const std::string k = key(i);
      ASSERT_EQ(index.find(k), i % 3 == 0 ? kKeys - i : i) << k;
      if (i % 1000 == 0) {
        EXPECT_EQ(index.find(k + "x"), -1) << k;
        EXPECT_EQ(index.find(k.substr(1)), -1) << k;
      }
    }
  }
}

// Keys entered through a filler, a few keys after they are given, make the
// index that set(lowercase(key)) one by one makes, lowercase being the full
// Unicode rule: the same size and answers, the last of a repeated key
// winning whether its repeat is still pending or entered long before, for
// keys lowered in the ring and those too long or beyond its fast path, past
// the room the filler was promised, and with the room sized from the first
// keys.
TEST(LookupKeys, FillerEntersWhatSetWouldInTheSameOrder) {
  std::mt19937 rng(11);
  const std::string pieces[] = {"Ab", "zZ", ".", "\t", "\xED\x95\x9C", "\xCE\xA3", "Q"};
  std::vector<std::string> keys;
  for (int i = 0; i < 3000; ++i) {
    if (i % 7 == 3 && !keys.empty()) {  // a repeat, near or far, in other case
      const std::size_t back = i % 2 ? 1 + rng() % 10 : rng() % keys.size() + 1;
      keys.push_back(lowercase(keys[keys.size() - std::min(back, keys.size())]));
      continue;
    }
    std::string key;
    for (std::size_t n = rng() % (i % 50 == 0 ? 90 : 12); n > 0; --n)
      key += pieces[rng() % (i % 3 ? 4 : std::size(pieces))];
    keys.push_back(key);
  }
  LookupIndex expected, promised, sampled;
  {
    LookupIndex::Filler filler(promised, keys.size() / 2, 100, LookupIndex::Filler::Case::kBlind);
    LookupIndex::Filler sampler(sampled, keys.size() / 2);
    for (std::size_t i = 0; i < keys.size(); ++i) {
      expected.set(lowercase(keys[i]), static_cast<std::int64_t>(i));
      filler.add(keys[i], static_cast<std::int64_t>(i));
      sampler.add(keys[i], static_cast<std::int64_t>(i));
    }
    filler.finish();
    sampler.finish();
  }
  for (const LookupIndex* filled : {&promised, &sampled}) {
    ASSERT_EQ(filled->size(), expected.size());
    for (const std::string& key : keys)
      ASSERT_EQ(filled->findLowered(key), expected.find(lowercase(key))) << key;
  }
}

TEST(FileCheckList, LooksUpByPropertyFileNameAndIdentifier) {
  const std::string greek = "\xCE\xA3\xCE\x9F\xCE\xA6\xCE\x99\xCE\x91";             // ΣΟΦΙΑ
  const std::string wideEdit = "\xEF\xBC\xA5\xEF\xBC\xA4\xEF\xBC\xA9\xEF\xBC\xB4";  // ＥＤＩＴ
  const std::vector<std::string> records = {
      checkLine("A-1", "Acme", "editor", "2.0", "Editor.app", "Editor"),
      checkLine("a-1", "Acme", "Viewer", "1.0", "Viewer", "VIEWER"),
      checkLine("B-2", "Acme", "Viewer", "1.0", "viewer", "viewer2"),
      checkLine("C-3", greek + " Soft", "\xCE\x91\xCE\x92\xCE\x93", "1", "x", wideEdit),
      checkLine("D-4", "\xED\x95\x9C\xEA\xB8\x80\xEC\x86\x8C\xED\x94\x84\xED\x8A\xB8", "Hangul",
                "9", "x", ""),
      checkLine("E-5", "Blank", "Exe", "1", "x", "")};
  // Once, and repeated past the length whose indexes are filled on a second
  // thread and whose lines are handed back as they are used, a refused line
  // in each repetition: the last record of a key wins, numbered as the table
  // numbers it, and each refused line is logged whole.
  for (const int copies : {1, 2400}) {
    std::vector<std::string> lines;
    for (int c = 0; c < copies; ++c) {
      lines.insert(lines.end(), records.begin(), records.end());
      lines.push_back("refused\tline");
    }
    TempDir dir;
    FileCheckList list;
    LogCapture refusals;
    ASSERT_TRUE(list.openWithFileName(
        dir.writeDataFile("c.dat", sections({{"#HEADER", {"2024.05"}}, {"#CHECKLIST", lines}})),
        true));
    const int last = 6 * (copies - 1);
    const std::tuple<const char*, int, int> cases[] = {
        {"property ignores case", list.getIdByProperty("ACME\tEditor\t2.0\tEditor.app"), 0},
        {"property, last of a repeated key", list.getIdByProperty("acme\tviewer\t1.0\tVIEWER"), 2},
        {"property with a part missing", list.getIdByProperty("Acme\teditor\t2.0"), -1},
        {"property, Greek capitals",
         list.getIdByProperty(
             "\xCF\x83\xCE\xBF\xCF\x86\xCE\xB9\xCE\xB1 SOFT\t\xCE\xB1\xCE\xB2\xCE\xB3\t1\tX"),
         3},
        {"file name ignores case", list.getIdByFileName("eDiToR"), 0},
        {"file name, full-width capitals",
         list.getIdByFileName("\xEF\xBD\x85\xEF\xBD\x84\xEF\xBD\x89\xEF\xBD\x94"), 3},
        {"file name, last of the empty names", list.getIdByFileName(""), 5},
        {"file name unknown", list.getIdByFileName("editor.app"), -1},
        {"identifier is exact", list.getIndex("a-1"), 1},
        {"identifier in other case", list.getIndex("c-3"), -1}};
    for (const auto& [what, got, expected] : cases)
      EXPECT_EQ(got, expected < 0 ? expected : expected + last) << what << " x" << copies;
    const std::vector<std::string> logged = refusals.lines();
    EXPECT_EQ(std::ranges::count(logged,
                                 "-[FileCheckList openWithFileName:isFullPath:] (151) // "
                                 "CHECKLIST INSERT FAIL : refused\tline"),
              copies);
  }
}

// A list large enough to be read in two halves, its property index filled
// beside its records: it holds the generated text to the byte, each record's
// keys lead back to it (each has its own), and the back half's records
// outlive the read that made them.
TEST(FileCheckList, ALargeListReadOnTwoThreadsHoldsEveryRecord) {
  constexpr std::size_t kRecords = 90000;
  TempDir dir;
  const std::string path = dir.file("large.dat");
  ASSERT_TRUE(bench::writeCheckListFile(path, kRecords));
  ASSERT_GE(std::filesystem::file_size(path), datafile::kTwoThreadsFrom);
  FileCheckList list;
  ASSERT_TRUE(list.openWithFileName(path, true));  // untraced: a capture would read it whole
  EXPECT_EQ(contentsOf(list), MacKorean::encode(bench::generateCheckListText(kRecords)));
  Table* table = list.getTableByTag("#CHECKLIST");
  ASSERT_EQ(table->getDataCount(), kRecords);
  for (std::int64_t row = 0; row < static_cast<std::int64_t>(kRecords); row += 97) {
    const RecordPtr record = table->select(row);
    ASSERT_EQ(list.getIdByFileName((*record)[5]), row);
    ASSERT_EQ(list.getIdByProperty(record->joined(1, 4)), row);
  }
}

// A list never opened: records inserted are indexed by no look-up but make
// the display lists, and a save is refused (logged by the check list alone).
TEST(FileCheckList, RecordsInsertedWithoutAnOpenAndTheRefusedSave) {
  FileCheckList list;
  Table* table = list.getTableByTag("#CHECKLIST");
  table->insertRecord(checkLine("1", "A", "P", "1", "O", "a"), "\t");
  table->insertRecord(checkLine("2", "A", "P", "1", "O", "a"), "\t");
  EXPECT_EQ(list.getIdByFileName("a"), -1);
  list.initCompanyAndProduct();
  list.initCompanyAndProduct();
  EXPECT_EQ(list.m_pArrCompany(), (std::vector<std::string>{"A Inc.", "A Inc."}));
  EXPECT_EQ(list.m_pArrProduct(), (std::vector<std::string>{"P Pro", "P Pro"}));

  LogCapture log;
  EXPECT_FALSE(list.save());
  EXPECT_EQ(log.lines(), std::vector<std::string>{
                             "-[FileCheckList save](174) // CheckList file does not open."});
  for (auto kind : {Package, Filter, Font}) EXPECT_FALSE(datafile::makeDataFile(kind)->save());
  EXPECT_EQ(log.lines().size(), 1u);
}

// The display name shows only the placeholder sub-item; the package index
// is exact, the last of a repeated id wins, and it is built once.
TEST(FilePackage, DisplayNameAndTheExactPackageIndexBuiltOnce) {
  FilePackage package;
  EXPECT_EQ(package.getProductNameByPackageIndex(0, 0), Table::kOutOfBounds);
  EXPECT_EQ(package.getPackageIndex("P1"), -1);
  Table* table = package.getTableByTag("#PACKAGE");
  for (const char* line :
       {"P1\tAcme\tOffice\t1\tG\tSuite\t1\tY", "P2\tAcme\tDraw\t1\tG\tSuite\t1\tY",
        "P1\tAcme\tOffice 2\t1\tG\tSuite\t1\tY"})
    table->insertRecord(line, "\t");
  EXPECT_EQ(package.getPackageIndex("P1"), 2);
  EXPECT_EQ(package.getPackageIndex("p1"), -1);
  table->insertRecord("P3\tAcme\tNew\t1\tG\tSuite\t1\tY", "\t");
  EXPECT_EQ(package.getPackageIndex("P3"), -1);

  for (const char* line : {"P1\t-\t100\tY", "P1\tStandard\t200\tY", "P1\t\t300\tY"})
    package.getTableByTag("#SUB")->insertRecord(line, "\t");
  const std::tuple<int, int, std::string> cases[] = {
      {0, 0, "Office(-)"}, {0, 1, "Office"},  {0, 2, "Office"},
      {0, 3, "Office"},    {0, -1, "Office"}, {4, 1, Table::kOutOfBounds}};
  for (const auto& [index, sub, expected] : cases)
    EXPECT_EQ(package.getProductNameByPackageIndex(index, sub), expected) << index << "," << sub;

  // The package ids are one dictionary, made on first use.
  package.getPackageIds()["P1"] = PlistValue::integer(1);
  EXPECT_EQ(package.getPackageIds().size(), 1u);
}

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
