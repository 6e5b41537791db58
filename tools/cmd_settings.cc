// quarvel paths | settings [get KEY | set KEY VALUE [--type T] | delete KEY]
#include <iostream>

#include "Commands.h"
#include "SettingsTool.h"

namespace quarvel::cli {

void addSettingsCommands(CLI::App& app) {
  auto* paths = app.add_subcommand(
      "paths", "Print the work folders, the data-file paths and whether the run is portable");
  static bool lite = false;
  paths->add_flag("--lite", lite, "Use the visible work-folder name (the Lite edition's)");
  paths->callback([] {
    auto* defaults = CVUserDefaults::standardUserDefaultsWithisLiteVer(lite);
    std::cout << describePaths(*defaults);
  });

  auto* settings = app.add_subcommand(
      "settings", "List the settings domain; get, set or delete one setting");
  settings->require_subcommand(0, 1);

  static std::string key, text, type = "string";
  auto* get = settings->add_subcommand("get", "Print one setting's value");
  get->add_option("KEY", key, "Setting key")->required();
  get->callback([] {
    auto value = CVUserDefaults::standardUserDefaults()->objectForKey(key);
    if (!value) {
      std::cerr << "no setting " << key << "\n";
      throw CLI::RuntimeError(1);
    }
    std::cout << describeValue(*value) << "\n";
  });

  auto* set = settings->add_subcommand("set", "Store one setting");
  set->add_option("KEY", key, "Setting key")->required();
  set->add_option("VALUE", text, "Value, read as --type says")->required();
  set->add_option("-t,--type", type, "string, bool, int, real, date (ISO 8601 UTC), data (hex), url or json")
      ->check(CLI::IsMember(std::vector<std::string>(std::begin(kValueTypes), std::end(kValueTypes))));
  set->callback([] {
    auto value = parseValue(text, type);
    if (!value) {
      std::cerr << "not a valid " << type << ": " << text << "\n";
      throw CLI::RuntimeError(2);
    }
    CVUserDefaults::standardUserDefaults()->setObject(*value, key);
  });

  auto* remove = settings->add_subcommand("delete", "Remove one setting");
  remove->add_option("KEY", key, "Setting key")->required();
  remove->callback([] {
    auto* defaults = CVUserDefaults::standardUserDefaults();
    if (!defaults->objectForKey(key)) {
      std::cerr << "no setting " << key << "\n";
      throw CLI::RuntimeError(1);
    }
    defaults->removeObjectForKey(key);
  });

  settings->callback([settings] {
    if (!settings->get_subcommands().empty()) return;
    CVUserDefaults::standardUserDefaults();
    std::cout << describeSettings(defaultsDic);
  });
}

}  // namespace quarvel::cli
