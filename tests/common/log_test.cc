#include "common/Log.h"

#include <gtest/gtest.h>

#include <thread>

namespace quarvel {

TEST(Log, CaptureRecordsFormattedLinesFromEveryThread) {
  LogCapture capture;
  logf("%s(%d) // %s", "-[X y]", 85, "FAIL");
  std::thread([] { logLine("from another thread"); }).join();
  EXPECT_EQ(capture.lines(),
            (std::vector<std::string>{"-[X y](85) // FAIL", "from another thread"}));
}

TEST(Log, LongLinesAreNotCut) {
  LogCapture capture;
  std::string big(5000, 'x');
  logf("%s!", big.c_str());
  ASSERT_EQ(capture.lines().size(), 1u);
  EXPECT_EQ(capture.lines()[0], big + "!");
}

TEST(Log, NestedCapturesReceiveLinesInnermostFirst) {
  LogCapture outer;
  {
    LogCapture inner;
    logLine("a");
    EXPECT_TRUE(inner.contains("a"));
  }
  logLine("b");
  EXPECT_EQ(outer.lines(), std::vector<std::string>{"b"});
}

}  // namespace quarvel

namespace quarvel {

TEST(Log, DebugLinesReachCapturesEvenWhenDebugLoggingIsOff) {
  setDebugLogging(false);
  LogCapture capture;
  logDebugf("%s\n", "#HEADER_START");
  EXPECT_EQ(capture.lines(), std::vector<std::string>{"#HEADER_START\n"});
}

}  // namespace quarvel
