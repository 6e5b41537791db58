#pragma once
// Whole-file reads and writes for tests. Failures are answered, not thrown.

#include <filesystem>
#include <string>
#include <string_view>

namespace quarvel::testing {

// A whole file's bytes, or "<missing>" when it cannot be read.
std::string readFile(const std::string& path);
// A whole file's bytes, or "" when it cannot be read.
std::string readBytes(const std::filesystem::path& path);
// Replaces the file with `bytes`; false when it cannot be written.
bool writeBytes(const std::filesystem::path& path, std::string_view bytes);

}  // namespace quarvel::testing
