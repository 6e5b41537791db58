#include "datafiles/TsvImport.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <ostream>

#include "common/StringUtil.h"
#include "format/DataFileFormat.h"
#include "quarvel/Table.h"

namespace quarvel::datafile {

namespace {

std::optional<std::string> readText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace

int buildDataFileFromTsv(DataFileKind kind, const std::vector<std::string>& inputs,
                         const std::string& output, std::ostream& err) {
  namespace fs = std::filesystem;
  std::vector<fs::path> files;
  for (const std::string& input : inputs) {
    std::error_code ec;
    if (fs::is_directory(input, ec)) {
      std::vector<fs::path> found;
      for (const auto& entry : fs::directory_iterator(input, ec))
        if (entry.path().extension() == ".tsv") found.push_back(entry.path());
      std::sort(found.begin(), found.end());
      files.insert(files.end(), found.begin(), found.end());
    } else {
      files.emplace_back(input);
    }
  }
  std::unique_ptr<FileFramework> file = makeDataFile(kind);
  const std::vector<std::string> tags = sectionTags(kind);
  for (const fs::path& path : files) {
    std::string stem = path.stem().string();
    std::transform(stem.begin(), stem.end(), stem.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    const std::string tag = "#" + stem;
    if (std::find(tags.begin(), tags.end(), tag) == tags.end()) {
      err << path.string() << ": a " << dataFileKindName(kind) << " file has no section " << tag
          << " (sections: " << join(tags, ", ") << ")\n";
      return 1;
    }
    const std::optional<std::string> text = readText(path.string());
    if (!text) {
      err << path.string() << ": cannot be read\n";
      return 1;
    }
    if (!isValidUtf8(*text)) {
      err << path.string() << ": not UTF-8 text\n";
      return 1;
    }
    Table* table = file->getTableByTag(tag);
    const std::string fieldLine = join(*table->getFields(), "\t");
    std::vector<std::string> lines = split(*text, "\n");
    if (!lines.empty() && lines.back().empty()) lines.pop_back();
    for (std::size_t i = 0; i < lines.size(); ++i) {
      std::string& line = lines[i];
      if (!line.empty() && line.back() == '\r') line.pop_back();
      if (i == 0) {
        if (line != fieldLine) {
          err << path.string() << ":1: the first row must name the fields: " << fieldLine << '\n';
          return 1;
        }
        continue;
      }
      // A zero byte would end the stored text there and lose every record
      // after it without a word; the library accepts it as the end of the
      // text, but an import refuses the row.
      if (line.find('\0') != std::string::npos) {
        err << path.string() << ':' << i + 1 << ": a zero byte\n";
        return 1;
      }
      // A row the library's save would refuse, named here by its row. Rows
      // are split at LF, so a line break left in one is a CR.
      std::size_t bytes = 0;
      switch (recordLineFault(line, &bytes)) {
        case LineFault::kNone:
          break;
        case LineFault::kLineBreak:
          err << path.string() << ':' << i + 1 << ": a CR that does not end the row\n";
          return 1;
        case LineFault::kTooLong:
          err << path.string() << ':' << i + 1 << ": the row takes " << bytes
              << " bytes, more than the " << kMaxLineBytes << " a data-file line holds\n";
          return 1;
      }
      if (table->insertRecord(line, kSeparator) == -1) {
        err << path.string() << ':' << i + 1 << ": " << split(line, "\t").size() << " fields, "
            << tag << " has " << table->getFields()->size() << '\n';
        return 1;
      }
    }
  }
  if (!file->saveAsFileName(output, true)) {
    err << output << ": not written (a character Mac Korean cannot hold is logged above, "
        << "or the folder is missing or not writable)\n";
    return 1;
  }
  return 0;
}

}  // namespace quarvel::datafile
