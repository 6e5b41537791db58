// The look-ups of the four data-file classes: which keys are case-blind,
// which repeat-rule applies and when each index is built.

#include <gtest/gtest.h>

#include <cstdio>
#include <random>

#include "common/Log.h"
#include "common/StringUtil.h"
#include "datafiles/DataFileKind.h"
#include "datafiles/DataFileTestUtil.h"
#include "datafiles/LookupIndex.h"
#include "quarvel/FileCheckList.h"
#include "quarvel/FilePackage.h"

namespace quarvel {
namespace {

using testing::checkLine;
using testing::sections;
using testing::TempDir;

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

// A million keys of one length that differ only in their last word, entered
// one by one through every growth of the table: among them some hundred
// pairs share a 32-bit hash, which only the bytes of the last word tell
// apart. Each key finds its own value, a repeat replaces it, and keys one
// byte longer or shorter (other entry padding) are absent.
TEST(LookupKeys, MillionKeysThroughGrowthAndSharedHashes) {
  constexpr int kKeys = 1000000;
  const auto key = [](int i) {
    char text[32];
    std::snprintf(text, sizeof text, "filename%08x", static_cast<unsigned>(i) * 2654435761u);
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
  TempDir dir;
  FileCheckList list;
  ASSERT_TRUE(list.openWithFileName(
      dir.writeDataFile("c.dat", sections({{"#HEADER", {"2024.05"}}, {"#CHECKLIST", records}})),
      true));
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
      {"identifier in other case", list.getIndex("c-3"), -1},
      {"identifier", list.getIndex("B-2"), 2}};
  for (const auto& [what, got, expected] : cases) EXPECT_EQ(got, expected) << what;
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
  for (auto kind : {datafile::DataFileKind::Package, datafile::DataFileKind::Filter,
                    datafile::DataFileKind::Font})
    EXPECT_FALSE(datafile::makeDataFile(kind)->save());
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

}  // namespace
}  // namespace quarvel
