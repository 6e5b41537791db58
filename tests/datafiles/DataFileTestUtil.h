#pragma once
// Helpers for the data-file tests: a temporary folder, record lines, and an
// independent rendering of the file cipher so that tests can build a file
// from its plain text and look inside a file that was saved. Whole-file
// reads and writes come from support/FileText.h.

#include <filesystem>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "format/MacKorean.h"
#include "support/FileText.h"
#include "support/ScratchDir.h"

namespace quarvel::testing {

// Byte i XORed with key[i % 16]: its own inverse.
inline std::string xorKey(std::string bytes) {
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] ^= "Lumbergan3_Vxok!"[i & 15];
  return bytes;
}

// Plain bytes -> file bytes: XOR with the key, then reverse.
inline std::string encipher(std::string_view plain) {
  const std::string out = xorKey(std::string(plain));
  return std::string(out.rbegin(), out.rend());
}

// File bytes -> plain bytes.
inline std::string decipher(std::string_view file) {
  return xorKey(std::string(file.rbegin(), file.rend()));
}

// Lines joined with CR LF, each line ended.
inline std::string crlf(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) text += line + "\r\n";
  return text;
}

// A data file's plain text: each tag's lines between its start and end lines.
inline std::string sections(
    const std::vector<std::pair<std::string, std::vector<std::string>>>& parts) {
  std::vector<std::string> lines;
  for (const auto& [tag, records] : parts) {
    lines.push_back(tag + "_START");
    lines.insert(lines.end(), records.begin(), records.end());
    lines.push_back(tag + "_END");
  }
  return crlf(lines);
}

// What a save of `file` would write before enciphering; "<refused>" when
// getContents refuses, "<unterminated>" when the buffer lacks its zero byte.
template <typename File>
std::string contentsOf(File& file) {
  std::uint64_t size = 0;
  auto contents = file.getContents(size);
  if (!contents) return "<refused>";
  if (contents[size] != 0) return "<unterminated>";
  return std::string(reinterpret_cast<const char*>(contents.get()), size);
}

// A scratch folder that writes data files and lists what it holds.
class TempDir : public ScratchDir {
 public:
  std::filesystem::path path() const { return ScratchDir::path(); }
  std::string file(std::string_view name) const { return *this / std::string(name); }
  // Writes `plain` (UTF-8) as a data file: Mac Korean bytes, enciphered.
  // Answers the path.
  std::string writeDataFile(std::string_view name, std::string_view plain) const {
    std::optional<std::string> bytes = MacKorean::encode(plain);
    if (!bytes) throw std::invalid_argument("test text has no Mac Korean form");
    return writeRawDataFile(name, *bytes);
  }
  // Writes `bytes` enciphered, as they are.
  std::string writeRawDataFile(std::string_view name, std::string_view bytes) const {
    writeBytes(file(name), encipher(bytes));
    return file(name);
  }
  std::vector<std::string> entries() const {
    const std::set<std::string> found = names();
    return {found.begin(), found.end()};
  }
};

// A 17-field check list line (14 with `font`), the interpreted fields given.
inline std::string checkLine(const std::string& id, const std::string& company,
                             const std::string& product, const std::string& version,
                             const std::string& original, const std::string& exe,
                             bool font = false) {
  const std::string line = id + "\t" + company + "\t" + product + "\t" + version + "\t" + original +
                           "\t" + exe + "\t" + company + " Inc.\t" + product +
                           " Pro\t120000\t1\tG1\tGraphics\t1\t/Applications/" + product + ".app";
  return font ? line : line + "\tY\thttps://example.com\tCommercial";
}

}  // namespace quarvel::testing
