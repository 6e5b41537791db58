#include "CipherCommand.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <ostream>
#include <vector>

#include "common/FileReplacement.h"
#include "format/LineReader.h"
#include "format/MacKorean.h"
#include "quarvel/CommonLib.h"

namespace quarvel::cli {
namespace {

std::size_t characterColumn(std::string_view line, std::size_t byteOffset) {
  std::size_t column = 1;
  for (std::size_t i = 0; i < byteOffset && i < line.size(); ++i)
    if ((static_cast<unsigned char>(line[i]) & 0xC0) != 0x80) ++column;
  return column;
}

std::string codePoint(char32_t c) {
  char buffer[16];
  std::snprintf(buffer, sizeof buffer, "U+%04X", static_cast<unsigned>(c));
  return buffer;
}

}  // namespace

int runDecrypt(const std::string& path, std::ostream& out, std::ostream& err,
               const std::string& label) {
  const std::string& name = label.empty() ? path : label;
  // Refused before reading, as `check` and the data-file classes refuse it.
  if (const datafile::ReadRefusal refusal = datafile::readRefusal(path);
      refusal != datafile::ReadRefusal::kNone && refusal != datafile::ReadRefusal::kEmpty) {
    err << "quarvel: " << name << ": " << datafile::describe(refusal) << '\n';
    return 1;
  }
  std::vector<std::string> lines;
  if (!CommonLib::Decrypt(lines, path)) {
    err << "quarvel: " << name << ": empty or unreadable data file\n";
    return 1;
  }
  for (const std::string& line : lines) out << line << '\n';
  out.flush();
  return 0;
}

std::optional<std::string> encipherText(std::string_view utf8, TextProblem* problem) {
  auto fail = [&](std::size_t line, std::size_t column, std::string reason) {
    if (problem) *problem = TextProblem{line, column, std::move(reason)};
    return std::nullopt;
  };
  if (utf8.starts_with("\xEF\xBB\xBF")) utf8.remove_prefix(3);
  if (utf8.empty()) return fail(1, 1, "the text is empty");

  std::string plain;
  plain.reserve(utf8.size() + utf8.size() / 16);
  std::size_t lineNumber = 1;
  for (std::size_t start = 0; start < utf8.size(); ++lineNumber) {
    std::size_t end = utf8.find('\n', start);
    const std::size_t next = end == std::string_view::npos ? utf8.size() : end + 1;
    if (end == std::string_view::npos) end = utf8.size();
    std::string_view line = utf8.substr(start, end - start);
    if (line.ends_with('\r')) line.remove_suffix(1);
    start = next;

    if (std::size_t at = line.find_first_of(std::string_view("\r\0", 2));
        at != std::string_view::npos)
      return fail(lineNumber, characterColumn(line, at),
                  line[at] == '\r' ? "a CR that does not end a line" : "a zero byte");
    MacKorean::EncodeError error;
    std::optional<std::string> bytes = MacKorean::encode(line, &error);
    if (!bytes)
      return fail(lineNumber, characterColumn(line, error.offset),
                  error.character == U'\uFFFD'
                      ? "the text is not UTF-8"
                      : codePoint(error.character) + " has no Mac Korean form");
    if (bytes->size() > datafile::kMaxLineBytes)
      return fail(lineNumber, 1,
                  "the line takes " + std::to_string(bytes->size()) + " bytes, more than the " +
                      std::to_string(datafile::kMaxLineBytes) + " a data file allows");
    plain += *bytes;
    plain += "\r\n";
  }
  if (plain.size() > UINT32_MAX)
    return fail(lineNumber - 1, 1, "the text is too large for a data file");
  CommonLib::Encrypt(reinterpret_cast<unsigned char*>(plain.data()),
                     static_cast<std::uint32_t>(plain.size()));
  return plain;
}

int runEncrypt(const EncryptOptions& options, std::ostream& err) {
  std::ifstream in(options.textPath, std::ios::binary);
  if (!in) {
    err << "quarvel: " << options.textPath << ": cannot be read\n";
    return 1;
  }
  const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  TextProblem problem;
  const std::optional<std::string> enciphered = encipherText(text, &problem);
  if (!enciphered) {
    err << options.textPath << ':' << problem.line << ':' << problem.column << ": "
        << problem.reason << "; nothing written\n";
    return 1;
  }
  // Replaced whole: a write that fails part-way leaves OUT as it was.
  if (!FileReplacement::replace(options.outPath, *enciphered)) {
    err << "quarvel: " << options.outPath << ": cannot be written\n";
    return 1;
  }
  return 0;
}

}  // namespace quarvel::cli
