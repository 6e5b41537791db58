#pragma once
// The four kinds of data file by name, their sections and classes, and the
// kind a file's text calls for: what the tool and the list maintainers'
// checks share.

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "quarvel/FileFramework.h"

namespace quarvel::datafile {

enum class DataFileKind { CheckList, Package, Filter, Font };

// "checklist", "package", "filter", "font".
std::optional<DataFileKind> parseDataFileKind(std::string_view name);
std::string_view dataFileKindName(DataFileKind kind);
// The section tags of a kind, in file order ("#HEADER" first).
std::vector<std::string> sectionTags(DataFileKind kind);
// A new, empty object of the kind's class.
std::unique_ptr<FileFramework> makeDataFile(DataFileKind kind);

// The kind a file's sections call for: "#PACKAGE"/"#SUB" a package file,
// "#SWLIST" a filter file, "#CHECKLIST" a check list or, when its first
// record has 14 fields, a font check list. Falls back on the file's name.
DataFileKind detectDataFileKind(const std::vector<std::string>& lines, std::string_view path);

}  // namespace quarvel::datafile
