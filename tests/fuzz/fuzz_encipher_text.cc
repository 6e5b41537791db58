// `quarvel encrypt TEXTFILE` on arbitrary bytes: what it writes, the reader
// must give back line for line (a leading byte-order mark skipped, CR LF
// read as LF, a last line without a line end kept); what it refuses, it
// refuses at a line and column inside the text.

#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "CipherCommand.h"
#include "FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using quarvel::fuzz::fail;
  quarvel::fuzz::quietLog();
  std::string_view text(reinterpret_cast<const char*>(data), size);

  quarvel::cli::TextProblem problem;
  std::optional<std::string> bytes = quarvel::cli::encipherText(text, &problem);
  if (!bytes) {
    if (problem.line == 0 || problem.column == 0 || problem.reason.empty())
      fail("a refusal without its place");
    std::size_t lines = 1;
    for (char c : text) lines += c == '\n';
    if (problem.line > lines) fail("a refusal past the last line");
    return 0;
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
  if (file == nullptr) return 0;
  const bool opened = quarvel::CommonLib::Decrypt(read, file);
  std::fclose(file);
  if (!opened) fail("an enciphered text does not read");
  if (read != expected) fail("the reader gives back other lines");
  return 0;
}
