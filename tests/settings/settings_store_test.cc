#include <gtest/gtest.h>

#include <filesystem>

#include "quarvel/settings/CVUserDefaults.h"
#include "support/SettingsSandbox.h"

namespace quarvel {
namespace {

namespace fs = std::filesystem;

TEST(CVUserDefaultsTest, StartUpInsideTheSandbox) {
  testing::SettingsSandbox sandbox;
  CVUserDefaults* defaults = CVUserDefaults::standardUserDefaults();
  EXPECT_EQ(defaults, userdefaultsInstance);
  EXPECT_EQ(defaults->defaultPath(), sandbox.root() + "/home/Documents/.Quarvel");
  EXPECT_EQ(defaults->libraryPath(), sandbox.root() + "/data/Quarvel");
  EXPECT_TRUE(fs::is_directory(sandbox.root() + "/home/Documents/.Quarvel/CheckOut/Logs"));
  EXPECT_TRUE(fs::is_directory(sandbox.root() + "/data/Quarvel"));
}

}  // namespace
}  // namespace quarvel
