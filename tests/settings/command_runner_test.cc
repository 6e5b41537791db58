#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>

#include "common/Log.h"
#include "settings/CommandRunner.h"

namespace quarvel {
namespace {

// Standard output is the answer and standard error is left to the host's; a
// quiet, failing or undecodable command answers empty text. No descriptor of
// the host reaches the command but its standard ones, and the answer comes
// when the output closes, without waiting for the command to end. A shell
// that cannot start answers empty text and is logged.
TEST(CommandRunner, AnswersStandardOutputOrEmptyText) {
  const int inheritable = ::open("/dev/null", O_RDONLY);  // deliberately without O_CLOEXEC
  ASSERT_GE(inheritable, 3);
  const struct {
    std::string command;
    const char* out;
    const char* err;  // null: whatever the shell says
  } cases[] = {
      {"printf a; echo; printf b >&2", "a\n", "b"},
      {"true", "", ""},
      {"exit 3", "", ""},
      {"/nonexistent/program --flag", "", nullptr},  // the shell complains on stderr only
      {"printf 'ok\\377'", "", ""},                  // not valid UTF-8
      {"[ -e /proc/$$/fd/" + std::to_string(inheritable) +
           " ] && echo leaked || echo clean; [ -e /proc/$$/fd/1 ] && echo stdout",
       "clean\nstdout\n", ""},
      {"echo early; exec >&- 2>&-; sleep 30", "early\n", ""},
  };
  const auto start = std::chrono::steady_clock::now();
  for (const auto& c : cases) {
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(runShellCommand(c.command), c.out) << c.command;
    const std::string err = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(err, c.err ? c.err : err) << c.command;
  }
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(15));
  ::close(inheritable);

  LogCapture log;
  EXPECT_EQ(runShellCommand("echo hi", "/nonexistent/sh"), "");
  EXPECT_TRUE(log.contains("could not be started")) << testing::PrintToString(log.lines());
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

}  // namespace
}  // namespace quarvel
