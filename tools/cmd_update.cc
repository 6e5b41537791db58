// quarvel update: download fresh data files (terminal or window).
// quarvel serve: hand out a folder of data files to update runs.

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "Commands.h"
#include "SigningTool.h"
#include "StandardStreams.h"
#include "TerminalUpdate.h"
#include "server/ListServer.h"

namespace quarvel::cli {
namespace {
using server::ListServer;
using server::ServeLimits;

std::atomic<bool> interruptRequested{false};
static_assert(std::atomic<bool>::is_always_lock_free);

extern "C" void onInterrupt(int) { interruptRequested.store(true); }

// The update window is a program of its own, so that no other command loads
// Qt: beside this one in a build tree, in the libexec folder once installed.
std::optional<std::string> updateWindowProgram() {
  char self[4096];
  const ssize_t length = ::readlink("/proc/self/exe", self, sizeof self - 1);
  if (length <= 0) return std::nullopt;
  std::string folder(self, static_cast<std::size_t>(length));
  folder.erase(folder.rfind('/'));
  for (const std::string& candidate :
       {folder + "/" + kUpdateWindowProgram,
        folder + "/" + QUARVEL_LIBEXEC_FROM_BIN + "/" + kUpdateWindowProgram}) {
    if (::access(candidate.c_str(), X_OK) == 0) return candidate;
  }
  return std::nullopt;
}

int runWindowUpdate(const TerminalUpdateRequest& request) {
  // Qt aborts the process when its platform cannot start; say why instead.
  if (auto problem = windowDisplayProblem([](const char* name) { return std::getenv(name); })) {
    std::cerr << "quarvel update --gui: " << *problem << "\n";
    return kUpdateExitNoDisplay;
  }
  const std::optional<std::string> program = updateWindowProgram();
  if (!program) {
    std::cerr << "quarvel update --gui: the update window (" << kUpdateWindowProgram
              << ") is not installed; it is built with QUARVEL_BUILD_GUI=ON\n";
    return kUpdateExitFailed;
  }
  std::vector<std::string> arguments = {*program};
  if (request.web) arguments.emplace_back("--web");
  if (request.server) arguments.insert(arguments.end(), {"--server", *request.server});
  std::vector<char*> argv;
  argv.reserve(arguments.size() + 1);
  for (std::string& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  std::cout.flush();
  ::execv(program->c_str(), argv.data());
  std::cerr << "quarvel update --gui: cannot start " << *program << ": " << std::strerror(errno)
            << "\n";
  return kUpdateExitFailed;
}

void addUpdate(CLI::App& app) {
  auto* cmd = app.add_subcommand("update", "Download the five data files into the work folder");
  cmd->footer(
      "Exit status: 0 done, 1 failed, 2 usage error, 3 no network, 4 no display for --gui, "
      "130 cancelled (Ctrl-C, or the window closed).");
  struct Args {
    bool web = false;
    bool gui = false;
    std::string server;
    std::string verifyKey;
  };
  auto args = std::make_shared<Args>();
  cmd->add_flag("--web", args->web, "Fetch from the in-house web server set in the settings");
  cmd->add_option("--server", args->server, "HOST[:PORT] of a mirror of the public list server");
  cmd->add_flag("--gui", args->gui, "Show the update window");
  cmd->add_option("--verify-key", args->verifyKey,
                  "Public key file: accept only files whose FILE.sig it verifies")
      ->excludes("--gui");
  cmd->callback([args] {
    TerminalUpdateRequest request;
    request.web = args->web;
    if (!args->server.empty()) request.server = args->server;
    if (!args->verifyKey.empty()) {
      request.verifyKey = readPublicKeyFile(args->verifyKey, std::cerr);
      if (!request.verifyKey) throw CLI::RuntimeError(kUpdateExitFailed);
    }
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
      // Progress and the outcome text are notes: -q leaves the exit status.
      status = runTerminalUpdate(request, notes(std::cout));
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
