// quarvel: the command-line tool for the people who maintain, host and use
// the check lists. It only parses arguments; the work is done by the library
// and by the tool library beside this file.

#include <clocale>
#include <csignal>

#include "Commands.h"

int main(int argc, char** argv) {
  std::setlocale(LC_ALL, "");
  // A write past the file-size limit (ulimit -f) then fails with EFBIG and
  // is reported, instead of ending the tool part-way.
  std::signal(SIGXFSZ, SIG_IGN);
  CLI::App app{"quarvel: read, write, serve and update the audit check lists"};
  app.require_subcommand(1);
  quarvel::cli::addCipherCommands(app);
  quarvel::cli::addFoldCommand(app);
  quarvel::cli::addSettingsCommands(app);
  quarvel::cli::addDataFileCommands(app);
  quarvel::cli::addNetIdCommand(app);
  quarvel::cli::addReachCommand(app);
  quarvel::cli::addUpdateCommands(app);
  quarvel::cli::addAuditCommand(app);
  CLI11_PARSE(app, argc, argv);
  return 0;
}
