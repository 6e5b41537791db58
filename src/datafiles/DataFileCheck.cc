// `quarvel check`: what the reader would make of a data file, line by line.
//
// The file is deciphered and scanned by the reader's own code (LineReader.h),
// which hands every line over with its number, those the reader drops too,
// so that findings carry the line numbers of the plain text.

#include "datafiles/DataFileCheck.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <ostream>
#include <set>

#include "common/StringUtil.h"
#include "datafiles/DataFileKind.h"
#include "datafiles/LookupIndex.h"
#include "format/DataFileFormat.h"
#include "format/LineReader.h"
#include "format/MacKorean.h"
#include "quarvel/CommonLib.h"
#include "quarvel/FileCheckList.h"
#include "quarvel/FileFilter.h"
#include "quarvel/Table.h"

namespace quarvel::datafile {

namespace df = quarvel::datafile;

namespace {

struct RawLine {
  std::size_t number = 0;           // 1-based
  std::string bytes;                // as stored, Mac Korean
  std::optional<std::string> text;  // decoded; absent when the reader drops it
};

// Findings are gathered and printed in line order once the file is read.
struct Findings {
  struct Item {
    std::size_t line;  // 0 for the file as a whole
    std::string text;
  };
  std::vector<Item> items;
  int errors = 0;
  int warnings = 0;
  void error(std::size_t line, const std::string& what) {
    ++errors;
    items.push_back({line, "line " + std::to_string(line) + ": error: " + what});
  }
  void warning(std::size_t line, const std::string& what) {
    ++warnings;
    items.push_back({line, "line " + std::to_string(line) + ": warning: " + what});
  }
  void fileError(const std::string& what) {
    ++errors;
    items.push_back({0, "error: " + what});
  }
  void note(const std::string& what) { items.push_back({0, what}); }
  void print(std::ostream& out) {
    std::stable_sort(items.begin(), items.end(),
                     [](const Item& a, const Item& b) { return a.line < b.line; });
    for (const Item& item : items) out << item.text << '\n';
  }
};

// The reader's own scan of the deciphered text, keeping every line with its
// number (those the reader drops too) and noting what it passes over.
class CheckingScan : public df::LineScan {
 public:
  CheckingScan(std::size_t size, Findings& findings) : size_(size), findings_(findings) {}
  std::vector<RawLine> lines;

  void line(std::size_t number, std::string_view bytes) override {
    RawLine line;
    line.number = number;
    line.bytes = std::string(bytes);
    if (bytes.size() > df::kMaxLineBytes) {
      findings_.error(number, std::to_string(bytes.size()) + " bytes, longer than the " +
                                  std::to_string(df::kMaxLineBytes) +
                                  " a line may hold; the reader drops this line");
    } else {
      line.text = MacKorean::decode(bytes);
      if (!line.text) findings_.error(number, "not Mac Korean text; the reader drops this line");
    }
    lines.push_back(std::move(line));
  }
  void loneCarriageReturn(std::size_t number) override {
    findings_.warning(number, "a CR without LF swallows the byte after it");
  }
  void zeroByte(std::size_t number, std::size_t offset) override {
    findings_.warning(number, "the text ends at a zero byte (offset " + std::to_string(offset) +
                                  "); " + std::to_string(size_ - offset) + " bytes ignored");
  }
  void unterminatedLine(std::size_t number) override {
    findings_.warning(number, "the last line has no line end and is ignored");
  }

 private:
  std::size_t size_;
  Findings& findings_;
};

// Quoted, with tabs shown as \t.
std::string inQuotes(std::string_view text) {
  std::string out = "\"";
  for (char c : text) {
    if (c == '\t')
      out += "\\t";
    else
      out += c;
  }
  return out + "\"";
}

// The look-up keys of a record: (name of the look-up, key, case-blind).
struct KeyRule {
  const char* name;
  std::vector<std::size_t> fields;
  bool caseBlind;
};

std::vector<KeyRule> keyRules(DataFileKind kind, const std::string& tag) {
  if (tag == df::kHeaderTag) return {};
  switch (kind) {
    case DataFileKind::CheckList:
      return {{"property", {1, 2, 3, 4}, true}, {"EXE_FILE", {5}, true}, {"DB_ID", {0}, false}};
    case DataFileKind::Font:
      return {{"EXE_FILE", {5}, true}, {"DB_ID", {0}, false}};
    case DataFileKind::Filter:
      return {{"filter key", {0, 1, 2, 3}, true}};
    case DataFileKind::Package:
      if (tag == df::kPackageTag) return {{"DB_ID", {0}, false}};
      return {};
  }
  return {};
}

void checkCharacters(const RawLine& line, const FieldList& fields, Findings& findings) {
  const std::string& text = *line.text;
  const std::string folded = CommonLib::encodingForSpecialCharacter(text);
  const std::vector<std::string> values = split(text, df::kSeparator);
  if (folded != text) {
    for (std::size_t f = 0; f < values.size(); ++f) {
      const std::string foldedValue = CommonLib::encodingForSpecialCharacter(values[f]);
      if (foldedValue != values[f]) {
        findings.warning(line.number, (f < fields.size() ? fields[f] : "value") +
                                          ": folding on save turns " + inQuotes(values[f]) +
                                          " into " + inQuotes(foldedValue));
      }
    }
  }
  MacKorean::EncodeError error;
  if (!MacKorean::encode(folded, &error)) {
    // Name the field holding the offending character.
    std::size_t field = 0;
    for (std::size_t i = 0; i < error.offset && i < folded.size(); ++i) field += folded[i] == '\t';
    char code[16];
    std::snprintf(code, sizeof code, "U+%04X", static_cast<unsigned>(error.character));
    findings.error(line.number, (field < fields.size() ? fields[field] : std::string("value")) +
                                    ": " + code + " has no Mac Korean form; saving is refused");
  }
}

}  // namespace

int checkDataFile(const std::string& path, std::optional<DataFileKind> kind, std::ostream& out,
                  std::ostream& err, const std::string& label) {
  const std::string& name = label.empty() ? path : label;
  // Refused as the reader and `decrypt` refuse it, before anything is read.
  if (const df::ReadRefusal refusal = df::readRefusal(path); refusal != df::ReadRefusal::kNone) {
    if (refusal == df::ReadRefusal::kEmpty) {
      out << name << ": error: the file is empty\n";
    } else {
      err << name << ": " << df::describe(refusal) << '\n';
    }
    return 1;
  }
  std::ifstream in(path, std::ios::binary);
  std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (!in && !in.eof()) {
    err << name << ": cannot be read\n";
    return 1;
  }
  Findings findings;
  if (bytes.empty()) {
    out << name << ": error: the file is empty\n";
    return 1;
  }
  auto* text = reinterpret_cast<unsigned char*>(bytes.data());
  df::decipher(text, static_cast<std::uint32_t>(bytes.size()));
  CheckingScan scan(bytes.size(), findings);
  df::scanLines(text, bytes.size(), scan);
  std::vector<RawLine>& lines = scan.lines;
  std::vector<std::string> decoded;
  decoded.reserve(lines.size());
  for (const RawLine& line : lines) decoded.push_back(line.text.value_or(""));
  if (!kind) kind = detectDataFileKind(decoded, path);
  out << name << ": checked as a " << dataFileKindName(*kind) << " file\n";

  // Locate the sections as the reader does: the last of repeated tag lines wins.
  const std::vector<std::string> tags = sectionTags(*kind);
  std::unique_ptr<FileFramework> file = makeDataFile(*kind);
  std::map<std::string, std::pair<long, long>> bounds;  // tag -> (start, end) line index
  for (const std::string& tag : tags) bounds[tag] = {-1, -1};
  for (std::size_t i = 0; i < lines.size(); ++i) {
    if (!lines[i].text) continue;
    for (const std::string& tag : tags) {
      const bool start = *lines[i].text == tag + std::string(df::kStartSuffix);
      const bool end = *lines[i].text == tag + std::string(df::kEndSuffix);
      if (!start && !end) continue;
      long& slot = start ? bounds[tag].first : bounds[tag].second;
      if (slot >= 0)
        findings.warning(lines[i].number, "repeats " + *lines[i].text + " of line " +
                                              std::to_string(lines[slot].number) +
                                              "; this one counts");
      slot = static_cast<long>(i);
    }
  }
  bool damaged = false;
  for (const std::string& tag : tags) {
    const auto [start, end] = bounds[tag];
    if (start < 0) {
      findings.fileError("section " + tag + " has no start line");
      damaged = true;
    } else if (end < 0) {
      findings.fileError("section " + tag + " has no end line");
      damaged = true;
    } else if (end <= start) {
      findings.fileError("section " + tag + " ends (line " + std::to_string(lines[end].number) +
                         ") before it starts (line " + std::to_string(lines[start].number) + ")");
      damaged = true;
    }
  }
  if (damaged) findings.note("the reader refuses this file as damaged");

  std::vector<bool> inside(lines.size(), false);
  for (const std::string& tag : tags) {
    const auto [start, end] = bounds[tag];
    if (start >= 0 && end > start)
      for (long i = start; i <= end; ++i) inside[i] = true;
  }
  for (std::size_t i = 0; i < lines.size(); ++i) {
    if (!inside[i] && lines[i].text && !damaged)
      findings.warning(lines[i].number, "outside every section; ignored");
  }

  for (const std::string& tag : tags) {
    const auto [start, end] = bounds[tag];
    if (start < 0 || end <= start) continue;
    Table* table = file->getTableByTag(tag);
    const FieldList fields = *table->getFields();
    const bool header = tag == df::kHeaderTag;
    if (header && end - start > 2)
      findings.warning(lines[start].number, "the header holds " + std::to_string(end - start - 1) +
                                                " lines; only the last one is the version");
    const std::vector<KeyRule> rules = keyRules(*kind, tag);
    std::vector<std::map<std::string, std::size_t>> seen(rules.size());
    for (long i = start + 1; i < end; ++i) {
      const RawLine& line = lines[i];
      if (!line.text) continue;
      const std::vector<std::string> values = split(*line.text, df::kSeparator);
      if (header) {
        if (values.size() > 1)
          findings.warning(line.number, "the version line has " + std::to_string(values.size()) +
                                            " values; only the first is kept");
      } else if (values.size() != fields.size()) {
        findings.error(line.number, tag + " record with " + std::to_string(values.size()) +
                                        " fields, " + std::to_string(fields.size()) +
                                        " expected; the reader refuses it");
        continue;
      }
      checkCharacters(line, fields, findings);
      for (std::size_t r = 0; r < rules.size(); ++r) {
        std::vector<std::string> parts;
        for (std::size_t f : rules[r].fields) parts.push_back(values[f]);
        const std::string joined = join(parts, "\t");
        const std::string key = rules[r].caseBlind ? lowerKey(joined) : joined;
        auto [it, fresh] = seen[r].emplace(key, line.number);
        if (!fresh) {
          findings.warning(line.number, std::string(rules[r].name) + " " + inQuotes(joined) +
                                            " repeats line " + std::to_string(it->second) +
                                            "; look-ups answer this record, line " +
                                            std::to_string(it->second) + " is unreachable");
          it->second = line.number;
        }
      }
    }
  }
  findings.print(out);
  out << name << ": " << findings.errors << (findings.errors == 1 ? " error, " : " errors, ")
      << findings.warnings << (findings.warnings == 1 ? " warning\n" : " warnings\n");
  return findings.errors > 0 || damaged ? 1 : 0;
}

}  // namespace quarvel::datafile
