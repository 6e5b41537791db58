// quarvel reach: which monitor the arguments make and what it prints.

#include <gtest/gtest.h>

#include <sstream>

#include "ReachCommand.h"
#include "common/Log.h"
#include "update/FakeRouteSource.h"

namespace quarvel::cli {
namespace {

struct Output {
  int status;
  std::string out, err;
};

Output reach(const ReachOptions& options) {
  LogCapture quiet;
  std::ostringstream out, err;
  int status = runReach(options, out, err);
  return {status, out.str(), err.str()};
}

TEST(ReachCommand, PrintsLettersAndStatusOfTheChosenTarget) {
  {
    test::ScopedFakeRouteSource fake;
    fake->setFlags("0.0.0.0", 0x2);
    fake->setFlags("169.254.0.0", 0x2);  // only through a gateway
    fake->setFlags("198.51.100.4", 0x40002);
    fake->setFlags("203.0.113.1", std::nullopt);
    fake->setName("mirror.example", {"198.51.100.4"});
    fake->setFlags("2001:db8::4", 0x20002);
    fake->setName("v6only.example", {"2001:db8::4"});
    struct Case {
      ReachOptions options;
      const char* out;
      int status;
      const char* err = "";  // a part of standard error
    } cases[] = {
        {{}, "-R -------  1 (reachable via local network)\n", 0},
        {{.localWiFi = true}, "-R -------  0 (not reachable)\n", 1},
        {{.target = "mirror.example"}, "WR -------  2 (reachable via cellular)\n", 0},
        {{.target = "203.0.113.1"}, "unreadable  0 (not reachable)\n", 1},
        {{.target = "2001:db8::4"}, "-R ------d  1 (reachable via local network)\n", 0},
        {{.target = "v6only.example"}, "-R ------d  1 (reachable via local network)\n", 0},
        {{.target = "bad name"}, "", 2, "\"bad name\""},
    };
    for (const auto& c : cases) {
      SCOPED_TRACE(c.out);
      auto result = reach(c.options);
      EXPECT_EQ(result.status, c.status);
      EXPECT_EQ(result.out, c.out);
      EXPECT_EQ(result.err.empty(), !*c.err);
      EXPECT_NE(result.err.find(c.err), std::string::npos) << result.err;
    }
  }
  // Loopback through this machine's own routes.
  EXPECT_EQ(reach({.target = "127.0.0.1"}).out, "-R -----ld  1 (reachable via local network)\n");
}

}  // namespace
}  // namespace quarvel::cli
