// quarvel show / lookup / check, building a data file from TSV, and
// decrypt / encrypt, run on the sample files and on files damaged on purpose.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <sstream>

#include "CipherCommand.h"
#include "DataFileTool.h"
#include "common/Log.h"
#include "common/StringUtil.h"
#include "datafiles/DataFileTestUtil.h"
#include "format/MacKorean.h"
#include "quarvel/FileCheckList.h"
#include "support/TestPlatform.h"
#include "support/ToolProcess.h"

namespace quarvel::cli {
namespace {

using ::testing::HasSubstr;
using testing::TempDir;

std::string sample(const char* name) { return std::string(QUARVEL_SAMPLES) + "/" + name; }

using Outcome = testing::ToolRun;

template <typename F>
Outcome run(F&& call) {
  std::ostringstream out, err;
  const int status = call(out, err);
  return {status, out.str(), err.str()};
}

Outcome show(const char* name, std::optional<DataFileKind> kind, OutputFormat format) {
  return run(
      [&](auto& out, auto& err) { return showDataFile(sample(name), kind, format, out, err); });
}

TEST(DataFileTool, ShowDetectsTheKindInJson) {
  const Outcome fonts = show("fontchecklist.dat", std::nullopt, OutputFormat::Json);
  ASSERT_EQ(fonts.exitStatus, 0);
  auto doc = nlohmann::json::parse(fonts.out);
  auto& first = doc["sections"]["#CHECKLIST"][0];
  EXPECT_EQ(std::tuple(doc["kind"], first["EXE_FILE"], first.size()),
            std::tuple("font", "NuriMyeongjo-Regular.ttf", 14u));
}

TEST(DataFileTool, TsvOutputBuildsTheSameFileAgain) {
  const std::pair<const char*, DataFileKind> files[] = {
      {"macchecklist.dat", DataFileKind::CheckList},
      {"macpcklist.dat", DataFileKind::Package},
      {"macfilterlist.dat", DataFileKind::Filter},
      {"fontchecklist.dat", DataFileKind::Font}};
  for (const auto& [name, kind] : files) {
    const Outcome shown = show(name, kind, OutputFormat::Tsv);
    ASSERT_EQ(shown.exitStatus, 0) << name;
    // One block per section: its tag, then the TSV.
    TempDir dir;
    std::vector<std::string> inputs;
    for (const std::string& block : split(shown.out, "\n\n")) {
      if (block.empty()) continue;
      const std::size_t firstLine = block.find('\n');
      const std::string file = dir.file(block.substr(1, firstLine - 1) + ".tsv");
      testing::writeBytes(file, block.substr(firstLine + 1) + "\n");
      inputs.push_back(file);
    }
    const std::string rebuilt = dir.file("rebuilt.dat");
    const Outcome built =
        run([&](auto&, auto& err) { return buildDataFileFromTsv(kind, inputs, rebuilt, err); });
    ASSERT_EQ(built.exitStatus, 0) << built.err;
    EXPECT_EQ(testing::readBytes(rebuilt), testing::readBytes(sample(name))) << name;
  }
}

TEST(DataFileTool, LookupAnswersEachKindsKeys) {
  const char *check = "macchecklist.dat", *font = "fontchecklist.dat",
             *filter = "macfilterlist.dat", *package = "macpcklist.dat";
  struct Case {
    const char* file;
    LookupQuery query;
    int status;
    std::string line = "";  // a line of the answer
    bool json = false;
  } const cases[] = {
      // clang-format off
      {check,   {.exe = "PhotoLoom6"},                 0, "DB_ID          SW100102"},
      {check,   {.property = "brightpath labs\\tPHOTOLOOM\\t5.2\\tPhotoLoom"}, 0,
                "#CHECKLIST record 0"},
      {check,   {.id = "sw100101"},                    1},
      {check,   {.filter = "a\\tb\\tc\\td"},           2},
      {font,    {.exe = "kestrelsans-bold.OTF"},       0, "DB_ID          FT300302"},
      {filter,  {.filter = "KESTREL AUDIO\\twavesmith demo\\t3.0\\tWaveSmithDemo"}, 0,
                "#SWLIST record 4"},
      {package, {.package = "PK2001", .sub = 1},       0, "display name: Tidewell Office"},
      {package, {.package = "PK2001", .sub = 0},       0, "display name: Tidewell Office(-)"},
      {package, {.exe = "x"},                          2},
      // JSON stays JSON when nothing matches.
      {check,   {.id = "SW100201"},                    0, "  \"section\": \"#CHECKLIST\",", true},
      {check,   {.exe = "no-such.exe"},                1, "null", true}};
  // clang-format on
  for (const Case& c : cases) {
    const Outcome answer = run([&](auto& out, auto& err) {
      return lookupDataFile(sample(c.file), std::nullopt, c.query, c.json, out, err);
    });
    EXPECT_EQ(answer.exitStatus, c.status) << c.file << " " << c.line << answer.err;
    if (!c.line.empty()) {
      EXPECT_THAT(split(answer.out, "\n"), ::testing::Contains(c.line));
    }
  }
}

TEST(DataFileTool, CheckFindsWhatTheReaderWouldRefuseOrHide) {
  TempDir dir;
  std::string plain = *MacKorean::encode(testing::crlf(
      {"stray", "#HEADER_START", "1", "#HEADER_END", "#CHECKLIST_START",
       testing::checkLine("1", "Acme", "Draw", "1", "Draw", "draw"),
       testing::checkLine("2", "Acme", "Paint", "1", "Paint", "DRAW"),    // the same EXE_FILE
       testing::checkLine("3", "Acme", "Font", "1", "F", "f.ttf", true),  // a font record
       testing::checkLine("4", "\xC3\x98resund Soft", "Menu", "1", "M", "menu")}));
  plain += "\xA1\x20\r\n";                   // no Mac Korean text
  plain += std::string(2100, 'x') + "\r\n";  // too long a line
  plain += "#CHECKLIST_END\r\n";
  const auto check = [](const std::string& path) {
    return run([&](auto& out, auto& err) { return checkDataFile(path, std::nullopt, out, err); });
  };
  const Outcome checked = check(dir.writeRawDataFile("c.dat", plain));
  EXPECT_EQ(checked.exitStatus, 1);
  for (const char* expected :
       {"line 1: warning: outside every section; ignored",
        "line 7: warning: EXE_FILE \"DRAW\" repeats line 6; look-ups answer this record, line 6 "
        "is unreachable",
        "line 8: error: #CHECKLIST record with 14 fields, 17 expected; the reader refuses it",
        "line 9: warning: COMPANY: folding on save turns \"\xC3\x98resund Soft\" into \"Oresund "
        "Soft\"",
        "line 10: error: not Mac Korean text; the reader drops this line",
        "line 11: error: 2100 bytes, longer than the 2047 a line may hold; the reader drops "
        "this line",
        "c.dat: 3 errors, 4 warnings"})
    EXPECT_THAT(checked.out, HasSubstr(std::string(expected) + "\n"));

  const Outcome refused = check(dir.writeDataFile(
      "d.dat", testing::crlf({"#HEADER_START", "1", "#HEADER_END", "#CHECKLIST_START"})));
  EXPECT_EQ(refused.exitStatus, 1);
  EXPECT_THAT(refused.out, ::testing::AllOf(HasSubstr("error: section #CHECKLIST has no end line"),
                                            HasSubstr("the reader refuses this file as damaged")));
}

// Each input alone in a folder of its own; the last four rows would lose
// records in the stored file.
TEST(DataFileTool, BuildingFromTsvNamesTheFaultyRow) {
  TempDir dir;
  const std::string fields = "COMPANY\tPRODUCT\tVERSION\tORIGINAL_FILE\n";
  std::string korean;  // 2,042 bytes stored, 3,063 as UTF-8
  for (int i = 0; i < 1021; ++i) korean += "\xED\x95\x9C";
  int folders = 0;
  // (file, text, the message after the file's path)
  for (const auto& [file, text, message] :
       std::vector<std::tuple<std::string, std::string, std::string>>{
           {"SWLIST.tsv", fields + "A\tB\tC\tD\nA\tB\tC\n", ":3: 3 fields, #SWLIST has 4\n"},
           {"BOGUS.tsv", "x\n", ": a filter file has no section #BOGUS"},
           {"HEADER.tsv", "Ver\n1\n", ":1: the first row must name the fields: Version\n"},
           {"SWLIST.tsv", fields + std::string("A\tB\0C\tC\tD\n", 10), ":2: a zero byte\n"},
           {"SWLIST.tsv", fields + "A\tB\rC\tC\tD\r\n", ":2: a CR that does not end the row\n"},
           {"SWLIST.tsv", fields + "A\tB\tC\t" + korean + "\n",
            ":2: the row takes 2048 bytes, more than the 2047"}}) {
    const std::string folder = dir.file(std::to_string(folders++));
    std::filesystem::create_directory(folder);
    testing::writeBytes(folder + "/" + file, text);
    const Outcome built = run([&](auto&, auto& err) {
      return buildDataFileFromTsv(DataFileKind::Filter, {folder}, dir.file("out.dat"), err);
    });
    EXPECT_EQ(built.exitStatus, 1);
    EXPECT_THAT(built.err, HasSubstr(folder + "/" + file + message));
  }
  EXPECT_FALSE(std::filesystem::exists(dir.file("out.dat")));
}

// Line ends become CRLF and the text Mac Korean; what the reader could not
// give back is refused at its line and column.
TEST(EncipherText, TextOrWhereItIsRefused) {
  for (const auto& [text, expected] : std::vector<std::pair<std::string, std::string>>{
           {"a\nb\n", "a\r\nb\r\n"},
           {"a\r\nb", "a\r\nb\r\n"},
           {"\xEF\xBB\xBF\xEA\xB0\x80\n\n", "\xB0\xA1\r\n\r\n"},  // BOM skipped, 가
           {"ok\n\xEA\xB0\x80\xC3\xA9\n", "2:2: U+00E9 has no Mac Korean form"},
           {"a\rb\n", "1:2: a CR that does not end a line"},
           {std::string("x\ny\0z", 5), "2:2: a zero byte"},
           {"\xFF\n", "1:1: the text is not UTF-8"},
           {"", "1:1: the text is empty"},
           {"a\n" + std::string(2048, 'x') + "\n",
            "2:1: the line takes 2048 bytes, more than the 2047 a data file allows"}}) {
    TextProblem problem;
    const std::optional<std::string> file = encipherText(text, &problem);
    EXPECT_EQ(file ? testing::decipher(*file)
                   : std::to_string(problem.line) + ":" + std::to_string(problem.column) + ": " +
                         problem.reason,
              expected);
  }
  // The bundled sample is the enciphered form of its text.
  const std::string source = testing::readBytes(QUARVEL_SAMPLES "/welcome.txt");
  ASSERT_FALSE(source.empty());
  EXPECT_EQ(encipherText(source, nullptr), testing::readBytes(QUARVEL_SAMPLES "/welcome.dat"));
}

// encrypt then decrypt gives the lines back; OUT is replaced whole or not
// at all: neither an unencodable character nor a write that runs out of room
// touches the old file, which still deciphers.
TEST(CipherCommands, EncryptReplacesOutWholeOrNotAtAll) {
  TempDir dir;
  const std::string text =
      "#HEADER_START\n20240101\n#HEADER_END\n\xED\x95\x9C\xEA\xB8\x80\tHangul\n";
  std::string longer;
  for (int line = 0; line < 100; ++line) longer += std::string(40, 'x') + "\n";
  testing::writeBytes(dir.path() / "in.txt", text);
  testing::writeBytes(dir.path() / "bad.txt", "fine\ncaf\xC3\xA9\n");
  testing::writeBytes(dir.path() / "new.txt", longer);
  std::ostringstream out, err;
  ASSERT_EQ(runEncrypt({dir.file("in.txt"), dir.file("out.dat")}, err), 0) << err.str();
  LogCapture log;
  EXPECT_EQ(runDecrypt(dir.file("out.dat"), out, err), 0);
  EXPECT_EQ(out.str(), text);
  const std::string before = testing::readBytes(dir.path() / "out.dat");

  std::ostringstream refused;
  EXPECT_EQ(runEncrypt({dir.file("bad.txt"), dir.file("out.dat")}, refused), 1);
  EXPECT_EQ(refused.str(),
            dir.file("bad.txt") + ":2:4: U+00E9 has no Mac Korean form; nothing written\n");
  {
    testing::ScopedPlatform full(
        std::make_shared<testing::FaultyDisk>(testing::FaultyDisk::Fault::kFull, 1024));
    std::ostringstream failed;
    EXPECT_EQ(runEncrypt({dir.file("new.txt"), dir.file("out.dat")}, failed), 1);
    EXPECT_THAT(failed.str(), HasSubstr("cannot be written"));
  }
  EXPECT_EQ(testing::readBytes(dir.path() / "out.dat"), before);
  EXPECT_EQ(dir.entries(), (std::vector<std::string>{"bad.txt", "in.txt", "new.txt", "out.dat"}));
}

// decrypt and check (and show, through the same opener) refuse the same files,
// before reading them, and say why; a FIFO would block a reader for ever.
TEST(CipherCommands, DataFileCommandsRefuseTheSameFilesBeforeReading) {
  TempDir dir;
  testing::writeBytes(dir.path() / "empty.dat", "");
  std::filesystem::create_directory(dir.path() / "folder.dat");
  ASSERT_EQ(::mkfifo(dir.file("fifo.dat").c_str(), 0600), 0);
  const std::pair<const char*, const char*> cases[] = {{"missing.dat", "no such file"},
                                                       {"folder.dat", "is a folder"},
                                                       {"fifo.dat", "not a regular file"},
                                                       {"empty.dat", "empty"}};
  for (const bool decrypt : {true, false})
    for (const auto& [name, reason] : cases) {
      std::ostringstream out, err;
      const std::string path = dir.file(name);
      EXPECT_EQ(decrypt ? runDecrypt(path, out, err) : checkDataFile(path, {}, out, err), 1)
          << (decrypt ? "decrypt " : "check ") << name;
      EXPECT_THAT(out.str() + err.str(), HasSubstr(reason));
    }
}

}  // namespace
}  // namespace quarvel::cli
