// The look-ups of the four data-file classes: which keys are case-blind,
// which repeat-rule applies and when each index is built.

#include <gtest/gtest.h>

#include <cstdio>
#include <random>

#include "common/Log.h"
#include "common/StringUtil.h"
#include "datafiles/DataFileTestUtil.h"
#include "datafiles/LookupIndex.h"
#include "quarvel/FileCheckList.h"
#include "quarvel/FileFilter.h"
#include "quarvel/FileFontList.h"
#include "quarvel/FilePackage.h"

namespace quarvel {
namespace {

using testing::checkLine;
using testing::sections;
using testing::TempDir;

std::string checkListText(const std::vector<std::string>& records) {
  return sections({{"#HEADER", {"2024.05"}}, {"#CHECKLIST", records}});
}

// Keys lower-case as the full Unicode rule does, whatever their length and
// wherever the upper-case letters, the bytes beside 'A' and 'Z' and the
// characters beyond ASCII fall.
TEST(LookupKeys, LowerCaseAsUnicodeDoesAtEveryLength) {
  std::mt19937 rng(5);
  const std::string pieces[] = {"A",        "Z",       "@", "[",  "`", "{",
                                "a",        "z",       "0", "\t", " ", "\xED\x95\x9C",
                                "\xC3\x89", "\xCE\xA3"};  // 한 É Σ
  for (int round = 0; round < 3000; ++round) {
    std::string key;
    for (std::size_t n = rng() % 40; n > 0; --n) {
      const std::size_t pick = rng() % std::size(pieces);
      key += round % 2 ? pieces[pick % 11] : pieces[pick];  // every other key all ASCII
    }
    SCOPED_TRACE(::testing::PrintToString(key));
    ASSERT_EQ(lowerKey(key), lowercase(key));
  }
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
    SCOPED_TRACE(keys[i]);
    EXPECT_EQ(index.findLowered(keys[i]), static_cast<std::int64_t>(i));
    EXPECT_EQ(index.findLowered(lowercase(keys[i])), static_cast<std::int64_t>(i));
    EXPECT_EQ(index.find(lowerKey(keys[i])), static_cast<std::int64_t>(i));
    for (std::size_t at = 0; at < keys[i].size(); ++at) {
      std::string other = keys[i];
      other[at] = other[at] == '#' ? '%' : '#';
      ASSERT_EQ(index.findLowered(other), -1) << "byte " << at;
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
// index that set(lowerKey(key)) one by one makes: the same size and answers,
// the last of a repeated key winning whether its repeat is still pending or
// entered long before, for keys lowered in the ring and those too long or
// beyond its fast path, past the room the filler was promised, and with the
// room sized from the first keys.
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
      expected.set(lowerKey(keys[i]), static_cast<std::int64_t>(i));
      filler.add(keys[i], static_cast<std::int64_t>(i));
      sampler.add(keys[i], static_cast<std::int64_t>(i));
    }
    filler.finish();
    sampler.finish();
  }
  for (const LookupIndex* filled : {&promised, &sampled}) {
    ASSERT_EQ(filled->size(), expected.size());
    for (const std::string& key : keys) {
      SCOPED_TRACE(::testing::PrintToString(key));
      ASSERT_EQ(filled->findLowered(key), expected.findLowered(key));
    }
  }
}

TEST(FileCheckList, LooksUpByPropertyFileNameAndIdentifier) {
  TempDir dir;
  FileCheckList list;
  ASSERT_TRUE(list.openWithFileName(
      dir.writeDataFile(
          "c.dat",
          checkListText({
              checkLine("A-1", "Acme", "editor", "2.0", "Editor.app", "Editor"),
              checkLine("a-1", "Acme", "Viewer", "1.0", "Viewer", "VIEWER"),
              checkLine("B-2", "Acme", "Viewer", "1.0", "viewer", "viewer2"),
              checkLine("C-3", "\xCE\xA3\xCE\x9F\xCE\xA6\xCE\x99\xCE\x91 Soft",
                        "\xCE\x91\xCE\x92\xCE\x93", "1", "x",
                        "\xEF\xBC\xA5\xEF\xBC\xA4\xEF\xBC\xA9\xEF\xBC\xB4"),
              checkLine("D-4", "\xED\x95\x9C\xEA\xB8\x80\xEC\x86\x8C\xED\x94\x84\xED\x8A\xB8",
                        "Hangul", "9", "x", ""),
              checkLine("E-5", "Blank", "Exe", "1", "x", ""),
          })),
      true));
  struct Case {
    const char* what;
    int got;
    int expected;
  };
  const Case cases[] = {
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
      {"identifier", list.getIndex("B-2"), 2},
  };
  for (const Case& c : cases) EXPECT_EQ(c.got, c.expected) << c.what;
}

TEST(FileCheckList, IdentifierIndexIsFrozenAtItsFirstUseWithRecords) {
  TempDir dir;
  FileCheckList list;
  EXPECT_EQ(list.getIndex("A"), -1);  // nothing to index yet: tried again later
  ASSERT_TRUE(list.openWithFileName(
      dir.writeDataFile("c.dat", checkListText({checkLine("A", "M", "P", "1", "O", "a")})), true));
  EXPECT_EQ(list.getIndex("A"), 0);
  Table* table = list.getTableByTag("#CHECKLIST");
  ASSERT_EQ(table->insertRecord(checkLine("B", "M", "Q", "1", "O", "b"), "\t"), 1);
  EXPECT_EQ(list.getIndex("B"), -1);
  EXPECT_EQ(list.getIdByFileName("b"), -1);  // filled while reading only
}

TEST(FileCheckList, TracesTheNameAndEveryLineItReads) {
  TempDir dir;
  const std::string record = checkLine("A", "M", "P", "1", "O", "a");
  const std::string path = dir.writeDataFile("c.dat", checkListText({record}));
  FileCheckList list;
  LogCapture log;
  ASSERT_TRUE(list.openWithFileName(path, true));
  const std::vector<std::string> expected = {path + "\n",       "#HEADER_START\n",    "2024.05\n",
                                             "#HEADER_END\n",   "#CHECKLIST_START\n", record + "\n",
                                             "#CHECKLIST_END\n"};
  std::vector<std::string> traced;
  for (const std::string& line : log.lines())
    if (std::find(expected.begin(), expected.end(), line) != expected.end()) traced.push_back(line);
  EXPECT_EQ(traced, expected);
}

TEST(FileCheckList, DisplayListsFollowTheRecords) {
  FileCheckList list;
  Table* table = list.getTableByTag("#CHECKLIST");
  table->insertRecord(checkLine("1", "A", "P", "1", "O", "a"), "\t");
  table->insertRecord(checkLine("2", "A", "P", "1", "O", "a"), "\t");
  list.initCompanyAndProduct();
  list.initCompanyAndProduct();
  EXPECT_EQ(list.m_pArrCompany(), (std::vector<std::string>{"A Inc.", "A Inc."}));
  EXPECT_EQ(list.m_pArrProduct(), (std::vector<std::string>{"P Pro", "P Pro"}));
}

TEST(FileCheckList, SaveWithoutAnOpenFileIsRefusedAndLogged) {
  FileCheckList list;
  LogCapture log;
  EXPECT_FALSE(list.save());
  EXPECT_EQ(log.lines(), std::vector<std::string>{
                             "-[FileCheckList save](174) // CheckList file does not open."});
  FilePackage package;
  FileFilter filter;
  FileFontList fonts;
  EXPECT_FALSE(package.save());
  EXPECT_FALSE(filter.save());
  EXPECT_FALSE(fonts.save());
  EXPECT_EQ(log.lines().size(), 1u);
}

TEST(FileFilter, MatchesTheJoinedValuesRegardlessOfCase) {
  TempDir dir;
  FileFilter filter;
  ASSERT_TRUE(filter.openWithFileName(
      dir.writeDataFile("f.dat",
                        sections({{"#HEADER", {"1"}},
                                  {"#SWLIST",
                                   {"Acme\tEditor\t2.0\tEditor", "ACME\tEDITOR\t2.0\teditor",
                                    "Tab\tin\tvalue\there"}}})),
      true));
  EXPECT_EQ(filter.getIdByFilter("acme\teditor\t2.0\teditor"), 1);
  EXPECT_EQ(filter.getIdByFilter("Tab\tIN\tvalue\tHere"), 2);
  EXPECT_EQ(filter.getIdByFilter("Acme\tEditor\t2.0"), -1);
  EXPECT_EQ(filter.getIdByFilter("Acme\tEditor\t2.0\tEditor\t"), -1);

  FileFilter empty;
  ASSERT_TRUE(empty.openWithFileName(
      dir.writeDataFile("e.dat", sections({{"#HEADER", {"1"}}, {"#SWLIST", {}}})), true));
  EXPECT_EQ(empty.getIdByFilter(""), -1);
  EXPECT_EQ(empty.getIdByFilter("\t\t\t"), -1);
}

TEST(FileFontList, FileNamesAreCaseBlindAndIdentifiersExact) {
  TempDir dir;
  FileFontList fonts;
  ASSERT_TRUE(fonts.openWithFileName(
      dir.writeDataFile(
          "f.dat", checkListText({checkLine("F-1", "Type", "Serif", "1", "S", "Serif.TTF", true),
                                  checkLine("F-2", "Type", "Sans", "1", "S", "serif.ttf", true),
                                  checkLine("F-3", "Type", "Mono", "1", "S", "", true)})),
      true));
  EXPECT_EQ(fonts.getIdByFileName("SERIF.ttf"), 1);
  EXPECT_EQ(fonts.getIdByFileName(""), 2);
  EXPECT_EQ(fonts.getIndex("F-1"), 0);
  EXPECT_EQ(fonts.getIndex("f-1"), -1);
}

TEST(FilePackage, DisplayNameShowsOnlyThePlaceholderSubItem) {
  FilePackage package;
  package.getTableByTag("#PACKAGE")->insertRecord("P1\tAcme\tOffice\t1\tG\tSuite\t1\tY", "\t");
  Table* sub = package.getTableByTag("#SUB");
  sub->insertRecord("P1\t-\t100\tY", "\t");
  sub->insertRecord("P1\tStandard\t200\tY", "\t");
  sub->insertRecord("P1\t\t300\tY", "\t");
  struct Case {
    int package, sub;
    std::string expected;
  };
  const Case cases[] = {
      {0, 0, "Office(-)"}, {0, 1, "Office"},  {0, 2, "Office"},
      {0, 3, "Office"},    {0, -1, "Office"}, {1, 1, Table::kOutOfBounds},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(package.getProductNameByPackageIndex(c.package, c.sub), c.expected)
        << c.package << "," << c.sub;
  }
  FilePackage empty;
  EXPECT_EQ(empty.getProductNameByPackageIndex(0, 0), Table::kOutOfBounds);
}

TEST(FilePackage, PackageIndexIsExactLastWinsAndBuiltOnce) {
  FilePackage package;
  EXPECT_EQ(package.getPackageIndex("P1"), -1);
  Table* table = package.getTableByTag("#PACKAGE");
  table->insertRecord("P1\tAcme\tOffice\t1\tG\tSuite\t1\tY", "\t");
  table->insertRecord("P2\tAcme\tDraw\t1\tG\tSuite\t1\tY", "\t");
  table->insertRecord("P1\tAcme\tOffice 2\t1\tG\tSuite\t1\tY", "\t");
  EXPECT_EQ(package.getPackageIndex("P1"), 2);
  EXPECT_EQ(package.getPackageIndex("p1"), -1);
  table->insertRecord("P3\tAcme\tNew\t1\tG\tSuite\t1\tY", "\t");
  EXPECT_EQ(package.getPackageIndex("P3"), -1);

  // The package ids are one dictionary, made on first use.
  package.getPackageIds()["P1"] = PlistValue::integer(1);
  EXPECT_EQ(package.getPackageIds().size(), 1u);
}

}  // namespace
}  // namespace quarvel
