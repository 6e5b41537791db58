// The tool's top level: global options, usage errors and exit codes.

#include <memory>
#include <ostream>

#include "Commands.h"
#include "StandardStreams.h"
#include "quarvel/CVUserDefaults.h"
#include "quarvel/UpdateRun.h"
#include "quarvel/Version.h"

namespace quarvel::cli {

std::string versionText() {
  const UpdateOptions servers = UpdateOptions::defaults();
  return std::string("quarvel ") + version() + "\nlist server: " + servers.listServer +
         "\nfile server: " + servers.fileServer +
         "\nWindows package server: " + servers.windowsPackageServer + "\necho service: http://" +
         CVUserDefaults::echoServiceHost() + "\n";
}

void addAllCommands(CLI::App& app) {
  app.require_subcommand(1);
  app.set_version_flag(
      "--version", [] { return versionText(); },
      "Print the version and the configured servers, then exit");
  auto level = std::make_shared<int>(0);  // -1 quiet, 1 verbose
  auto* quiet = app.add_flag_callback(
      "-q,--quiet", [level] { *level = -1; }, "Print nothing but answers and errors");
  app.add_flag_callback(
         "-v,--verbose", [level] { *level = 1; },
         "Also print the library's log lines on standard error")
      ->excludes(quiet);
  app.parse_complete_callback([level] {
    setVerbosity(*level < 0   ? Verbosity::kQuiet
                 : *level > 0 ? Verbosity::kVerbose
                              : Verbosity::kNormal);
  });
  app.footer(
      "Exit status: 0 success, 1 failure, 2 usage error; a command's own codes are in its "
      "--help. `-` reads standard input wherever a FILE is read.");
  addCipherCommands(app);
  addFoldCommand(app);
  addSettingsCommands(app);
  addDataFileCommands(app);
  addNetIdCommand(app);
  addReachCommand(app);
  addUpdateCommands(app);
  addSigningCommands(app);
  addAuditCommand(app);
  addCollectCommand(app);
}

namespace {

// What stood where a command was expected, when CLI11 only says that one is
// required: an option the tool does not know, or a word that names no
// command. Empty when a command was given.
std::string unknownWord(const CLI::App& app, int argc, const char* const* argv) {
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    if (word.size() > 1 && word[0] == '-') {
      const std::string name = word.substr(0, word.find('='));
      if (app.get_option_no_throw(name) == nullptr) return "unknown option '" + name + "'";
      continue;
    }
    for (const CLI::App* sub : app.get_subcommands({}))
      if (sub->check_name(word)) return {};
    return "unknown command '" + word + "'";
  }
  return {};
}

}  // namespace

int run(CLI::App& app, int argc, const char* const* argv, std::ostream& out, std::ostream& err) {
  try {
    app.parse(argc, argv);
    return 0;
  } catch (const CLI::CallForHelp&) {
    out << app.help();
    return 0;
  } catch (const CLI::CallForAllHelp&) {
    out << app.help("", CLI::AppFormatMode::All);
    return 0;
  } catch (const CLI::CallForVersion& e) {
    out << e.what();
    return 0;
  } catch (const CLI::Success&) {
    return 0;
  } catch (const CLI::RuntimeError& e) {
    return e.get_exit_code();
  } catch (const CLI::ParseError& e) {
    const std::string word = unknownWord(app, argc, argv);
    if (dynamic_cast<const CLI::RequiredError*>(&e) && !word.empty())
      err << "quarvel: " << word << "\n";
    else
      err << "quarvel: " << e.what() << "\n";
    err << "Run 'quarvel --help' for more information.\n";
    return kExitUsage;
  }
}

}  // namespace quarvel::cli
