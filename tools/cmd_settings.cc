// quarvel paths | settings [get KEY | set KEY VALUE [--type T] | delete KEY]
#include <iostream>
#include <memory>

#include "Commands.h"
#include "SettingsTool.h"

namespace quarvel::cli {

namespace {

struct SettingsOptions {
  bool lite = false;
  std::string key;
  std::string text;
  std::string type = "string";
};

[[noreturn]] void fail(const std::string& message, int status) {
  std::cerr << message << "\n";
  throw CLI::RuntimeError(status);
}

}  // namespace

void addSettingsCommands(CLI::App& app) {
  auto options = std::make_shared<SettingsOptions>();

  auto* paths = app.add_subcommand(
      "paths", "Print the work folders, the data-file paths and whether the run is portable");
  paths->add_flag("--lite", options->lite, "Use the visible work-folder name (the Lite edition's)");
  paths->callback([options] {
    std::cout << describePaths(*CVUserDefaults::standardUserDefaultsWithisLiteVer(options->lite));
  });

  auto* settings =
      app.add_subcommand("settings", "List the settings domain; get, set or delete one setting");
  settings->require_subcommand(0, 1);
  settings->footer(
      "Exit status: 0 done, 1 no such setting, 2 usage error or a value that does not read as "
      "its type, 3 the settings domain could not be written.");

  auto* get = settings->add_subcommand("get", "Print one setting's value");
  get->add_option("KEY", options->key, "Setting key")->required();
  get->callback([options] {
    auto value = CVUserDefaults::standardUserDefaults()->objectForKey(options->key);
    if (!value) fail("no setting " + options->key, 1);
    std::cout << describeValue(*value) << "\n";
  });

  auto* set = settings->add_subcommand("set", "Store one setting");
  set->add_option("KEY", options->key, "Setting key")->required();
  set->add_option("VALUE", options->text, "Value, read as --type says")->required();
  set->add_option("-t,--type", options->type,
                  "string, bool, int, real, date (ISO 8601 UTC), data (hex), url or json")
      ->check(
          CLI::IsMember(std::vector<std::string>(std::begin(kValueTypes), std::end(kValueTypes))))
      ->option_text("string|bool|int|real|date|data|url|json");
  set->callback([options] {
    auto value = parseValue(options->text, options->type);
    if (!value) fail("not a valid " + options->type + ": " + options->text, 2);
    CVUserDefaults::standardUserDefaults()->setObject(*value, options->key);
    if (CVUserDefaults::lastWriteFailed())
      fail("settings domain not written; " + options->key + " is not stored", 3);
  });

  auto* remove = settings->add_subcommand("delete", "Remove one setting");
  remove->add_option("KEY", options->key, "Setting key")->required();
  remove->callback([options] {
    auto* defaults = CVUserDefaults::standardUserDefaults();
    if (!defaults->objectForKey(options->key)) fail("no setting " + options->key, 1);
    defaults->removeObjectForKey(options->key);
    if (CVUserDefaults::lastWriteFailed())
      fail("settings domain not written; " + options->key + " is still stored", 3);
  });

  settings->callback([settings] {
    if (!settings->get_subcommands().empty()) return;
    CVUserDefaults::standardUserDefaults();
    std::cout << describeSettings(defaultsDic);
  });
}

}  // namespace quarvel::cli
