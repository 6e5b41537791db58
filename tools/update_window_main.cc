// quarvel-update-window: the update window as a program of its own, run by
// `quarvel update --gui [--web] [--server HOST[:PORT]]`, so that only this
// program loads Qt. Its exit status is the update's.

#include <QApplication>
#include <clocale>
#include <cstring>
#include <iostream>
#include <optional>
#include <string>

#include "TerminalUpdate.h"
#include "quarvel/UpdateWindowController.h"

int main(int argc, char** argv) {
  std::setlocale(LC_ALL, "");
  bool web = false;
  std::optional<std::string> server;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--web") == 0) {
      web = true;
    } else if (std::strcmp(argv[i], "--server") == 0 && i + 1 < argc) {
      server = argv[++i];
    } else {
      std::cerr << "usage: " << quarvel::cli::kUpdateWindowProgram
                << " [--web] [--server HOST[:PORT]]\n";
      return 2;
    }
  }
  QApplication app(argc, argv);
  quarvel::UpdateOptions options = quarvel::UpdateOptions::defaults();
  if (server) options.listServer = "http://" + *server;
  quarvel::UpdateWindowController window(false, options);
  if (web) window.isWebQuarvelCheck();
  return quarvel::cli::exitStatusForOutcome(window.showWindow());
}
