#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <sstream>

#include "CipherCommand.h"
#include "DataFileTool.h"
#include "common/Log.h"
#include "datafiles/DataFileTestUtil.h"
#include "quarvel/CommonLib.h"
#include "support/TestPlatform.h"

namespace quarvel::cli {
namespace {

using quarvel::testing::TempDir;

TEST(EncipherText, LineEndsBecomeCrLfAndTheTextBecomesMacKorean) {
  struct Case {
    std::string text, plain;
  } cases[] = {
      {"a\nb\n", "a\r\nb\r\n"},
      {"a\r\nb\r\n", "a\r\nb\r\n"},
      {"a\r\nb", "a\r\nb\r\n"},
      {"\xEF\xBB\xBF\xEA\xB0\x80\n\n", "\xB0\xA1\r\n\r\n"},  // BOM skipped, 가
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.text));
    const std::optional<std::string> file = encipherText(c.text, nullptr);
    ASSERT_TRUE(file);
    EXPECT_EQ(quarvel::testing::decipher(*file), c.plain);
  }
  // The bundled sample is the enciphered form of its text.
  const std::string source = quarvel::testing::readBytes(QUARVEL_SAMPLES "/welcome.txt");
  ASSERT_FALSE(source.empty());
  EXPECT_EQ(encipherText(source, nullptr),
            quarvel::testing::readBytes(QUARVEL_SAMPLES "/welcome.dat"));
}

TEST(EncipherText, RefusesWhatTheReaderCouldNotGiveBack) {
  struct Case {
    std::string text;
    std::size_t line, column;
    std::string reason;
  } cases[] = {
      {"ok\n\xEA\xB0\x80\xC3\xA9\n", 2, 2, "U+00E9 has no Mac Korean form"},
      {"a\rb\n", 1, 2, "a CR that does not end a line"},
      {std::string("x\ny\0z", 5), 2, 2, "a zero byte"},
      {"\xFF\n", 1, 1, "the text is not UTF-8"},
      {"", 1, 1, "the text is empty"},
      {"a\n" + std::string(2048, 'x') + "\n", 2, 1,
       "the line takes 2048 bytes, more than the 2047 a data file allows"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.text.substr(0, 20)));
    TextProblem problem;
    EXPECT_FALSE(encipherText(c.text, &problem));
    EXPECT_EQ(problem.line, c.line);
    EXPECT_EQ(problem.column, c.column);
    EXPECT_EQ(problem.reason, c.reason);
  }
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
  quarvel::testing::writeBytes(dir.path() / "in.txt", text);
  quarvel::testing::writeBytes(dir.path() / "bad.txt", "fine\ncaf\xC3\xA9\n");
  quarvel::testing::writeBytes(dir.path() / "new.txt", longer);
  std::ostringstream err;
  ASSERT_EQ(runEncrypt({dir.file("in.txt"), dir.file("out.dat")}, err), 0) << err.str();
  LogCapture log;
  std::ostringstream out;
  EXPECT_EQ(runDecrypt(dir.file("out.dat"), out, err), 0);
  EXPECT_EQ(out.str(), text);
  const std::string before = quarvel::testing::readBytes(dir.path() / "out.dat");

  std::ostringstream refused;
  EXPECT_EQ(runEncrypt({dir.file("bad.txt"), dir.file("out.dat")}, refused), 1);
  EXPECT_EQ(refused.str(),
            dir.file("bad.txt") + ":2:4: U+00E9 has no Mac Korean form; nothing written\n");
  {
    quarvel::testing::ScopedPlatform full(std::make_shared<quarvel::testing::FaultyDisk>(
        quarvel::testing::FaultyDisk::Fault::kFull, 1024));
    std::ostringstream failed;
    EXPECT_EQ(runEncrypt({dir.file("new.txt"), dir.file("out.dat")}, failed), 1);
    EXPECT_NE(failed.str().find("cannot be written"), std::string::npos) << failed.str();
  }
  EXPECT_EQ(quarvel::testing::readBytes(dir.path() / "out.dat"), before);
  std::vector<std::string> names = dir.entries();
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::string>{"bad.txt", "in.txt", "new.txt", "out.dat"}));
}

// decrypt, check and show refuse the same files, before reading them, and
// say why; a FIFO would block a reader for ever.
TEST(CipherCommands, DataFileCommandsRefuseTheSameFilesBeforeReading) {
  TempDir dir;
  quarvel::testing::writeBytes(dir.path() / "empty.dat", "");
  std::filesystem::create_directory(dir.path() / "folder.dat");
  ASSERT_EQ(::mkfifo(dir.file("fifo.dat").c_str(), 0600), 0);
  const struct {
    const char* name;
    const char* reason;
  } cases[] = {
      {"missing.dat", "no such file"},
      {"folder.dat", "is a folder"},
      {"fifo.dat", "not a regular file"},
      {"empty.dat", "empty"},
  };
  using Command = std::function<int(const std::string&, std::ostream&, std::ostream&)>;
  const std::pair<const char*, Command> commands[] = {
      {"decrypt", [](auto& path, auto& out, auto& err) { return runDecrypt(path, out, err); }},
      {"check", [](auto& path, auto& out, auto& err) { return checkDataFile(path, {}, out, err); }},
      {"show", [](auto& path, auto& out,
                  auto& err) { return showDataFile(path, {}, OutputFormat::Table, out, err); }},
  };
  for (const auto& [command, call] : commands) {
    for (const auto& c : cases) {
      SCOPED_TRACE(std::string(command) + " " + c.name);
      std::ostringstream out, err;
      EXPECT_EQ(call(dir.file(c.name), out, err), 1);
      EXPECT_NE((out.str() + err.str()).find(c.reason), std::string::npos)
          << out.str() << err.str();
    }
  }
}

}  // namespace
}  // namespace quarvel::cli
