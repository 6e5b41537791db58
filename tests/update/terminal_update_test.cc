// `quarvel update` in a terminal: outcome texts and exit statuses.

#include <gtest/gtest.h>

#include <atomic>
#include <sstream>

#include "TerminalUpdate.h"
#include "quarvel/settings/CVUserDefaults.h"
#include "support/ScriptedHttpServer.h"
#include "support/SettingsSandbox.h"

namespace quarvel::cli {
namespace {

using namespace std::chrono_literals;

const char* kTargets[] = {"/quarvel/download/list/check/mac/",
                          "/quarvel/download/list/package/mac/",
                          "/quarvel/download/list/filter/mac/", "/quarvel/download/list/user/mac/",
                          "/quarvel/download/list/font/mac/"};

class TerminalUpdateTest : public ::testing::Test {
 protected:
  void SetUp() override {
    CVUserDefaults::standardUserDefaults();
    for (const char* target : kTargets) server.serve(target, "list");
    request.server = "127.0.0.1:" + std::to_string(server.port());
    request.options.pacing = 1ms;
    request.options.dataFileTimeout = 5s;
  }

  testing::SettingsSandbox sandbox;
  testing::ScriptedHttpServer server;
  TerminalUpdateRequest request;
  std::ostringstream out;
};

TEST_F(TerminalUpdateTest, ReportsEachOutcomeWithItsExitStatus) {
  // The reachability check asks about the mirror itself: loopback.
  EXPECT_EQ(runTerminalUpdate(request, out), kUpdateExitDone);
  EXPECT_NE(out.str().find("인터넷 연결상태를 확인 중입니다."), std::string::npos);
  EXPECT_NE(
      out.str().find("[##########--------------------]  33%  체크리스트 DB를 업데이트 중입니다."),
      std::string::npos);
  EXPECT_NE(out.str().find("Quarvel: 업데이트가 완료되었습니다."), std::string::npos);
  EXPECT_TRUE(CVUserDefaults::standardUserDefaults()->lastUpdateDate());

  out.str("");
  server.failTimes(kTargets[0], 5);
  EXPECT_EQ(runTerminalUpdate(request, out), kUpdateExitFailed);
  EXPECT_NE(out.str().find("Quarvel: DB 업데이트 도중 오류가 발생하였습니다."), std::string::npos);
}

TEST_F(TerminalUpdateTest, NoNetworkAlertsAndTouchesNothing) {
  request.options.networkCheck = [] { return false; };
  EXPECT_EQ(runTerminalUpdate(request, out), kUpdateExitNoNetwork);
  EXPECT_NE(out.str().find("인터넷 연결 오류\n인터넷 연결 상태를 확인해 주세요.\n※체크리스트를"),
            std::string::npos);
  EXPECT_TRUE(server.targets().empty());
}

TEST_F(TerminalUpdateTest, InterruptCancelsAtOnce) {
  server.hold(kTargets[1]);
  request.interrupted = [this] { return server.count(kTargets[1]) > 0; };
  auto started = std::chrono::steady_clock::now();
  EXPECT_EQ(runTerminalUpdate(request, out), kUpdateExitCancelled);
  EXPECT_LT(std::chrono::steady_clock::now() - started, 5s);  // the held transfer is not awaited
  EXPECT_NE(out.str().find("업데이트가 취소되었습니다."), std::string::npos);
  server.release();
}

TEST(HostOfServer, TakesTheHostOutOfEachForm) {
  struct Case {
    const char* server;
    const char* host;
  };
  for (Case c : {Case{"127.0.0.1:8080", "127.0.0.1"}, Case{"http://lists.example", "lists.example"},
                 Case{"http://h:1/x/y", "h"}, Case{"[::1]:80", "::1"}, Case{"::1", "::1"},
                 Case{"", ""}, Case{"host", "host"}}) {
    EXPECT_EQ(hostOfServer(c.server), c.host) << c.server;
  }
}

}  // namespace
}  // namespace quarvel::cli
