// `quarvel update --gui` as a whole process where no display can be had: it
// must say so and exit with its own status, not abort inside Qt.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "TerminalUpdate.h"
#include "support/ToolProcess.h"

namespace quarvel::cli {
namespace {

TEST(UpdateCommand, TheWindowWithoutADisplaySaysSoAndExits) {
  const std::string home = "HOME=" + std::string(::testing::TempDir());
  struct Case {
    const char* name;
    std::vector<std::string> env;
    const char* says;
  };
  const Case cases[] = {
      {"nothing set", {home}, "neither DISPLAY nor WAYLAND_DISPLAY is set"},
      {"empty DISPLAY", {home, "DISPLAY="}, "neither DISPLAY nor WAYLAND_DISPLAY is set"},
      {"xcb asked for, wayland only",
       {home, "QT_QPA_PLATFORM=xcb", "WAYLAND_DISPLAY=w-0"},
       "QT_QPA_PLATFORM=xcb needs DISPLAY"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const auto finished = quarvel::testing::runProgram(QUARVEL_TOOL, {"update", "--gui"}, c.env);
    EXPECT_EQ(finished.exitStatus, kUpdateExitNoDisplay) << finished.err;
    EXPECT_NE(finished.err.find("quarvel update --gui: no display for the update window"),
              std::string::npos)
        << finished.err;
    EXPECT_NE(finished.err.find(c.says), std::string::npos) << finished.err;
  }
}

}  // namespace
}  // namespace quarvel::cli
