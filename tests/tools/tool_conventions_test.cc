// The tool as a shell user meets it: usage errors, the version, standard
// input, JSON answers, what reaches standard error, which libraries a
// command maps, and `update --gui` where no display can be had. Each
// command runs once as a whole process; the other cases of the top level
// run in this process.

#include <gtest/gtest.h>

#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "CipherCommand.h"
#include "Commands.h"
#include "TerminalUpdate.h"
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

// The tool's top level in this process, for arguments that run no command.
ToolRun topLevel(std::vector<std::string> arguments) {
  CLI::App app;
  addAllCommands(app);
  std::vector<const char*> argv{"quarvel"};
  for (const std::string& a : arguments) argv.push_back(a.c_str());
  std::ostringstream out, err;
  const int status = run(app, static_cast<int>(argv.size()), argv.data(), out, err);
  return {status, out.str(), err.str()};
}

bool has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

TEST(ToolConventions, UsageErrorsExitTwoAndNameTheWord) {
  const std::pair<std::vector<std::string>, const char*> cases[] = {
      {{"frobnicate"}, "unknown command 'frobnicate'"},
      {{"show"}, "FILE is required"},
      {{"--nonsense"}, "--nonsense"},
      {{"-q", "--verbose", "netid"}, "--verbose"}};
  // The first runs as a whole process, the others in this one.
  for (const auto& [arguments, names] : cases) {
    const ToolRun run = &arguments == &cases[0].first ? tool(arguments) : topLevel(arguments);
    EXPECT_EQ(std::tie(run.exitStatus, run.out), std::tuple(2, "")) << run.err;
    EXPECT_TRUE(has(run.err, names) && has(run.err, "--help")) << run.err;
  }
}

TEST(ToolConventions, VersionAndHelpGoToStandardOutput) {
  const ToolRun version = tool({"--version"});
  EXPECT_TRUE(version.exitStatus == 0 && version.out.starts_with("quarvel ") &&
              has(version.out, "\nlist server: http://") &&
              has(version.out, "\nfile server: http://"))
      << version.out;
  const ToolRun help = topLevel({"lookup", "--help"});
  EXPECT_TRUE(help.exitStatus == 0 && has(help.out, "--kind checklist|package|filter|font") &&
              has(help.out, "Exit status: 0 a record matches, 1 none does") && !has(help.out, "->"))
      << help.out;
}

// `-` reads the same file from standard input, and says "-" where a message
// names the file; -q keeps the answer.
TEST(ToolConventions, StandardInputAndJsonAnswers) {
  const std::string list = kSamples + "/macchecklist.dat";
  const std::string bytes = slurp(list);
  std::ostringstream named, ignored;
  ASSERT_EQ(runDecrypt(list, named, ignored), 0);
  const ToolRun piped = tool({"decrypt", "-"}, bytes);
  EXPECT_EQ(std::tie(piped.exitStatus, piped.out), std::tuple(0, named.str())) << piped.err;
  const ToolRun checked = tool({"check", "-"}, bytes);
  EXPECT_TRUE(checked.out.starts_with("-: checked as a checklist file")) << checked.out;
  const ToolRun empty = tool({"show", "-"});
  EXPECT_TRUE(empty.exitStatus == 1 && empty.err.starts_with("-: ")) << empty.err;
  const ToolRun none = tool({"-q", "lookup", "--json", "--exe", "no-such.exe", "-"}, bytes);
  EXPECT_EQ(std::tie(none.exitStatus, none.out), std::tuple(1, "null\n"));
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
  EXPECT_EQ(std::tie(run.exitStatus, run.out),
            std::tuple(0, CommonLib::encodingForSpecialCharacter(input)))
      << run.err;
}

// The library's log lines reach the system log always, standard error only
// under --verbose.
TEST(ToolConventions, LogLinesOnStandardErrorOnlyWhenAskedFor) {
  const std::string list = kSamples + "/macfilterlist.dat";
  const ToolRun plain = tool({"show", list});
  EXPECT_EQ(std::tie(plain.exitStatus, plain.err), std::tuple(0, ""));
  const ToolRun verbose = tool({"--verbose", "show", list});
  EXPECT_TRUE(has(verbose.err, " ?= ")) << verbose.err;
  EXPECT_EQ(verbose.out, plain.out);
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
  const std::string commands =
      "decrypt encrypt fold paths settings show lookup check netid reach update serve keygen sign "
      "verify audit collect";
  const std::string script = "source " + docs + "/quarvel.bash\n" + R"sh(
at() { COMP_WORDS=("$@"); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _quarvel; echo "${COMPREPLY[*]}"; }
cd "$(mktemp -d)"
at quarvel sh; at quarvel lookup --k; at quarvel -q lookup --kind ''
at quarvel settings ''; at quarvel '')sh";
  const ToolRun run = runProgram("/bin/bash", {"-c", script}, {});
  EXPECT_EQ(run.out,
            "show\n--kind\nchecklist package filter font\nget set delete\n" + commands + "\n")
      << run.err;
  const std::string manual = slurp(docs + "/quarvel.1");
  std::istringstream words(commands);
  for (std::string command; words >> command;)
    EXPECT_TRUE(has(manual, ".SS \"quarvel " + command)) << command;
  EXPECT_TRUE(has(manual, "0 reachable, 1 not reachable") && has(manual, ".SH EXIT STATUS\n"));
}

// `quarvel update --gui` where no display can be had must say so and exit
// with its own status, not abort inside Qt; the other environments are
// judged in this process.
TEST(UpdateCommand, TheWindowWithoutADisplaySaysSoAndExits) {
  const auto finished =
      runProgram(QUARVEL_TOOL, {"update", "--gui"}, {"HOME=" + ::testing::TempDir()});
  EXPECT_EQ(finished.exitStatus, kUpdateExitNoDisplay) << finished.err;
  EXPECT_TRUE(has(finished.err,
                  "quarvel update --gui: no display for the update window: neither "
                  "DISPLAY nor WAYLAND_DISPLAY is set"))
      << finished.err;
  using Env = std::map<std::string, std::string>;
  for (const auto& [env, says] : std::vector<std::pair<Env, std::string>>{
           {{{"DISPLAY", ""}}, "neither DISPLAY nor WAYLAND_DISPLAY is set"},
           {{{"QT_QPA_PLATFORM", "xcb"}, {"WAYLAND_DISPLAY", "w-0"}},
            "QT_QPA_PLATFORM=xcb needs DISPLAY"}}) {
    const auto problem = windowDisplayProblem([&](const char* name) -> const char* {
      auto it = env.find(name);
      return it == env.end() ? nullptr : it->second.c_str();
    });
    EXPECT_TRUE(has(problem.value_or(""), "no display for the update window: " + says)) << says;
  }
}

}  // namespace
}  // namespace quarvel::cli
