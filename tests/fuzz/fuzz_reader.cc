// The data-file reader on arbitrary bytes: through CommonLib::Decrypt, and
// as deciphered text into the line splitter, into lines and into one buffer
// alike (whose lines a table splits into records once and again alike), and
// from a file a block at a time, in one piece or two halves, as the whole
// file reads it. As the text of `quarvel encrypt TEXTFILE`: what it writes
// reads back line for line (byte-order mark skipped, CR LF as LF, a last
// line without a line end kept), and a refusal names a line and column
// inside the text.

#include "CipherCommand.h"
#include "FuzzSupport.h"
#include "common/StringUtil.h"
#include "format/LineReader.h"
#include "quarvel/TableMulti.h"
#include "tables/TabbedSplit.h"

namespace {

using namespace quarvel;
using fuzz::fail;

// What CommonLib::Decrypt reads from `bytes` as a stream, none when no stream
// opens; a refusal fails.
std::optional<std::vector<std::string>> readStream(std::string bytes) {
  std::FILE* file = bytes.empty() ? nullptr : fmemopen(bytes.data(), bytes.size(), "rb");
  if (file == nullptr) return std::nullopt;
  std::vector<std::string> lines;
  const bool read = CommonLib::Decrypt(lines, file);
  std::fclose(file);
  if (!read) fail("bytes that do not read");
  return lines;
}

// A long section's keys are entered on a second thread, which reads the
// records addTabbedLines builds by their place in one array: the record
// `added` sees for each row must be that far after the first, and be the
// row's record in the table.
void recordsInRowOrder(const datafile::DecodedLines& decoded, std::size_t fields) {
  TableMulti table;
  table.initWithRecord(std::string(fields - 1, '\t'), "\t");
  std::vector<std::size_t> refused;
  const Record* first = nullptr;
  table.addTabbedLines(
      std::shared_ptr<const std::string>(std::shared_ptr<void>(), decoded.text.get()),
      decoded.lines, refused, [&](std::int64_t row, const Record& r) {
        if (row == 0) first = &r;
        if (first == nullptr || &r != first + row) fail("a record out of its row's place");
      });
  for (std::uint64_t row = 0; row < table.getCount(); ++row)
    if (table.getAt(static_cast<std::int64_t>(row)).get() != first + row)
      fail("the table's record is not the one built for its row");
  // The same lines split in part ahead, as a second thread does for a long
  // section (here before the builder starts): the same records and refusals.
  TableMulti helped;
  helped.initWithRecord(std::string(fields - 1, '\t'), "\t");
  TabbedSplit split(decoded.lines, fields);
  split.splitAhead();
  std::vector<std::size_t> refusedToo;
  helped.addTabbedLines(
      std::shared_ptr<const std::string>(std::shared_ptr<void>(), decoded.text.get()),
      decoded.lines, refusedToo, nullptr, nullptr, &split);
  if (refusedToo != refused || helped.getCount() != table.getCount())
    fail("lines split ahead give other records");
  for (std::uint64_t row = 0; row < table.getCount(); ++row) {
    const auto at = static_cast<std::int64_t>(row);
    if (!(*helped.getAt(at) == *table.getAt(at))) fail("a record split ahead reads otherwise");
  }
}

void splitAndDecrypt(std::string_view text) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
  LogCapture& quiet = fuzz::quietLog();
  std::vector<std::string> lines;
  datafile::splitLines(bytes, text.size(), lines);
  for (const std::string& line : lines)
    if (line.size() > 3 * datafile::kMaxLineBytes) fail("a line past the longest");
  const std::vector<std::string> logged = quiet.lines();
  quiet.clear();
  datafile::DecodedLines decoded;
  datafile::splitLines(bytes, text.size(), decoded);
  if (!std::ranges::equal(decoded.lines, lines) || quiet.lines() != logged)
    fail("one buffer reads other lines");
  if (decoded.text) {
    const std::size_t tabs = decoded.lines.empty() ? 0 : std::ranges::count(decoded.lines[0], '\t');
    recordsInRowOrder(decoded, tabs + 1);
    recordsInRowOrder(decoded, 17);
  }
  readStream(std::string(text));
  // The block reader, where it reads at all, reads what the whole file does
  // (the log capture sends readLines the whole way).
  if (!fuzz::writeEnciphered(text) || text.empty()) return;
  std::FILE* file = std::fopen(fuzz::scratchPath().c_str(), "rb");
  if (file == nullptr) return;
  datafile::DecodedLines byBlocks, halves, whole;
  const bool read = datafile::readLinesByBlocks(::fileno(file), text.size(), byBlocks);
  // Also in two halves, as a large file is read.
  if (datafile::readLinesByBlocks(::fileno(file), text.size(), halves, 0) != read)
    fail("two halves answer otherwise than one");
  if (!datafile::readLines(file, whole)) fail("an enciphered file that does not read");
  std::fclose(file);
  if (read && (!std::ranges::equal(byBlocks.lines, whole.lines) ||
               !std::ranges::equal(halves.lines, whole.lines)))
    fail("blocks read other lines than the whole file");
  // A tag search visits only the lines the reader noted: every line that
  // starts with '#' must be among them.
  std::vector<std::size_t> hashLines;
  for (std::size_t i = 0; i < whole.lines.size(); ++i)
    if (whole.lines[i].starts_with('#')) hashLines.push_back(i);
  if (read && (byBlocks.hashLines != hashLines || halves.hashLines != hashLines))
    fail("blocks noted other lines starting with '#'");
  if (whole.hashLines && whole.hashLines != hashLines)
    fail("the whole file noted other lines starting with '#'");
}

void encipherAndRead(std::string_view text) {
  fuzz::quietLog();
  cli::TextProblem problem;
  const std::optional<std::string> bytes = cli::encipherText(text, &problem);
  if (!bytes) {
    if (problem.line == 0 || problem.column == 0 || problem.reason.empty())
      fail("a refusal without its place");
    if (problem.line > 1 + static_cast<std::size_t>(std::ranges::count(text, '\n')))
      fail("a refusal past the last line");
    return;
  }
  if (text.starts_with("\xEF\xBB\xBF")) text.remove_prefix(3);
  std::vector<std::string> expected = split(text, "\n");
  if (expected.back().empty()) expected.pop_back();
  for (std::string& line : expected)
    if (line.ends_with('\r')) line.pop_back();
  if (const auto read = readStream(*bytes); read && *read != expected)
    fail("the reader gives back other lines");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  splitAndDecrypt(fuzz::asText(data, size));
  encipherAndRead(fuzz::asText(data, size));
  return 0;
}
