#include "datafiles/DataFileKind.h"

#include "common/StringUtil.h"
#include "format/DataFileFormat.h"
#include "quarvel/FileCheckList.h"
#include "quarvel/FileFilter.h"
#include "quarvel/FileFontList.h"
#include "quarvel/FilePackage.h"

namespace quarvel::datafile {

std::optional<DataFileKind> parseDataFileKind(std::string_view name) {
  if (name == "checklist") return DataFileKind::CheckList;
  if (name == "package") return DataFileKind::Package;
  if (name == "filter") return DataFileKind::Filter;
  if (name == "font") return DataFileKind::Font;
  return std::nullopt;
}

std::string_view dataFileKindName(DataFileKind kind) {
  switch (kind) {
    case DataFileKind::CheckList:
      return "checklist";
    case DataFileKind::Package:
      return "package";
    case DataFileKind::Filter:
      return "filter";
    case DataFileKind::Font:
      return "font";
  }
  return "checklist";
}

std::vector<std::string> sectionTags(DataFileKind kind) {
  switch (kind) {
    case DataFileKind::CheckList:
    case DataFileKind::Font:
      return {std::string(kHeaderTag), std::string(kCheckListTag)};
    case DataFileKind::Package:
      return {std::string(kHeaderTag), std::string(kPackageTag), std::string(kSubTag)};
    case DataFileKind::Filter:
      return {std::string(kHeaderTag), std::string(kSwListTag)};
  }
  return {};
}

std::unique_ptr<FileFramework> makeDataFile(DataFileKind kind) {
  switch (kind) {
    case DataFileKind::CheckList:
      return std::make_unique<FileCheckList>();
    case DataFileKind::Package:
      return std::make_unique<FilePackage>();
    case DataFileKind::Filter:
      return std::make_unique<FileFilter>();
    case DataFileKind::Font:
      return std::make_unique<FileFontList>();
  }
  return nullptr;
}

DataFileKind detectDataFileKind(const std::vector<std::string>& lines, std::string_view path) {
  bool checkList = false;
  std::optional<std::size_t> firstRecordFields;
  for (std::size_t i = 0; i < lines.size(); ++i) {
    const std::string& line = lines[i];
    auto starts = [&](std::string_view tag) {
      return line.size() == tag.size() + kStartSuffix.size() && line.starts_with(tag) &&
             line.ends_with(kStartSuffix);
    };
    if (starts(kPackageTag) || starts(kSubTag)) return DataFileKind::Package;
    if (starts(kSwListTag)) return DataFileKind::Filter;
    if (starts(kCheckListTag)) {
      checkList = true;
      if (i + 1 < lines.size() && !lines[i + 1].starts_with("#"))
        firstRecordFields = split(lines[i + 1], kSeparator).size();
    }
  }
  const std::string name = lowercase(lastPathComponent(path));
  if (checkList && firstRecordFields) {
    return *firstRecordFields == kFontListFieldCount ? DataFileKind::Font : DataFileKind::CheckList;
  }
  if (name.find("font") != std::string::npos) return DataFileKind::Font;
  if (checkList) return DataFileKind::CheckList;
  if (name.find("pck") != std::string::npos || name.find("package") != std::string::npos)
    return DataFileKind::Package;
  if (name.find("filter") != std::string::npos) return DataFileKind::Filter;
  return DataFileKind::CheckList;
}

}  // namespace quarvel::datafile
