#pragma once
// The subcommands of the `quarvel` tool. Each adds its subcommands to the
// app; a subcommand that fails throws CLI::RuntimeError(exit status).
//
// Exit status, for every command: 0 success, 1 failure, 2 usage error (an
// unknown word, a missing or malformed argument); codes from 3 on are a
// command's own and listed in its --help.

#include <CLI/CLI.hpp>
#include <iosfwd>
#include <string>

namespace quarvel::cli {

inline constexpr int kExitUsage = 2;

void addCipherCommands(CLI::App& app);    // decrypt, encrypt
void addFoldCommand(CLI::App& app);       // fold
void addSettingsCommands(CLI::App& app);  // paths, settings
void addDataFileCommands(CLI::App& app);  // show, lookup, check
void addNetIdCommand(CLI::App& app);      // netid
void addReachCommand(CLI::App& app);      // reach
void addUpdateCommands(CLI::App& app);    // update, serve
void addSigningCommands(CLI::App& app);   // keygen, sign, verify
void addAuditCommand(CLI::App& app);      // audit
void addCollectCommand(CLI::App& app);    // collect

// The whole tool: the global options (--version, -q, --verbose), every
// command above and the exit-status footer.
void addAllCommands(CLI::App& app);

// Parses and runs, answering the exit status. Help and the version go to
// `out`; a usage error is named on `err`, with a pointer to --help.
int run(CLI::App& app, int argc, const char* const* argv, std::ostream& out, std::ostream& err);

// The --version text: the version and the servers this build talks to.
std::string versionText();

}  // namespace quarvel::cli
