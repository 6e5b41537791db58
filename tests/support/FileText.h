#pragma once
// A whole file's bytes, or "<missing>" when it cannot be read.

#include <fstream>
#include <sstream>
#include <string>

namespace quarvel::testing {

inline std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return "<missing>";
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

}  // namespace quarvel::testing
