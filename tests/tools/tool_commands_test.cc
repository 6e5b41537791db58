// The smaller commands in this process: paths and settings (value parsing
// and rendering), keygen / sign / verify, netid's records and reach's
// target and output.

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "Commands.h"
#include "NetIdCommand.h"
#include "ReachCommand.h"
#include "SettingsTool.h"
#include "SigningTool.h"
#include "common/Log.h"
#include "settings/NetworkFakes.h"
#include "settings/SettingsForTesting.h"
#include "support/FileText.h"
#include "support/LoopbackHttpServer.h"
#include "support/ScratchDir.h"
#include "support/SettingsSandbox.h"
#include "update/FakeRouteSource.h"

namespace quarvel::cli {
namespace {

using namespace std::chrono_literals;

TEST(SettingsToolTest, TypedTextBecomesValues) {
  // (text, type, shown; nothing: rejected)
  const std::tuple<const char*, const char*, std::optional<std::string>> cases[] = {
      {"안녕 \"세상\"", "string", "\"안녕 \\\"세상\\\"\""},
      {"YES", "bool", "YES"},
      {"false", "bool", "NO"},
      {"maybe", "bool", {}},
      {"9223372036854775808", "int", {}},
      {"12abc", "int", {}},
      {"0.1", "real", "0.1"},
      {"inf", "real", {}},
      {"1999-12-31T23:59:59Z", "date", "1999-12-31T23:59:59Z"},
      {"1999-12-31", "date", {}},
      {"00ff80", "data", "<00ff80>"},
      {"0g", "data", {}},
      {"https://example.test/", "url", "<url:https://example.test/>"},
      {"[1, \"a\", {\"k\": true}, 2.5]", "json", "( 1, \"a\", { \"k\" = YES; }, 2.5 )"},
      {"[18446744073709551615]", "json", "( 18446744073709551615 )"},
      {"[\"a\\u0000\\r\\n\\t\\u001f\"]", "json", "( \"a\\x00\\r\\n\\t\\x1f\" )"},
      {"{\"a\": null}", "json", {}},
      {"[", "json", {}},
      {"x", "list", {}}};
  for (const auto& [text, type, shown] : cases) {
    const auto value = parseValue(text, type);
    EXPECT_EQ(value ? std::optional(describeValue(*value)) : std::nullopt, shown)
        << type << " " << text;
  }
}

// The exit status of `quarvel settings ARGS` run in this process.
int runSettings(const std::string& args) {
  CLI::App app;
  addSettingsCommands(app);
  try {
    app.parse("settings " + args, false);
  } catch (const CLI::ParseError& e) {
    return e.get_exit_code();
  }
  return 0;
}

TEST(SettingsToolTest, SetAndDeleteFailWhenTheDomainCannotBeWritten) {
  quarvel::testing::SettingsSandbox sandbox;
  ASSERT_EQ(runSettings("set kept yes"), 0);
  // The configuration folder turns into a file: no domain can be written.
  const std::string config = sandbox.root() + "/config";
  std::filesystem::rename(config, config + ".away");
  { std::ofstream(config) << "not a folder"; }
  EXPECT_EQ(runSettings("set other 1 --type int"), 3);
  EXPECT_EQ(runSettings("delete kept"), 3);
  EXPECT_EQ(runSettings("delete missing"), 1);
  std::filesystem::remove(config);
  std::filesystem::rename(config + ".away", config);
  // The failed delete left the file as it was.
  discardSharedSettingsForTesting();
  EXPECT_EQ((std::array{runSettings("get kept"), runSettings("get other")}), (std::array{0, 1}));
}

TEST(SettingsToolTest, PathsNameEveryOperation) {
  quarvel::testing::SettingsSandbox sandbox;
  std::string text = describePaths(*CVUserDefaults::standardUserDefaults());
  const std::string& root = sandbox.root();
  for (const std::string& line :
       {std::string("portable: no\n"),
        "domainFile: " + root + "/config/com.Corvane.Defaults.plist\n",
        "defaultPath: " + root + "/home/Documents/.Quarvel\n",
        "tempRSTFolderPath: " + root + "/home/Documents/.Quarvel/CheckOut/TMP_RST\n",
        "libraryPath: " + root + "/data/Quarvel\n",
        "editionFilePath: " + root + "/data/Quarvel/edition.dat\n"})
    EXPECT_NE(text.find(line), std::string::npos) << line << "in\n" << text;
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 21);
}

// The secret key's mode, no key overwritten, and verify's answer for each
// way a file can fail.
TEST(SigningTool, KeysSignaturesAndVerdicts) {
  const quarvel::testing::ScratchDir scratch;
  const std::filesystem::path folder = scratch.path();
  const std::string secret = folder / "lists.key", publicKey = folder / "lists.pub";
  std::ostringstream out, err;
  ASSERT_EQ(generateKeyFiles(secret, publicKey, err), 0) << err.str();
  EXPECT_EQ(std::filesystem::status(secret).permissions(), std::filesystem::perms(0600));
  // A second keygen leaves the first pair as it was.
  const std::string firstSecret = testing::readFile(secret);
  EXPECT_EQ(generateKeyFiles(secret, folder / "other.pub", err), 1);
  EXPECT_EQ(testing::readFile(secret), firstSecret);
  EXPECT_FALSE(std::filesystem::exists(folder / "other.pub"));

  std::vector<std::string> files;
  for (const char* name : {"good", "changed", "unsigned"}) {
    files.push_back(folder / name);
    std::ofstream(files.back()) << "list " << name;
  }
  ASSERT_EQ(signFiles(secret, files, err), 0) << err.str();
  std::ofstream(files[1], std::ios::app) << ".";
  std::filesystem::remove(files[2] + ".sig");
  EXPECT_EQ(verifyFiles(publicKey, {files[0]}, out, err), 0);
  EXPECT_EQ(verifyFiles(publicKey, files, out, err), 1);
  for (const std::string& verdict : {files[0] + ": good", files[1] + ": BAD", files[2] + ": BAD"})
    EXPECT_NE(out.str().find(verdict), std::string::npos) << out.str();
  // The secret key is no public key.
  EXPECT_EQ(verifyFiles(secret, {files[0]}, out, err), 1);
}

NetworkSources fakeMachine() {
  return {std::make_shared<testing::FakeInterfaces>(std::vector<InterfaceAddress>{
              {"eth0", "18", "52:54:00:12:34:56"},
              {"eth0", "2", "10.0.2.15"},
              {"wlan0", "2", "192.168.1.9"},
              {"enx1", "18", "00:E0:4C:68:00:01"},
          }),
          std::make_shared<testing::FakeServices>(
              ServiceList{{"wlan0", "Wi-Fi"}, {"eth0", "Ethernet"}, {"enx1", "USB Ethernet"}}),
          nullptr};
}

TEST(NetIdCommand, JsonHoldsTheRecordsBehindTheTextAndNullWhenTheLookupFails) {
  testing::LoopbackHttpServer echo(
      [](const testing::HttpReceived&) { return testing::HttpReply::text("198.51.100.4\n"); });
  NetIdResult result =
      gatherNetId({.json = true, .echoHost = echo.hostAndPort(), .wait = 10s}, fakeMachine());
  EXPECT_EQ(renderNetId(result, false),
            "내부 IP : 192.168.1.9<br>외부 IP : 198.51.100.4<br>52:54:00:12:34:56<br>");
  auto doc = nlohmann::json::parse(renderNetId(result, true));
  EXPECT_EQ(doc["text"], result.run.ipStr);
  EXPECT_EQ(doc["external"], "198.51.100.4\n");
  ASSERT_EQ(doc["adapters"].size(), 2u);
  EXPECT_EQ(doc["adapters"][0],
            nlohmann::json({{"device", "wlan0"}, {"ADAPTER", "Wi-Fi"}, {"2", "192.168.1.9"}}));
  EXPECT_EQ(doc["adapters"][1]["18"], "52:54:00:12:34:56");
  EXPECT_EQ(doc["services"].size(), 3u);

  // A failed look-up ends the wait and shows null.
  auto start = std::chrono::steady_clock::now();
  result = gatherNetId({.json = true, .echoHost = "127.0.0.1:1", .wait = 20s}, fakeMachine());
  EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);
  EXPECT_FALSE(result.external);
  EXPECT_EQ(nlohmann::json::parse(renderNetId(result, true))["external"], nullptr);
  EXPECT_NE(result.run.ipStr.find("외부 IP : (null)<br>"), std::string::npos);
}

// The status, standard output and standard error of `quarvel reach`.
std::tuple<int, std::string, std::string> reach(const ReachOptions& options) {
  LogCapture quiet;
  std::ostringstream out, err;
  const int status = runReach(options, out, err);
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
    // (options, standard output, status, a part of standard error)
    for (const auto& [options, out, status, err] :
         std::vector<std::tuple<ReachOptions, std::string, int, std::string>>{
             {{}, "-R -------  1 (reachable via local network)\n", 0, ""},
             {{.localWiFi = true}, "-R -------  0 (not reachable)\n", 1, ""},
             {{.target = "mirror.example"}, "WR -------  2 (reachable via cellular)\n", 0, ""},
             {{.target = "203.0.113.1"}, "unreadable  0 (not reachable)\n", 1, ""},
             {{.target = "2001:db8::4"}, "-R ------d  1 (reachable via local network)\n", 0, ""},
             {{.target = "v6only.example"}, "-R ------d  1 (reachable via local network)\n", 0, ""},
             {{.target = "bad name"}, "", 2, "\"bad name\""}}) {
      const auto [gotStatus, gotOut, gotErr] = reach(options);
      EXPECT_EQ(std::tie(gotStatus, gotOut), std::tie(status, out));
      EXPECT_TRUE(gotErr.empty() == err.empty() && gotErr.find(err) != std::string::npos) << gotErr;
    }
  }
  // Loopback through this machine's own routes.
  EXPECT_EQ(std::get<1>(reach({.target = "127.0.0.1"})),
            "-R -----ld  1 (reachable via local network)\n");
}

}  // namespace
}  // namespace quarvel::cli
