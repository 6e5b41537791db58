#pragma once
// The programs that desktop entries (".desktop" files) start.
//
// Every "Exec=" line of the file counts, the main entry's and its actions'.
// The value is unescaped (\s \n \t \r \\) and split into arguments the way
// launchers split it: white space separates, double quotes group, and inside
// quotes a backslash escapes the next character. The program is then the
// first argument, with these wrappers seen through:
//   env [options] [NAME=value...] program ...   -> program
//   flatpak run [options] --command=name app-id -> name
//   flatpak run [options] app-id ...            -> app-id
// Snap exports name /snap/bin/<name> (often behind env), which needs nothing
// special. The answer is the program's last path component.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quarvel::audit {

// The program one Exec value starts, or nothing for an empty value.
std::optional<std::string> programOfExec(std::string_view value);

// The programs of all Exec lines of a desktop entry's text, in file order,
// without repeats.
std::vector<std::string> execPrograms(std::string_view text);

// Reads the file (at most 1 MiB) and answers its programs; none when it
// cannot be read.
std::vector<std::string> execProgramsOfFile(const std::string& path);

}  // namespace quarvel::audit
