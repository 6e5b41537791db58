#pragma once
// Runs a shell command line and collects what it prints.

#include <string>

namespace quarvel {

// Runs `shell -c command` with its standard output on a pipe; standard input
// and standard error are the host's. No other descriptor of the host reaches
// the command. Returns everything printed once the output is closed, "" when
// it is not valid UTF-8, and "" (logged) when the shell cannot be started.
// The command is not waited for beyond the end of its output.
std::string runShellCommand(const std::string& command, const std::string& shell = "/bin/sh");

}  // namespace quarvel
