#include <iostream>
#include <memory>

#include "Commands.h"
#include "NetIdCommand.h"

namespace quarvel::cli {

void addNetIdCommand(CLI::App& app) {
  auto options = std::make_shared<NetIdOptions>();
  auto waitMs = std::make_shared<int>(2000);
  auto* netid = app.add_subcommand("netid", "Print the machine's network identity text");
  netid->add_flag("--json", options->json, "Print the adapter records behind the text as JSON");
  netid->add_option("--echo-host", options->echoHost,
                    "External address service, host[:port], answering at /ip");
  netid->add_option("--wait-ms", *waitMs, "Longest wait for the external address")
      ->check(CLI::NonNegativeNumber);
  netid->callback([options, waitMs] {
    options->wait = std::chrono::milliseconds(*waitMs);
    if (int status = runNetId(*options, std::cout); status != 0) throw CLI::RuntimeError(status);
  });
}

}  // namespace quarvel::cli
