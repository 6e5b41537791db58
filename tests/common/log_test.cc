#include "common/Log.h"

#include <gtest/gtest.h>

#include <thread>

namespace quarvel {

TEST(Log, CaptureRecordsWholeFormattedLinesFromEveryThread) {
  LogCapture capture;
  logf("%s(%d) // %s", "-[X y]", 85, "FAIL");
  std::thread([] { logLine("from another thread"); }).join();
  const std::string big(5000, 'x');
  logf("%s!", big.c_str());
  EXPECT_EQ(capture.lines(),
            (std::vector<std::string>{"-[X y](85) // FAIL", "from another thread", big + "!"}));
}

// Debug lines reach captures even when debug logging is off.
TEST(Log, NestedCapturesReceiveLinesInnermostFirst) {
  setDebugLogging(false);
  LogCapture outer;
  {
    LogCapture inner;
    logLine("a");
    EXPECT_TRUE(inner.contains("a"));
  }
  logDebugf("%s\n", "#HEADER_START");
  EXPECT_EQ(outer.lines(), std::vector<std::string>{"#HEADER_START\n"});
}

TEST(LogEcho, StandardErrorGetsWhatTheEchoLevelLetsThrough) {
  for (auto [echo, expected] : {std::pair{LogEcho::kAll, "a notice 1\na warning 2\n"},
                                {LogEcho::kWarnings, "a warning 2\n"},
                                {LogEcho::kNone, ""}}) {
    setLogEcho(echo);
    ::testing::internal::CaptureStderr();
    logf("a notice %d", 1);
    logWarningf("a warning %d", 2);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), expected);
  }
  setLogEcho(LogEcho::kAll);
}

}  // namespace quarvel
