// The data-file reader on arbitrary bytes: as a file, through the whole of
// CommonLib::Decrypt, and as already deciphered text, straight into the
// line splitter (which the cipher would otherwise scramble), both into
// separate lines and into one buffer.
//
// The same bytes as the text of `quarvel encrypt TEXTFILE`: what it writes,
// the reader must give back line for line (a leading byte-order mark
// skipped, CR LF read as LF, a last line without a line end kept); what it
// refuses, it refuses at a line and column inside the text.

#include <algorithm>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "CipherCommand.h"
#include "FuzzSupport.h"
#include "format/LineReader.h"

namespace {

using quarvel::fuzz::fail;

void splitAndDecrypt(const std::uint8_t* data, std::size_t size) {
  quarvel::LogCapture& quiet = quarvel::fuzz::quietLog();
  std::vector<std::string> lines;
  quarvel::datafile::splitLines(data, size, lines);
  for (const std::string& line : lines)
    if (line.size() > 3 * quarvel::datafile::kMaxLineBytes) fail("a line past the longest");
  const std::vector<std::string> logged = quiet.lines();

  // The lines kept in one buffer, decoded whole where the text allows it,
  // are the same lines with the same log.
  quiet.clear();
  quarvel::datafile::DecodedLines decoded;
  quarvel::datafile::splitLines(data, size, decoded);
  if (!std::ranges::equal(decoded.lines, lines) || quiet.lines() != logged)
    fail("one buffer reads other lines");

  if (size == 0) return;
  std::string copy(reinterpret_cast<const char*>(data), size);
  if (std::FILE* file = fmemopen(copy.data(), copy.size(), "rb")) {
    lines.clear();
    if (!quarvel::CommonLib::Decrypt(lines, file)) fail("bytes that do not read");
    std::fclose(file);
  }
}

void encipherAndRead(std::string_view text) {
  quarvel::fuzz::quietLog();
  quarvel::cli::TextProblem problem;
  std::optional<std::string> bytes = quarvel::cli::encipherText(text, &problem);
  if (!bytes) {
    if (problem.line == 0 || problem.column == 0 || problem.reason.empty())
      fail("a refusal without its place");
    std::size_t lines = 1;
    for (char c : text) lines += c == '\n';
    if (problem.line > lines) fail("a refusal past the last line");
    return;
  }
  if (text.starts_with("\xEF\xBB\xBF")) text.remove_prefix(3);
  std::vector<std::string> expected;
  for (std::size_t start = 0; start < text.size();) {
    std::size_t end = text.find('\n', start);
    if (end == std::string_view::npos) end = text.size();
    std::string_view line = text.substr(start, end - start);
    if (line.ends_with('\r')) line.remove_suffix(1);
    expected.emplace_back(line);
    start = end + 1;
  }
  std::vector<std::string> read;
  std::FILE* file = fmemopen(bytes->data(), bytes->size(), "rb");
  if (file == nullptr) return;
  const bool opened = quarvel::CommonLib::Decrypt(read, file);
  std::fclose(file);
  if (!opened) fail("an enciphered text does not read");
  if (read != expected) fail("the reader gives back other lines");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  splitAndDecrypt(data, size);
  encipherAndRead(std::string_view(reinterpret_cast<const char*>(data), size));
  return 0;
}
