// The data-file reader on arbitrary bytes: as a file, through the whole of
// CommonLib::Decrypt, and as already deciphered text, straight into the
// line splitter (which the cipher would otherwise scramble), both into
// separate lines and into one buffer.

#include <cstdio>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "format/LineReader.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  quarvel::LogCapture& quiet = quarvel::fuzz::quietLog();

  std::vector<std::string> lines;
  quarvel::datafile::splitLines(data, size, lines);
  for (const std::string& line : lines)
    if (line.size() > 3 * quarvel::datafile::kMaxLineBytes) __builtin_trap();
  const std::vector<std::string> logged = quiet.lines();

  // The lines kept in one buffer, decoded whole where the text allows it,
  // are the same lines with the same log.
  quiet.clear();
  quarvel::datafile::DecodedLines decoded;
  quarvel::datafile::splitLines(data, size, decoded);
  if (decoded.lines.size() != lines.size() || quiet.lines() != logged) __builtin_trap();
  for (std::size_t i = 0; i < lines.size(); ++i)
    if (decoded.lines[i] != lines[i]) __builtin_trap();

  if (size == 0) return 0;
  std::string copy(reinterpret_cast<const char*>(data), size);
  if (std::FILE* file = fmemopen(copy.data(), copy.size(), "rb")) {
    lines.clear();
    if (!quarvel::CommonLib::Decrypt(lines, file)) __builtin_trap();
    std::fclose(file);
  }
  return 0;
}
