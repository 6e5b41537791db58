#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include "common/Log.h"
#include "settings/CommandRunner.h"

namespace quarvel {
namespace {

TEST(CommandRunner, CapturesStandardOutputAndLeavesStandardErrorToTheHost) {
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(runShellCommand("printf a; echo; printf b >&2"), "a\n");
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "b");
}

TEST(CommandRunner, QuietFailingAndUndecodableCommandsAnswerEmptyText) {
  struct Case {
    const char* command;
    const char* why;
  } cases[] = {
      {"true", "prints nothing"},
      {"exit 3", "fails without output"},
      {"/nonexistent/program --flag", "program missing: the shell complains on stderr only"},
      {"printf 'ok\\377'", "not valid UTF-8"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.why);
    ::testing::internal::CaptureStderr();  // kept from the test's output
    EXPECT_EQ(runShellCommand(c.command), "");
    ::testing::internal::GetCapturedStderr();
  }
}

TEST(CommandRunner, ShellThatCannotStartAnswersEmptyAndLogs) {
  LogCapture log;
  EXPECT_EQ(runShellCommand("echo hi", "/nonexistent/sh"), "");
  EXPECT_TRUE(log.contains("could not be started")) << testing::PrintToString(log.lines());
}

TEST(CommandRunner, HostDescriptorsDoNotReachTheCommand) {
  int inheritable = ::open("/dev/null", O_RDONLY);  // deliberately without O_CLOEXEC
  ASSERT_GE(inheritable, 3);
  std::string check = "[ -e /proc/$$/fd/" + std::to_string(inheritable) +
                      " ] && echo leaked || echo clean; [ -e /proc/$$/fd/1 ] && echo stdout";
  EXPECT_EQ(runShellCommand(check), "clean\nstdout\n");
  ::close(inheritable);
}

// A daemon-like host with its standard input and output closed: the pipe
// takes descriptors 0 and 1, and its write end, already on 1, must stay open
// across the exec.
TEST(CommandRunnerDeathTest, WorksWhenTheHostHasNoStandardDescriptors) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        ::close(STDIN_FILENO);
        ::close(STDOUT_FILENO);
        std::_Exit(runShellCommand("echo hi") == "hi\n" ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST(CommandRunner, ReturnsWhenOutputClosesWithoutWaitingForTheCommand) {
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(runShellCommand("echo early; exec >&- 2>&-; sleep 30"), "early\n");
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(15));
}

}  // namespace
}  // namespace quarvel
