#pragma once
// A private home for one test: a fresh temporary folder holding HOME
// (home/), its documents folder (home/Documents), XDG_CONFIG_HOME (config/,
// where the settings domain file goes) and XDG_DATA_HOME (data/, the user
// Library folder). The shared settings instance is forgotten so that the next
// CVUserDefaults::standardUserDefaults() starts up there, not portable: its
// work folder is home/Documents/.Quarvel, its library data/Quarvel. The
// external-address lookup goes to a closed loopback port, failing at once.
// The destructor undoes it all. One sandbox at a time per process.

#include <stdlib.h>

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "quarvel/CVUserDefaults.h"
#include "settings/SettingsForTesting.h"
#include "support/ScratchDir.h"

namespace quarvel::testing {

class SettingsSandbox {
 public:
  SettingsSandbox() {
    for (const auto& [name, folder] : {std::pair{"APPIMAGE", ""},
                                       {"HOME", "/home"},
                                       {"XDG_CONFIG_HOME", "/config"},
                                       {"XDG_DATA_HOME", "/data"},
                                       {"XDG_DOCUMENTS_DIR", "/home/Documents"}}) {
      const char* value = std::getenv(name);
      saved_.emplace_back(name, value ? std::optional<std::string>(value) : std::nullopt);
      if (*folder) std::filesystem::create_directories(root_ + folder);
      *folder ? ::setenv(name, (root_ + folder).c_str(), 1) : ::unsetenv(name);
    }
    CVUserDefaults::setEchoServiceHost("127.0.0.1:1");
    discardSharedSettingsForTesting();
  }

  ~SettingsSandbox() {
    discardSharedSettingsForTesting();
    CVUserDefaults::setEchoServiceHost(previousEchoHost_);
    for (const auto& [name, value] : saved_)
      value ? ::setenv(name.c_str(), value->c_str(), 1) : ::unsetenv(name.c_str());
  }

  SettingsSandbox(const SettingsSandbox&) = delete;
  SettingsSandbox& operator=(const SettingsSandbox&) = delete;

  const std::string& root() const { return root_; }

 private:
  ScratchDir dir_;  // removed after the environment is restored
  const std::string& root_ = dir_.path();
  const std::string previousEchoHost_ = CVUserDefaults::echoServiceHost();
  std::vector<std::pair<std::string, std::optional<std::string>>> saved_;
};

}  // namespace quarvel::testing
