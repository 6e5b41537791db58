#pragma once
// Whole-file reads and writes for tests. Failures are answered, not thrown.

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>

namespace quarvel::testing {

// A whole file's bytes, or `missing` when it cannot be read.
inline std::string readBytes(const std::filesystem::path& path, std::string missing = "") {
  std::ifstream in(path, std::ios::binary);
  return in ? std::string(std::istreambuf_iterator<char>(in), {}) : missing;
}
// A whole file's bytes, or "<missing>" when it cannot be read.
inline std::string readFile(const std::string& path) { return readBytes(path, "<missing>"); }

// Replaces the file with `bytes`; false when it cannot be written.
inline bool writeBytes(const std::filesystem::path& path, std::string_view bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  return static_cast<bool>(out.flush());
}

}  // namespace quarvel::testing
