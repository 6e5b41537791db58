#include "support/FileText.h"

#include <fstream>
#include <optional>
#include <sstream>

namespace quarvel::testing {
namespace {

std::optional<std::string> readWhole(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

}  // namespace

std::string readFile(const std::string& path) { return readWhole(path).value_or("<missing>"); }

std::string readBytes(const std::filesystem::path& path) { return readWhole(path).value_or(""); }

bool writeBytes(const std::filesystem::path& path, std::string_view bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  return static_cast<bool>(out.flush());
}

}  // namespace quarvel::testing
