#pragma once
// Runs a program as a whole process, as a user's shell would: given
// arguments, exactly the given environment, standard input from a string.
// Its output is gathered through files, so neither stream can block it.

#include <string>
#include <vector>

#include "support/FileText.h"

namespace quarvel::testing {

struct ToolRun {
  int exitStatus = -1;  // 128 + signal when killed; -1 when it did not start
  std::string out;
  std::string err;
};

// A whole file's bytes, "" when it cannot be read.
inline std::string slurp(const std::string& path) { return readBytes(path); }

// Waits for the program to end; its scratch files lie in gtest's TempDir().
ToolRun runProgram(const std::string& program, std::vector<std::string> arguments,
                   std::vector<std::string> env, const std::string& input = "");

}  // namespace quarvel::testing
