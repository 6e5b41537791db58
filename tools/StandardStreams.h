#pragma once
// What the tool says besides its answers, and `-` for standard input.
//
// Answers go to standard output and errors to standard error whatever the
// verbosity. Progress and notes go through notes(): where they would go,
// or nowhere under -q. The library's log lines always reach the system log;
// standard error shows them only under --verbose, except the warnings a
// user has to act on, which it shows unless -q.

#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>

namespace quarvel::cli {

enum class Verbosity { kQuiet, kNormal, kVerbose };

// Sets the verbosity for the rest of the run, the library's log echo with it.
void setVerbosity(Verbosity verbosity);
Verbosity verbosity();

// `stream` for progress and notes; under -q a stream that drops everything.
std::ostream& notes(std::ostream& stream);

// The path to read for a FILE argument: the argument itself, or for "-" a
// path to a copy of standard input (an anonymous in-memory file that lives
// until the tool exits), taken up to `limit` bytes. Absent, after a message
// on `err`, when standard input cannot be read or holds more than `limit`.
std::optional<std::string> inputPath(const std::string& argument, std::uint64_t limit,
                                     std::ostream& err);

}  // namespace quarvel::cli
