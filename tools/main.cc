// quarvel: the command-line tool for the people who maintain, host and use
// the check lists. It only parses arguments; the work is done by the library
// and by the tool library beside this file.

#include <clocale>
#include <csignal>
#include <iostream>

#include "Commands.h"

int main(int argc, char** argv) {
  std::setlocale(LC_ALL, "");
  // A write past the file-size limit (ulimit -f) then fails with EFBIG and
  // is reported, instead of ending the tool part-way.
  std::signal(SIGXFSZ, SIG_IGN);
  CLI::App app{"quarvel: read, write, serve and update the audit check lists"};
  quarvel::cli::addAllCommands(app);
  return quarvel::cli::run(app, argc, argv, std::cout, std::cerr);
}
