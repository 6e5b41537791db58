// quarvel update: download fresh data files (terminal or window).
// quarvel serve: hand out a folder of data files to update runs.

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <iostream>

#include "Commands.h"
#include "TerminalUpdate.h"
#include "server/ListServer.h"

#ifdef QUARVEL_HAVE_GUI
#include <QApplication>

#include "quarvel/CVUserDefaults.h"
#include "quarvel/UpdateWindowController.h"
#endif

namespace quarvel::cli {
namespace {
using server::ListServer;
using server::ServeLimits;

std::atomic<bool> interruptRequested{false};
static_assert(std::atomic<bool>::is_always_lock_free);

extern "C" void onInterrupt(int) { interruptRequested.store(true); }

int runWindowUpdate(const TerminalUpdateRequest& request) {
#ifdef QUARVEL_HAVE_GUI
  // Qt aborts the process when its platform cannot start; say why instead.
  if (auto problem = windowDisplayProblem([](const char* name) { return std::getenv(name); })) {
    std::cerr << "quarvel update --gui: " << *problem << "\n";
    return kUpdateExitNoDisplay;
  }
  static int argc = 1;
  static char name[] = "quarvel";
  static char* argv[] = {name, nullptr};
  QApplication app(argc, argv);
  UpdateOptions options = request.options;
  if (request.server) options.listServer = "http://" + *request.server;
  UpdateWindowController window(false, options);
  if (request.web) window.isWebQuarvelCheck();
  return exitStatusForOutcome(window.showWindow());
#else
  (void)request;
  std::cerr << "quarvel was built without the update window (QUARVEL_BUILD_GUI=OFF)\n";
  return kUpdateExitFailed;
#endif
}

void addUpdate(CLI::App& app) {
  auto* cmd = app.add_subcommand(
      "update",
      "Download the five data files into the work folder (exit 0 done, 1 failed, "
      "2 cancelled, 3 no network, 4 no display for --gui)");
  struct Args {
    bool web = false;
    bool gui = false;
    std::string server;
  };
  auto args = std::make_shared<Args>();
  cmd->add_flag("--web", args->web, "Fetch from the in-house web server set in the settings");
  cmd->add_option("--server", args->server, "HOST[:PORT] of a mirror of the public list server");
  cmd->add_flag("--gui", args->gui, "Show the update window");
  cmd->callback([args] {
    TerminalUpdateRequest request;
    request.web = args->web;
    if (!args->server.empty()) request.server = args->server;
    int status;
    if (args->gui) {
      status = runWindowUpdate(request);
    } else {
      struct sigaction action {};
      action.sa_handler = onInterrupt;
      sigemptyset(&action.sa_mask);
      sigaction(SIGINT, &action, nullptr);
      request.interrupted = [] { return interruptRequested.load(); };
      request.redraw = ::isatty(STDOUT_FILENO) != 0;
      status = runTerminalUpdate(request, std::cout);
    }
    if (status != 0) throw CLI::RuntimeError(status);
  });
}

void addServe(CLI::App& app) {
  auto* cmd = app.add_subcommand(
      "serve", "Serve the data files of DIR at the list server's paths until SIGINT or SIGTERM");
  struct Args {
    std::string folder;
    int port = 8080;
    std::string bind = "127.0.0.1";
    ServeLimits limits;
    int headerSeconds = 10;
  };
  auto args = std::make_shared<Args>();
  cmd->add_option("DIR", args->folder, "Folder whose plain files are served")
      ->required()
      ->check(CLI::ExistingDirectory);
  cmd->add_option("--port", args->port, "Port to listen on (0 picks a free one)")
      ->capture_default_str()
      ->check(CLI::Range(0, 65535));
  cmd->add_option("--bind", args->bind, "Address to listen on")->capture_default_str();
  cmd->add_option("--max-connections", args->limits.maxConnections,
                  "Connections held at once; more wait in the kernel's queue")
      ->capture_default_str()
      ->check(CLI::Range(1, 100000));
  cmd->add_option("--max-per-address", args->limits.maxPerAddress,
                  "Connections held at once from one client address; more are closed")
      ->capture_default_str()
      ->check(CLI::Range(1, 100000));
  cmd->add_option("--header-timeout", args->headerSeconds,
                  "Seconds a client has to send a whole request header")
      ->capture_default_str()
      ->check(CLI::Range(1, 3600));
  cmd->callback([args] {
    // The signals are taken by sigwait on this thread; every other thread,
    // the server's included, inherits the blocked mask.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    args->limits.headerDeadline = std::chrono::seconds(args->headerSeconds);
    ListServer server(args->folder, args->limits);
    int port = server.start(args->bind, args->port);
    if (port < 0) {
      std::cerr << "quarvel serve: cannot listen on " << args->bind << ":" << args->port << "\n";
      throw CLI::RuntimeError(1);
    }
    std::cout << "Serving " << args->folder << " on http://" << args->bind << ":" << port << "/"
              << std::endl;
    int received = 0;
    sigwait(&stopSignals, &received);
    server.stop();
    std::cout << "Stopped (" << (received == SIGTERM ? "SIGTERM" : "SIGINT") << ")" << std::endl;
  });
}

}  // namespace

void addUpdateCommands(CLI::App& app) {
  addUpdate(app);
  addServe(app);
}

}  // namespace quarvel::cli
