#pragma once
// `quarvel check`: what the reader would make of a data file, line by line,
// for the people who maintain the lists.

#include <iosfwd>
#include <optional>
#include <string>

#include "datafiles/DataFileKind.h"

namespace quarvel::datafile {

// Validates a data file for the people who maintain the lists: lines the
// reader drops or refuses (with line numbers and field counts), damaged
// sections, text outside them, keys that repeat (the last record wins, the
// earlier ones are unreachable), characters that folding changes and
// characters Mac Korean cannot hold. 0 when nothing would be refused or
// lost, 1 otherwise. `label` names the file in messages (default: `path`; "-" for standard input).
int checkDataFile(const std::string& path, std::optional<DataFileKind> kind, std::ostream& out,
                  std::ostream& err, const std::string& label = {});

}  // namespace quarvel::datafile
