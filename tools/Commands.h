#pragma once
// The subcommands of the `quarvel` tool. Each adds its subcommands to the
// app; a subcommand that fails throws CLI::RuntimeError(exit status).

#include <CLI/CLI.hpp>

namespace quarvel::cli {

void addCipherCommands(CLI::App& app);    // decrypt, encrypt
void addFoldCommand(CLI::App& app);       // fold
void addSettingsCommands(CLI::App& app);  // paths, settings
void addDataFileCommands(CLI::App& app);  // show, lookup, check
void addNetIdCommand(CLI::App& app);      // netid
void addReachCommand(CLI::App& app);      // reach
void addUpdateCommands(CLI::App& app);    // update, serve
void addAuditCommand(CLI::App& app);      // audit

}  // namespace quarvel::cli
