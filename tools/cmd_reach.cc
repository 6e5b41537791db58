#include <iostream>

#include "Commands.h"
#include "ReachCommand.h"

namespace quarvel::cli {

void addReachCommand(CLI::App& app) {
  auto options = std::make_shared<ReachOptions>();
  auto* reach = app.add_subcommand(
      "reach", "Show whether the internet, an address, a host or the local link is reachable");
  reach->add_option("target", options->target,
                    "IPv4 or IPv6 address, or host name (default: the internet)");
  reach->add_flag("--local-wifi", options->localWiFi,
                  "The link-local network (169.254.0.0) instead of a target");
  reach->add_flag("--watch", options->watch, "Print each change until interrupted");
  reach->footer(
      "Exit status: 0 reachable, 1 not reachable (with --watch: at the last change), 2 usage "
      "error or unusable target, 3 cannot watch for changes.");
  reach->callback([options] {
    if (options->localWiFi && !options->target.empty())
      throw CLI::ValidationError("reach", "--local-wifi takes no target");
    if (int status = runReach(*options, std::cout, std::cerr); status != 0)
      throw CLI::RuntimeError(status);
  });
}

}  // namespace quarvel::cli
