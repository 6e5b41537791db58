#include "DataFileTool.h"

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <ostream>

#include "common/StringUtil.h"
#include "format/DataFileFormat.h"
#include "format/LineReader.h"
#include "quarvel/CommonLib.h"
#include "quarvel/FileCheckList.h"
#include "quarvel/FileFilter.h"
#include "quarvel/FileFontList.h"
#include "quarvel/FilePackage.h"

namespace quarvel::cli {

namespace df = quarvel::datafile;

std::size_t displayWidth(std::string_view text) {
  std::size_t width = 0;
  for (std::size_t i = 0; i < text.size();) {
    const auto lead = static_cast<unsigned char>(text[i]);
    char32_t c = lead;
    std::size_t length = 1;
    if (lead >= 0xF0 && i + 3 < text.size()) {
      length = 4;
      c = ((lead & 0x07u) << 18) | ((text[i + 1] & 0x3Fu) << 12) | ((text[i + 2] & 0x3Fu) << 6) |
          (text[i + 3] & 0x3Fu);
    } else if (lead >= 0xE0 && i + 2 < text.size()) {
      length = 3;
      c = ((lead & 0x0Fu) << 12) | ((text[i + 1] & 0x3Fu) << 6) | (text[i + 2] & 0x3Fu);
    } else if (lead >= 0xC0 && i + 1 < text.size()) {
      length = 2;
      c = ((lead & 0x1Fu) << 6) | (text[i + 1] & 0x3Fu);
    }
    i += length;
    const bool wide = (c >= 0x1100 && c <= 0x115F) || (c >= 0x2E80 && c <= 0xA4CF) ||
                      (c >= 0xAC00 && c <= 0xD7A3) || (c >= 0xF900 && c <= 0xFAFF) ||
                      (c >= 0xFE30 && c <= 0xFE4F) || (c >= 0xFF00 && c <= 0xFF60) ||
                      (c >= 0xFFE0 && c <= 0xFFE6) || (c >= 0x1F300 && c <= 0x1FAFF) ||
                      (c >= 0x20000 && c <= 0x3FFFD);
    width += wide ? 2 : 1;
  }
  return width;
}

namespace {

std::vector<RecordPtr> recordsOf(Table* table) {
  std::vector<RecordPtr> records;
  const std::uint64_t count = table->getDataCount();
  for (std::uint64_t i = 0; i < count; ++i) {
    RecordPtr record = table->select(static_cast<int>(i));
    records.push_back(record ? record : std::make_shared<Record>());
  }
  return records;
}

std::string versionOf(FileFramework& file) {
  Table* header = file.getTableByTag(df::kHeaderTag);
  return header->getDataCount() == 0 ? std::string() : header->select(0, df::kFieldVersion);
}

// Opens a file with its kind's class; null with a message when it fails.
std::unique_ptr<FileFramework> openForTool(const std::string& path,
                                           std::optional<DataFileKind>& kind, std::ostream& err,
                                           const std::string& label) {
  const std::string& name = label.empty() ? path : label;
  if (const datafile::ReadRefusal refusal = datafile::readRefusal(path);
      refusal != datafile::ReadRefusal::kNone) {
    err << name << ": " << datafile::describe(refusal) << '\n';
    return nullptr;
  }
  if (!kind) {
    std::vector<std::string> lines;
    if (!CommonLib::Decrypt(lines, path)) {
      err << name << ": cannot be read as a data file\n";
      return nullptr;
    }
    kind = detectDataFileKind(lines, path);
  }
  std::unique_ptr<FileFramework> file = makeDataFile(*kind);
  if (!file->openWithFileName(path, true)) {
    err << name << ": does not open as a " << dataFileKindName(*kind)
        << " file (missing, unreadable or damaged; `quarvel check` tells more)\n";
    return nullptr;
  }
  return file;
}

void printAligned(const FieldList& fields, const std::vector<RecordPtr>& records,
                  std::ostream& out) {
  std::vector<std::size_t> widths(fields.size());
  for (std::size_t f = 0; f < fields.size(); ++f) widths[f] = displayWidth(fields[f]);
  for (const RecordPtr& record : records)
    for (std::size_t f = 0; f < fields.size() && f < record->size(); ++f)
      widths[f] = std::max(widths[f], displayWidth((*record)[f]));
  auto row = [&](const std::vector<std::string>& values) {
    std::string line;
    for (std::size_t f = 0; f < values.size(); ++f) {
      line += values[f];
      if (f + 1 < values.size() && f < widths.size())
        line.append(widths[f] - std::min(widths[f], displayWidth(values[f])) + 2, ' ');
    }
    out << line << '\n';
  };
  row(fields);
  for (const RecordPtr& record : records) row(record->values());
}

nlohmann::ordered_json recordJson(const FieldList& fields, const Record& record) {
  nlohmann::ordered_json object = nlohmann::ordered_json::object();
  for (std::size_t f = 0; f < fields.size(); ++f)
    object[fields[f]] = f < record.size() ? std::string(record[f]) : std::string();
  return object;
}

void printRecord(const FieldList& fields, const Record& record, std::ostream& out) {
  std::size_t width = 0;
  for (const std::string& field : fields) width = std::max(width, field.size());
  for (std::size_t f = 0; f < fields.size(); ++f) {
    out << fields[f] << std::string(width - fields[f].size() + 2, ' ')
        << (f < record.size() ? record[f] : std::string_view()) << '\n';
  }
}

std::string unescapeTabs(std::string text) {
  for (std::size_t at = text.find("\\t"); at != std::string::npos; at = text.find("\\t", at + 1))
    text.replace(at, 2, "\t");
  return text;
}

}  // namespace

int showDataFile(const std::string& path, std::optional<DataFileKind> kind, OutputFormat format,
                 std::ostream& out, std::ostream& err, const std::string& label) {
  const std::string& name = label.empty() ? path : label;
  std::unique_ptr<FileFramework> file = openForTool(path, kind, err, name);
  if (!file) return 1;
  const std::vector<std::string> tags = sectionTags(*kind);
  if (format == OutputFormat::Json) {
    nlohmann::ordered_json doc;
    doc["file"] = path;
    doc["kind"] = dataFileKindName(*kind);
    doc["version"] = versionOf(*file);
    nlohmann::ordered_json sections = nlohmann::ordered_json::object();
    for (std::size_t s = 1; s < tags.size(); ++s) {
      Table* table = file->getTableByTag(tags[s]);
      nlohmann::ordered_json records = nlohmann::ordered_json::array();
      for (const RecordPtr& record : recordsOf(table))
        records.push_back(recordJson(*table->getFields(), *record));
      sections[tags[s]] = std::move(records);
    }
    doc["sections"] = std::move(sections);
    out << doc.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) << '\n';
    return 0;
  }
  if (format == OutputFormat::Tsv) {
    // The layout encrypt --kind reads back: per section, its tag, the field
    // names and the records.
    for (const std::string& tag : tags) {
      Table* table = file->getTableByTag(tag);
      out << tag << '\n' << join(*table->getFields(), "\t") << '\n';
      for (const RecordPtr& record : recordsOf(table)) out << record->tabbedText() << '\n';
      out << '\n';
    }
    return 0;
  }
  out << name << ": " << dataFileKindName(*kind) << " file, version " << versionOf(*file) << '\n';
  for (std::size_t s = 1; s < tags.size(); ++s) {
    Table* table = file->getTableByTag(tags[s]);
    const std::vector<RecordPtr> records = recordsOf(table);
    out << '\n'
        << tags[s] << " (" << records.size()
        << (records.size() == 1 ? " record)\n" : " records)\n");
    printAligned(*table->getFields(), records, out);
  }
  return 0;
}

int lookupDataFile(const std::string& path, std::optional<DataFileKind> kind,
                   const LookupQuery& query, bool json, std::ostream& out, std::ostream& err,
                   const std::string& label) {
  std::unique_ptr<FileFramework> file = openForTool(path, kind, err, label);
  if (!file) return 2;
  std::string tag;
  int index = -1;
  std::optional<std::string> displayName;
  auto unsupported = [&](const char* option) {
    err << option << " does not apply to a " << dataFileKindName(*kind) << " file\n";
    return 2;
  };
  switch (*kind) {
    case DataFileKind::CheckList: {
      auto& list = static_cast<FileCheckList&>(*file);
      tag = df::kCheckListTag;
      if (query.exe)
        index = list.getIdByFileName(*query.exe);
      else if (query.property)
        index = list.getIdByProperty(unescapeTabs(*query.property));
      else if (query.id)
        index = list.getIndex(*query.id);
      else
        return unsupported(query.filter ? "--filter" : "--package");
      break;
    }
    case DataFileKind::Font: {
      auto& fonts = static_cast<FileFontList&>(*file);
      tag = df::kCheckListTag;
      if (query.exe)
        index = fonts.getIdByFileName(*query.exe);
      else if (query.id)
        index = fonts.getIndex(*query.id);
      else
        return unsupported(query.property ? "--property" : query.filter ? "--filter" : "--package");
      break;
    }
    case DataFileKind::Filter: {
      auto& filter = static_cast<FileFilter&>(*file);
      tag = df::kSwListTag;
      if (query.filter)
        index = filter.getIdByFilter(unescapeTabs(*query.filter));
      else if (query.property)
        index = filter.getIdByFilter(unescapeTabs(*query.property));
      else
        return unsupported(query.exe ? "--exe" : "--id");
      break;
    }
    case DataFileKind::Package: {
      auto& package = static_cast<FilePackage&>(*file);
      tag = df::kPackageTag;
      const std::optional<std::string>& id = query.package ? query.package : query.id;
      if (!id) return unsupported(query.exe ? "--exe" : query.filter ? "--filter" : "--property");
      index = package.getPackageIndex(*id);
      if (index >= 0 && query.sub) {
        displayName = package.getProductNameByPackageIndex(index, *query.sub);
      }
      break;
    }
  }
  if (index < 0) {
    // JSON readers get a document either way: null for no record.
    if (json) out << "null\n";
    err << "not found\n";
    return 1;
  }
  Table* table = file->getTableByTag(tag);
  RecordPtr record = table->select(index);
  const Record empty;
  if (json) {
    nlohmann::ordered_json doc;
    doc["section"] = tag;
    doc["index"] = index;
    doc["record"] = recordJson(*table->getFields(), record ? *record : empty);
    if (displayName) {
      Table* sub = file->getTableByTag(df::kSubTag);
      doc["displayName"] = *displayName;
      if (*query.sub >= 0 && static_cast<std::uint64_t>(*query.sub) < sub->getDataCount())
        doc["sub"] = recordJson(*sub->getFields(), *sub->select(*query.sub));
    }
    out << doc.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) << '\n';
    return 0;
  }
  out << tag << " record " << index << '\n';
  printRecord(*table->getFields(), record ? *record : empty, out);
  if (displayName) {
    Table* sub = file->getTableByTag(df::kSubTag);
    if (*query.sub >= 0 && static_cast<std::uint64_t>(*query.sub) < sub->getDataCount()) {
      out << '\n' << df::kSubTag << " record " << *query.sub << '\n';
      printRecord(*sub->getFields(), *sub->select(*query.sub), out);
    }
    out << "\ndisplay name: " << *displayName << '\n';
  }
  return 0;
}

}  // namespace quarvel::cli
