// `quarvel update` in a terminal: outcome texts and exit statuses, what is
// asked before the run, the bytes shown, a signed update from the list
// server, and whether the window can open.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>

#include "TerminalUpdate.h"
#include "format/Signature.h"
#include "quarvel/CVUserDefaults.h"
#include "server/ListServer.h"
#include "support/DataFileTargets.h"
#include "support/FileText.h"
#include "support/ReadableDataFile.h"
#include "support/ScriptedHttpServer.h"
#include "support/SettingsSandbox.h"
#include "update/FakeRouteSource.h"

namespace quarvel::cli {
namespace {

using namespace std::chrono_literals;

const char* target(int file) { return testing::kDataFileTargets[file].target; }

class TerminalUpdateTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // The internet-connection monitor answers reachable through a gateway.
    fakeRoutes->setFlags("0.0.0.0", 0x2);
    CVUserDefaults::standardUserDefaults();
    request.server = "127.0.0.1:" + std::to_string(server.port());
    request.options.pacing = 1ms;
    request.options.dataFileTimeout = 5s;
  }

  static std::string list(int index, std::size_t size = 0) {
    return testing::readableDataFile(testing::kListKinds[index], size);
  }
  bool said(const std::string& text) const { return out.str().find(text) != std::string::npos; }

  test::ScopedFakeRouteSource fakeRoutes;
  testing::SettingsSandbox sandbox;
  testing::ScriptedHttpServer server;
  TerminalUpdateRequest request;
  std::ostringstream out;
};

// Each outcome's text and exit status. Before the run only the
// internet-connection monitor is asked, and an unreachable internet asks the
// mirror nothing; anything else that is wrong is the run's to meet, with the
// run's own outcome. Unlike the window, the terminal takes only a list its
// reader opens, so an error page fails the run; an interrupt ends it at
// once, without awaiting the transfer under way.
TEST_F(TerminalUpdateTest, ReportsEachOutcomeWithItsExitStatus) {
  const std::string failed = "Quarvel: DB 업데이트 도중 오류가 발생하였습니다.";
  struct Case {
    const char* name;
    int exit;
    std::vector<std::string> said;
    std::function<void(TerminalUpdateRequest&)> arrange;
  };
  const Case cases[] = {
      // Each file's byte count appears with the step that ends it (one line
      // per step when not redrawing); a new file starts from nothing.
      {"done",
       kUpdateExitDone,
       {"인터넷 연결상태를 확인 중입니다.",
        "[##########--------------------]  33%  체크리스트 DB를 업데이트 중입니다.  3.0 MiB\n",
        "[###############---------------]  50%  패키지 DB를 업데이트 중입니다.  1.5 KiB\n",
        "[###############---------------]  50%  필터 DB를 업데이트 중입니다.\n",
        "[####################----------]  67%  필터 DB를 업데이트 중입니다.  1.0 KiB\n",
        "Quarvel: 업데이트가 완료되었습니다."},
       [this](auto&) {
         server.serve(target(0), list(0, 3 << 20));
         server.serve(target(1), list(1, 1536));
         server.serve(target(2), list(2, 1024));
       }},
      {"an error page for a list",
       kUpdateExitFailed,
       {failed},
       [this](auto&) { server.serve(target(2), "<html><body>404 Not Found</body></html>"); }},
      {"no route to the internet",
       kUpdateExitNoNetwork,
       {"인터넷 연결 오류\n인터넷 연결 상태를 확인해 주세요.\n※체크리스트를"},
       [this](auto&) { fakeRoutes->setFlags("0.0.0.0", 0u); }},
      {"--web with no in-house address",
       kUpdateExitFailed,
       {failed},
       [](auto& r) { r.web = true, r.server.reset(); }},
      // Last: the held transfer holds every connection after it.
      {"interrupted",
       kUpdateExitCancelled,
       {"업데이트가 취소되었습니다."},
       [this](auto& r) {
         server.hold(target(1));
         r.interrupted = [this] { return server.count(target(1)) > 0; };
       }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    for (int i = 0; i < 5; ++i) server.serve(target(i), list(i));
    fakeRoutes->setFlags("0.0.0.0", 0x2);
    out.str("");
    TerminalUpdateRequest r = request;
    c.arrange(r);
    const auto asked = server.targets().size();
    const auto started = std::chrono::steady_clock::now();
    EXPECT_EQ(runTerminalUpdate(r, out), c.exit);
    EXPECT_LT(std::chrono::steady_clock::now() - started, 5s);
    for (const std::string& text : c.said) EXPECT_TRUE(said(text)) << out.str();
    const bool unreachable = c.exit == kUpdateExitNoNetwork;
    EXPECT_EQ(said("인터넷 연결 오류"), unreachable) << out.str();
    if (unreachable) {
      EXPECT_EQ(server.targets().size(), asked);
    }
  }
  server.release();
}

// The whole way with a trusted key: keys and signatures in the tool's
// formats, lists and signatures served by the list server on loopback. A
// list changed on the server after it was signed is not taken.
TEST_F(TerminalUpdateTest, TakesOnlyWhatTheKeySigned) {
  const std::string library = *CVUserDefaults::standardUserDefaults()->libraryPath();
  const std::string folder = sandbox.root() + "/served";
  std::filesystem::create_directories(folder);
  const auto keys = *signing::generateKeyPair();
  for (const auto& target : testing::kDataFileTargets) {
    const std::string list = testing::readFile(std::string(QUARVEL_SAMPLES) + "/" + target.name);
    std::ofstream(folder + "/" + target.name, std::ios::binary) << list;
    std::ofstream(folder + "/" + target.name + ".sig") << signing::sign(keys.secretKey, list);
  }
  server::ListServer lists(folder);
  const int port = lists.start("127.0.0.1", 0);
  ASSERT_GT(port, 0);
  request.server = "127.0.0.1:" + std::to_string(port);
  request.verifyKey = signing::formatPublicKey(keys.publicKey);
  EXPECT_EQ(runTerminalUpdate(request, out), kUpdateExitDone) << out.str();
  for (const auto& target : testing::kDataFileTargets)
    EXPECT_EQ(testing::readFile(library + "/" + target.name),
              testing::readFile(folder + "/" + target.name));

  std::ofstream(folder + "/macfilterlist.dat", std::ios::app) << "x";
  std::ofstream(library + "/macfilterlist.dat") << "old";
  EXPECT_EQ(runTerminalUpdate(request, out), kUpdateExitFailed);
  EXPECT_EQ(testing::readFile(library + "/macfilterlist.dat"), "old");
  lists.stop();
}

TEST(WindowDisplayProblem, TellsWhetherQtCanStartAPlatform) {
  const std::pair<std::map<std::string, std::string>, bool> cases[] = {
      {{}, false},
      {{{"DISPLAY", ""}}, false},
      {{{"DISPLAY", ":0"}}, true},
      {{{"WAYLAND_DISPLAY", "wayland-0"}}, true},
      {{{"QT_QPA_PLATFORM", "vnc:size=800x600"}}, true},
      {{{"QT_QPA_PLATFORM", "xcb"}, {"WAYLAND_DISPLAY", "wayland-0"}}, false},
      {{{"QT_QPA_PLATFORM", "xcb"}, {"DISPLAY", ":1"}}, true},
      {{{"QT_QPA_PLATFORM", "wayland;xcb"}, {"DISPLAY", ":1"}}, true},
      {{{"QT_QPA_PLATFORM", ""}, {"DISPLAY", ":0"}}, true},  // empty is unset
  };
  for (const auto& [env, usable] : cases) {
    auto problem = windowDisplayProblem([&env](const char* name) -> const char* {
      auto it = env.find(name);
      return it == env.end() ? nullptr : it->second.c_str();
    });
    EXPECT_EQ(!problem, usable) << ::testing::PrintToString(env) << problem.value_or("");
  }
}

}  // namespace
}  // namespace quarvel::cli
