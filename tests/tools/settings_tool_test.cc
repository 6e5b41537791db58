#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "Commands.h"
#include "SettingsTool.h"
#include "settings/SettingsForTesting.h"
#include "support/SettingsSandbox.h"

namespace quarvel::cli {
namespace {

TEST(SettingsToolTest, TypedTextBecomesValues) {
  struct Case {
    const char* text;
    const char* type;
    const char* shown;  // null: rejected
  } cases[] = {
      {"안녕 \"세상\"", "string", "\"안녕 \\\"세상\\\"\""},
      {"YES", "bool", "YES"},
      {"false", "bool", "NO"},
      {"maybe", "bool", nullptr},
      {"-9223372036854775808", "int", "-9223372036854775808"},
      {"9223372036854775808", "int", nullptr},
      {"12abc", "int", nullptr},
      {"0.1", "real", "0.1"},
      {"-2.5e-10", "real", "-2.5e-10"},
      {"inf", "real", nullptr},
      {"1999-12-31T23:59:59Z", "date", "1999-12-31T23:59:59Z"},
      {"1999-12-31", "date", nullptr},
      {"00ff80", "data", "<00ff80>"},
      {"0g", "data", nullptr},
      {"https://example.test/", "url", "<url:https://example.test/>"},
      {"[1, \"a\", {\"k\": true}, 2.5]", "json", "( 1, \"a\", { \"k\" = YES; }, 2.5 )"},
      {"[18446744073709551615]", "json", "( 18446744073709551615 )"},
      {"[\"a\\u0000\\r\\n\\t\\u001f\"]", "json", "( \"a\\x00\\r\\n\\t\\x1f\" )"},
      {"{\"a\": null}", "json", nullptr},
      {"[", "json", nullptr},
      {"x", "list", nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.type) + " " + c.text);
    auto value = parseValue(c.text, c.type);
    if (!c.shown) {
      EXPECT_FALSE(value.has_value());
      continue;
    }
    ASSERT_TRUE(value.has_value());
    EXPECT_EQ(describeValue(*value), c.shown);
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
  const struct {
    const char* args;
    int status;
  } cases[] = {
      {"set other 1 --type int", 3},
      {"delete kept", 3},
      {"delete missing", 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args);
    EXPECT_EQ(runSettings(c.args), c.status);
  }
  std::filesystem::remove(config);
  std::filesystem::rename(config + ".away", config);
  // The failed delete left the file as it was.
  discardSharedSettingsForTesting();
  EXPECT_EQ(runSettings("get kept"), 0);
  EXPECT_EQ(runSettings("get other"), 1);
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
        "editionFilePath: " + root + "/data/Quarvel/edition.dat\n"}) {
    EXPECT_NE(text.find(line), std::string::npos) << line << "in\n" << text;
  }
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 21);
}

}  // namespace
}  // namespace quarvel::cli
