// quarvel show / lookup / check and building a data file from TSV, run on
// the sample files and on files damaged on purpose.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "DataFileTool.h"
#include "common/StringUtil.h"
#include "datafiles/DataFileTestUtil.h"
#include "format/MacKorean.h"
#include "quarvel/FileCheckList.h"

namespace quarvel::cli {
namespace {

using quarvel::testing::TempDir;

std::string sample(const char* name) { return std::string(QUARVEL_SAMPLES) + "/" + name; }

struct Outcome {
  int status;
  std::string out, err;
};

template <typename F>
Outcome run(F&& call) {
  std::ostringstream out, err;
  const int status = call(out, err);
  return {status, out.str(), err.str()};
}

TEST(DataFileTool, ShowDetectsTheKindAndAlignsWideText) {
  const Outcome shown = run([](auto& out, auto& err) {
    return showDataFile(sample("macpcklist.dat"), std::nullopt, OutputFormat::Table, out, err);
  });
  ASSERT_EQ(shown.status, 0) << shown.err;
  EXPECT_NE(shown.out.find("package file, version 2024.06.14"), std::string::npos);
  // Korean text takes two columns a character: the next column still lines up.
  std::vector<std::string> rows = split(shown.out, "\n");
  std::size_t header = 0, korean = 0;
  for (const std::string& row : rows) {
    if (row.starts_with("DB_ID")) header = displayWidth(row.substr(0, row.find("SW_TYPE")));
    if (row.starts_with("PK2002") && korean == 0)
      korean = displayWidth(row.substr(0, row.find("1 ")));
  }
  EXPECT_GT(header, 0u);
  EXPECT_EQ(header, korean);

  const Outcome fonts = run([](auto& out, auto& err) {
    return showDataFile(sample("fontchecklist.dat"), std::nullopt, OutputFormat::Json, out, err);
  });
  ASSERT_EQ(fonts.status, 0);
  const auto doc = nlohmann::json::parse(fonts.out);
  EXPECT_EQ(doc["kind"], "font");
  EXPECT_EQ(doc["sections"]["#CHECKLIST"][0]["EXE_FILE"], "NuriMyeongjo-Regular.ttf");
  EXPECT_EQ(doc["sections"]["#CHECKLIST"][0].size(), 14u);
}

TEST(DataFileTool, TsvOutputBuildsTheSameFileAgain) {
  const struct {
    const char* name;
    DataFileKind kind;
  } files[] = {{"macchecklist.dat", DataFileKind::CheckList},
               {"macpcklist.dat", DataFileKind::Package},
               {"macfilterlist.dat", DataFileKind::Filter},
               {"fontchecklist.dat", DataFileKind::Font}};
  for (const auto& f : files) {
    SCOPED_TRACE(f.name);
    const Outcome shown = run([&](auto& out, auto& err) {
      return showDataFile(sample(f.name), f.kind, OutputFormat::Tsv, out, err);
    });
    ASSERT_EQ(shown.status, 0);
    // One block per section: its tag, then the TSV.
    TempDir dir;
    std::vector<std::string> inputs;
    for (const std::string& block : split(shown.out, "\n\n")) {
      if (block.empty()) continue;
      const std::size_t firstLine = block.find('\n');
      const std::string file = dir.file(block.substr(1, firstLine - 1) + ".tsv");
      quarvel::testing::writeBytes(file, block.substr(firstLine + 1) + "\n");
      inputs.push_back(file);
    }
    const std::string rebuilt = dir.file("rebuilt.dat");
    const Outcome built =
        run([&](auto&, auto& err) { return buildDataFileFromTsv(f.kind, inputs, rebuilt, err); });
    ASSERT_EQ(built.status, 0) << built.err;
    EXPECT_EQ(quarvel::testing::readBytes(rebuilt), quarvel::testing::readBytes(sample(f.name)));
  }
}

TEST(DataFileTool, LookupAnswersEachKindsKeys) {
  struct Case {
    const char* file;
    LookupQuery query;
    int status;
    const char* expected;  // a line of the answer
    bool json = false;
  };
  const Case cases[] = {
      {"macchecklist.dat", {.exe = "PhotoLoom6"}, 0, "DB_ID          SW100102"},
      {"macchecklist.dat",
       {.property = "brightpath labs\\tPHOTOLOOM\\t5.2\\tPhotoLoom"},
       0,
       "#CHECKLIST record 0"},
      {"macchecklist.dat", {.id = "sw100101"}, 1, ""},
      {"macchecklist.dat", {.filter = "a\\tb\\tc\\td"}, 2, ""},
      {"fontchecklist.dat", {.exe = "kestrelsans-bold.OTF"}, 0, "DB_ID          FT300302"},
      {"macfilterlist.dat",
       {.filter = "KESTREL AUDIO\\twavesmith demo\\t3.0\\tWaveSmithDemo"},
       0,
       "#SWLIST record 4"},
      {"macpcklist.dat", {.package = "PK2001", .sub = 1}, 0, "display name: Tidewell Office"},
      {"macpcklist.dat", {.package = "PK2001", .sub = 0}, 0, "display name: Tidewell Office(-)"},
      {"macpcklist.dat", {.exe = "x"}, 2, ""},
      // JSON stays JSON when nothing matches.
      {"macchecklist.dat", {.id = "SW100201"}, 0, "  \"section\": \"#CHECKLIST\",", true},
      {"macchecklist.dat", {.exe = "no-such.exe"}, 1, "null", true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.file) + " " + c.expected);
    const Outcome answer = run([&](auto& out, auto& err) {
      return lookupDataFile(sample(c.file), std::nullopt, c.query, c.json, out, err);
    });
    EXPECT_EQ(answer.status, c.status) << answer.err;
    const std::vector<std::string> lines = split(answer.out, "\n");
    if (*c.expected) {
      EXPECT_NE(std::find(lines.begin(), lines.end(), c.expected), lines.end()) << answer.out;
    }
  }
}

TEST(DataFileTool, CheckFindsWhatTheReaderWouldRefuseOrHide) {
  TempDir dir;
  const std::string good = quarvel::testing::checkLine("1", "Acme", "Draw", "1", "Draw", "draw");
  const std::string twin = quarvel::testing::checkLine("2", "Acme", "Paint", "1", "Paint", "DRAW");
  const std::string font =
      quarvel::testing::checkLine("3", "Acme", "Font", "1", "F", "f.ttf", true);
  const std::string folded =
      quarvel::testing::checkLine("4", "\xC3\x98resund Soft", "Menu", "1", "M", "menu");
  std::string plain =
      *MacKorean::encode(quarvel::testing::crlf({"stray", "#HEADER_START", "1", "#HEADER_END",
                                                 "#CHECKLIST_START", good, twin, font, folded}));
  plain += "\xA1\x20\r\n";                   // no Mac Korean text
  plain += std::string(2100, 'x') + "\r\n";  // too long a line
  plain += "#CHECKLIST_END\r\n";
  const std::string path = dir.writeRawDataFile("c.dat", plain);
  const Outcome checked =
      run([&](auto& out, auto& err) { return checkDataFile(path, std::nullopt, out, err); });
  EXPECT_EQ(checked.status, 1);
  for (const char* expected : {
           "line 1: warning: outside every section; ignored",
           "line 7: warning: EXE_FILE \"DRAW\" repeats line 6; look-ups answer this record, line 6 "
           "is unreachable",
           "line 8: error: #CHECKLIST record with 14 fields, 17 expected; the reader refuses it",
           "line 9: warning: COMPANY: folding on save turns \"\xC3\x98resund Soft\" into \"Oresund "
           "Soft\"",
           "line 10: error: not Mac Korean text; the reader drops this line",
           "line 11: error: 2100 bytes, longer than the 2047 a line may hold; the reader drops "
           "this line",
           "c.dat: 3 errors, 4 warnings",
       }) {
    EXPECT_NE(checked.out.find(std::string(expected) + "\n"), std::string::npos) << expected << "\n"
                                                                                 << checked.out;
  }

  const std::string damaged = dir.writeDataFile(
      "d.dat", quarvel::testing::crlf({"#HEADER_START", "1", "#HEADER_END", "#CHECKLIST_START"}));
  const Outcome refused =
      run([&](auto& out, auto& err) { return checkDataFile(damaged, std::nullopt, out, err); });
  EXPECT_EQ(refused.status, 1);
  EXPECT_NE(refused.out.find("error: section #CHECKLIST has no end line"), std::string::npos);
  EXPECT_NE(refused.out.find("the reader refuses this file as damaged"), std::string::npos);
}

// Each input alone in a folder of its own; the last four rows would lose
// records in the stored file.
TEST(DataFileTool, BuildingFromTsvNamesTheFaultyRow) {
  TempDir dir;
  const std::string fields = "COMPANY\tPRODUCT\tVERSION\tORIGINAL_FILE\n";
  std::string korean;  // 2,042 bytes stored, 3,063 as UTF-8
  for (int i = 0; i < 1021; ++i) korean += "\xED\x95\x9C";
  const struct {
    const char* file;
    std::string text, message;  // the message follows the file's path
  } cases[] = {
      {"SWLIST.tsv", fields + "A\tB\tC\tD\nA\tB\tC\n", ":3: 3 fields, #SWLIST has 4\n"},
      {"BOGUS.tsv", "x\n", ": a filter file has no section #BOGUS"},
      {"HEADER.tsv", "Ver\n1\n", ":1: the first row must name the fields: Version\n"},
      {"SWLIST.tsv", fields + std::string("A\tB\0C\tC\tD\n", 10), ":2: a zero byte\n"},
      {"SWLIST.tsv", fields + "A\tB\rC\tC\tD\r\n", ":2: a CR that does not end the row\n"},
      {"SWLIST.tsv", fields + "A\tB\tC\t" + std::string(2042, 'x') + "\n",
       ":2: the row takes 2048 bytes, more than the 2047"},
      {"SWLIST.tsv", fields + "A\tB\tC\t" + korean + "\n",
       ":2: the row takes 2048 bytes, more than the 2047"},
  };
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    SCOPED_TRACE(cases[i].message);
    const std::string folder = dir.file(std::to_string(i));
    std::filesystem::create_directory(folder);
    quarvel::testing::writeBytes(folder + "/" + cases[i].file, cases[i].text);
    const Outcome built = run([&](auto&, auto& err) {
      return buildDataFileFromTsv(DataFileKind::Filter, {folder}, dir.file("out.dat"), err);
    });
    EXPECT_EQ(built.status, 1);
    EXPECT_NE(built.err.find(folder + "/" + cases[i].file + cases[i].message), std::string::npos)
        << built.err;
  }
  EXPECT_FALSE(std::filesystem::exists(dir.file("out.dat")));
}

}  // namespace
}  // namespace quarvel::cli
