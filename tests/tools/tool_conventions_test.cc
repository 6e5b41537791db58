// The tool as a shell user meets it, whole processes: usage errors, the
// version, standard input, JSON answers, what reaches standard error, and
// which libraries a command maps.

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "quarvel/CommonLib.h"
#include "support/ToolProcess.h"

namespace quarvel::cli {
namespace {

using quarvel::testing::runProgram;
using quarvel::testing::slurp;
using quarvel::testing::ToolRun;

const std::string kSamples = QUARVEL_SAMPLES;

ToolRun tool(std::vector<std::string> arguments, const std::string& input = "") {
  return runProgram(QUARVEL_TOOL, std::move(arguments),
                    {"HOME=" + ::testing::TempDir(), "LANG=C.UTF-8"}, input);
}

bool has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

TEST(ToolConventions, UsageErrorsExitTwoAndNameTheWord) {
  const struct {
    std::vector<std::string> arguments;
    const char* names;
  } cases[] = {
      {{"frobnicate"}, "unknown command 'frobnicate'"},
      {{"show"}, "FILE is required"},
      {{"show", kSamples + "/macfilterlist.dat", "extra"}, "extra"},
      {{"lookup", "--kind", "bogus", "--id", "1", kSamples + "/macfilterlist.dat"}, "bogus"},
      {{"--nonsense"}, "--nonsense"},
      {{"-q", "--verbose", "netid"}, "--verbose"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.names);
    const ToolRun run = tool(c.arguments);
    EXPECT_EQ(run.exitStatus, 2) << run.err;
    EXPECT_TRUE(has(run.err, c.names)) << run.err;
    EXPECT_TRUE(has(run.err, "--help")) << run.err;
    EXPECT_EQ(run.out, "");
  }
}

TEST(ToolConventions, VersionAndHelpGoToStandardOutput) {
  const ToolRun version = tool({"--version"});
  EXPECT_EQ(version.exitStatus, 0);
  EXPECT_EQ(version.out.rfind("quarvel ", 0), 0u) << version.out;
  EXPECT_TRUE(has(version.out, "\nlist server: http://")) << version.out;
  EXPECT_TRUE(has(version.out, "\nfile server: http://")) << version.out;

  const ToolRun help = tool({"lookup", "--help"});
  EXPECT_EQ(help.exitStatus, 0);
  EXPECT_TRUE(has(help.out, "--kind checklist|package|filter|font")) << help.out;
  EXPECT_TRUE(has(help.out, "Exit status: 0 a record matches, 1 none does")) << help.out;
  EXPECT_FALSE(has(help.out, "->")) << help.out;
}

// `-` reads the same file from standard input, and says "-" where a message
// names the file.
TEST(ToolConventions, StandardInputAndJsonAnswers) {
  const std::string list = kSamples + "/macchecklist.dat";
  const std::string bytes = slurp(list);
  const ToolRun named = tool({"decrypt", list});
  const ToolRun piped = tool({"decrypt", "-"}, bytes);
  EXPECT_EQ(piped.exitStatus, 0) << piped.err;
  EXPECT_EQ(piped.out, named.out);

  const ToolRun checked = tool({"check", "-"}, bytes);
  EXPECT_EQ(checked.out.rfind("-: checked as a checklist file", 0), 0u) << checked.out;

  const ToolRun empty = tool({"show", "-"});
  EXPECT_EQ(empty.exitStatus, 1);
  EXPECT_EQ(empty.err.rfind("-: ", 0), 0u) << empty.err;

  const ToolRun none = tool({"lookup", "--json", "--exe", "no-such.exe", "-"}, bytes);
  EXPECT_EQ(none.exitStatus, 1);
  EXPECT_EQ(none.out, "null\n");
}

// fold passes standard input through a block of lines at a time: the text
// across block boundaries folds as the whole would.
TEST(ToolConventions, FoldStreamsStandardInputInWholeLines) {
  std::string input;
  for (int line = 0; input.size() < 300000; ++line)
    input +=
        "Caf\xC3\xA9 na\xC3\xAFve \xC2\xBD " + std::to_string(line) + (line % 7 ? "\n" : "\r\n");
  input += "no line end \xC3\xA5";
  const ToolRun run = tool({"fold"}, input);
  EXPECT_EQ(run.exitStatus, 0) << run.err;
  EXPECT_EQ(run.out, CommonLib::encodingForSpecialCharacter(input));
}

// The library's log lines reach the system log always, standard error only
// under --verbose; -q keeps the answer and drops the notes.
TEST(ToolConventions, LogLinesOnStandardErrorOnlyWhenAskedFor) {
  const std::string list = kSamples + "/macfilterlist.dat";
  const ToolRun plain = tool({"show", list});
  EXPECT_EQ(plain.exitStatus, 0);
  EXPECT_EQ(plain.err, "");
  const ToolRun verbose = tool({"--verbose", "show", list});
  EXPECT_TRUE(has(verbose.err, " ?= ")) << verbose.err;
  EXPECT_EQ(verbose.out, plain.out);
  const ToolRun quiet = tool({"-q", "show", list});
  EXPECT_EQ(quiet.err, "");
  EXPECT_EQ(quiet.out, plain.out);
}

// Only the update window's own program loads Qt, and libcurl is loaded when
// the first transfer starts: the tool's start-up maps neither.
TEST(ToolConventions, StartsWithoutQtOrLibcurl) {
  const ToolRun ldd = runProgram("/usr/bin/ldd", {QUARVEL_TOOL}, {});
  ASSERT_EQ(ldd.exitStatus, 0) << ldd.err;
  EXPECT_TRUE(has(ldd.out, "libquarvel")) << ldd.out;
  for (const char* absent : {"libQt6", "libX11", "libxcb", "libcurl"})
    EXPECT_FALSE(has(ldd.out, absent)) << absent;
}

// The completion offers what the command definitions hold, and the manual
// has a section for every command, its exit statuses included.
TEST(ToolConventions, CompletionAndManualFollowTheCommands) {
  const std::string docs = QUARVEL_CLI_DOCS_DIR;
  const std::string script = "source " + docs +
                             "/quarvel.bash\n"
                             "at() { COMP_WORDS=(\"$@\"); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); "
                             "_quarvel; echo \"${COMPREPLY[*]}\"; }\n"
                             "cd \"$(mktemp -d)\"\n"
                             "at quarvel sh\n"
                             "at quarvel lookup --k\n"
                             "at quarvel -q lookup --kind ''\n"
                             "at quarvel settings ''\n"
                             "at quarvel ''\n";
  const ToolRun run = runProgram("/bin/bash", {"-c", script}, {});
  ASSERT_EQ(run.exitStatus, 0) << run.err;
  std::istringstream lines(run.out);
  std::vector<std::string> answers;
  for (std::string line; std::getline(lines, line);) answers.push_back(line);
  ASSERT_EQ(answers.size(), 5u) << run.out;
  EXPECT_EQ(std::vector(answers.begin(), answers.begin() + 4),
            (std::vector<std::string>{"show", "--kind", "checklist package filter font",
                                      "get set delete"}));

  const std::string manual = slurp(docs + "/quarvel.1");
  for (const char* command :
       {"decrypt", "encrypt", "fold", "paths", "settings", "show", "lookup", "check", "netid",
        "reach", "update", "serve", "keygen", "sign", "verify", "audit", "collect"}) {
    SCOPED_TRACE(command);
    EXPECT_TRUE(has(answers[4], command)) << answers[4];
    EXPECT_TRUE(has(manual, ".SS \"quarvel " + std::string(command)));
  }
  EXPECT_TRUE(has(manual, "0 reachable, 1 not reachable")) << "reach's exit statuses";
  EXPECT_TRUE(has(manual, ".SH EXIT STATUS\n"));
}

}  // namespace
}  // namespace quarvel::cli
