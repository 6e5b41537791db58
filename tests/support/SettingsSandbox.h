#pragma once
// A private home for one test: a fresh temporary folder holding HOME
// (home/), its documents folder (home/Documents), XDG_CONFIG_HOME (config/,
// where the settings domain file goes) and XDG_DATA_HOME (data/, the user
// Library folder). The shared settings instance is forgotten so that the next
// CVUserDefaults::standardUserDefaults() runs its start-up there; the test
// binary lies on no removable or shared volume, so the run is not portable:
// its work folder is home/Documents/.Quarvel, its library data/Quarvel. The
// external-address lookup is pointed at a closed loopback port so that it
// fails at once.
//
// A test installs its own platform pieces with TestPlatform (TestPlatform.h),
// inside or around a sandbox. The destructor forgets the shared instance
// again, restores the environment and removes the folder. One sandbox at a
// time per process.

#include <stdlib.h>

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "quarvel/CVUserDefaults.h"
#include "settings/SettingsForTesting.h"
#include "support/ScratchDir.h"

namespace quarvel::testing {

class SettingsSandbox {
 public:
  SettingsSandbox() {
    std::filesystem::create_directories(root_ + "/home/Documents");
    std::filesystem::create_directories(root_ + "/config");
    std::filesystem::create_directories(root_ + "/data");
    point("HOME", root_ + "/home");
    point("XDG_CONFIG_HOME", root_ + "/config");
    point("XDG_DATA_HOME", root_ + "/data");
    point("XDG_DOCUMENTS_DIR", root_ + "/home/Documents");
    unset("APPIMAGE");
    previousEchoHost_ = CVUserDefaults::echoServiceHost();
    CVUserDefaults::setEchoServiceHost("127.0.0.1:1");
    discardSharedSettingsForTesting();
  }

  ~SettingsSandbox() {
    discardSharedSettingsForTesting();
    CVUserDefaults::setEchoServiceHost(previousEchoHost_);
    for (auto it = saved_.rbegin(); it != saved_.rend(); ++it) {
      if (it->second)
        ::setenv(it->first.c_str(), it->second->c_str(), 1);
      else
        ::unsetenv(it->first.c_str());
    }
  }

  SettingsSandbox(const SettingsSandbox&) = delete;
  SettingsSandbox& operator=(const SettingsSandbox&) = delete;

  const std::string& root() const { return root_; }

 private:
  void remember(const char* name) {
    const char* value = std::getenv(name);
    saved_.emplace_back(name, value ? std::optional<std::string>(value) : std::nullopt);
  }
  void point(const char* name, const std::string& value) {
    remember(name);
    ::setenv(name, value.c_str(), 1);
  }
  void unset(const char* name) {
    remember(name);
    ::unsetenv(name);
  }

  ScratchDir dir_;  // removed after the environment is restored
  const std::string& root_ = dir_.path();
  std::string previousEchoHost_;
  std::vector<std::pair<std::string, std::optional<std::string>>> saved_;
};

}  // namespace quarvel::testing
