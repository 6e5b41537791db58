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
  const struct {
    LogEcho echo;
    bool notice;
    bool warning;
  } cases[] = {
      {LogEcho::kAll, true, true},
      {LogEcho::kWarnings, false, true},
      {LogEcho::kNone, false, false},
  };
  for (const auto& c : cases) {
    setLogEcho(c.echo);
    ::testing::internal::CaptureStderr();
    logf("a notice %d", 1);
    logWarningf("a warning %d", 2);
    const std::string echoed = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(echoed.find("a notice 1\n") != std::string::npos, c.notice) << echoed;
    EXPECT_EQ(echoed.find("a warning 2\n") != std::string::npos, c.warning) << echoed;
  }
  setLogEcho(LogEcho::kAll);
}

}  // namespace quarvel
