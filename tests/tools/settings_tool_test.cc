#include "SettingsTool.h"

#include <gtest/gtest.h>

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
