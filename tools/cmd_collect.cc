#include <signal.h>

#include <iostream>

#include "Commands.h"
#include "audit/ReportSubmitter.h"
#include "quarvel/CVUserDefaults.h"
#include "server/Collector.h"

namespace quarvel::cli {
namespace {

// "HOST:PORT" or "[V6]:PORT" into its parts; false when it is neither.
bool splitListen(const std::string& text, std::string& host, int& port) {
  const size_t colon = text.rfind(':');
  if (colon == std::string::npos || colon + 1 == text.size()) return false;
  host = text.substr(0, colon);
  if (host.size() >= 2 && host.front() == '[' && host.back() == ']')
    host = host.substr(1, host.size() - 2);
  try {
    size_t used = 0;
    port = std::stoi(text.substr(colon + 1), &used);
    return used == text.size() - colon - 1 && port >= 0 && port <= 65535 && !host.empty();
  } catch (const std::exception&) {
    return false;
  }
}

}  // namespace

void addCollectCommand(CLI::App& app) {
  struct Args {
    std::string listen = "127.0.0.1:8470";
    std::string db;
    std::string secretFile;
    std::string adminTokenFile;
    server::CollectorOptions options;
  };
  auto args = std::make_shared<Args>();
  auto* cmd = app.add_subcommand(
      "collect",
      "Receive the audit reports of many machines and show their overview, until SIGINT or "
      "SIGTERM");
  cmd->add_option("--listen", args->listen, "HOST:PORT to listen on (port 0 picks a free one)")
      ->capture_default_str();
  cmd->add_option("--db", args->db,
                  "SQLite file, or a postgresql:// URL (default: collect.sqlite in the library "
                  "folder)");
  cmd->add_option("--secret-file", args->secretFile,
                  "File holding the enrolment secret machines send with their reports")
      ->required();
  cmd->add_option("--admin-token-file", args->adminTokenFile,
                  "File holding the token the overview and export ask for (without it they "
                  "answer only this machine)");
  cmd->add_option("--stale-days", args->options.staleDays,
                  "Machines not seen for this many days are listed as stale")
      ->capture_default_str()
      ->check(CLI::Range(0, 36500));
  cmd->footer(
      "Exit status: 0 stopped by a signal, 1 the secret, the token or the store could not be "
      "read or the address could not be bound, 2 usage error.");
  cmd->callback([args] {
    std::string host;
    int port = 0;
    if (!splitListen(args->listen, host, port))
      throw CLI::ValidationError("--listen", "expects HOST:PORT, not " + args->listen);
    std::string error;
    auto secret = audit::readSecretFile(args->secretFile, error);
    if (!secret) {
      std::cerr << "quarvel collect: " << error << "\n";
      throw CLI::RuntimeError(1);
    }
    args->options.secret = *secret;
    if (!args->adminTokenFile.empty()) {
      auto token = audit::readSecretFile(args->adminTokenFile, error);
      if (!token) {
        std::cerr << "quarvel collect: " << error << "\n";
        throw CLI::RuntimeError(1);
      }
      args->options.adminToken = *token;
    }
    if (args->db.empty()) {
      auto library = CVUserDefaults::standardUserDefaults()->libraryPath();
      if (!library) {
        std::cerr << "quarvel collect: no library folder; give --db\n";
        throw CLI::RuntimeError(1);
      }
      args->db = *library + "/collect.sqlite";
    }
    auto store = server::openReportStore(args->db);
    if (!store) {
      std::cerr << "quarvel collect: cannot open the store (see the log)\n";
      throw CLI::RuntimeError(1);
    }

    // The signals are taken by sigwait on this thread; every other thread,
    // the server's included, inherits the blocked mask.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    server::Collector collector(*store, args->options);
    const int bound = collector.start(host, port);
    if (bound < 0) {
      std::cerr << "quarvel collect: cannot listen on " << args->listen << "\n";
      throw CLI::RuntimeError(1);
    }
    const bool v6 = host.find(':') != std::string::npos;
    std::cout << "Collecting on http://" << (v6 ? "[" + host + "]" : host) << ":" << bound
              << "/ into " << (args->db.starts_with("postgres") ? "PostgreSQL" : args->db)
              << std::endl;
    int received = 0;
    sigwait(&stopSignals, &received);
    collector.stop();
    std::cout << "Stopped (" << (received == SIGTERM ? "SIGTERM" : "SIGINT") << ")" << std::endl;
  });
}

}  // namespace quarvel::cli
