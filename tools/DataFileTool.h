#pragma once
// The work behind the data-file subcommands of the `quarvel` tool: show,
// lookup, check, and building a data file from plain TSV (encrypt --kind).
// Each function writes its answer to `out`, its complaints to `err`, and
// answers the tool's exit status.

#include <iosfwd>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "quarvel/FileFramework.h"

namespace quarvel::cli {

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

enum class OutputFormat { Table, Json, Tsv };

// Opens `path` with the class of `kind` (detected when absent) and prints
// its version and records. 0, or 1 when the file does not open.
int showDataFile(const std::string& path, std::optional<DataFileKind> kind, OutputFormat format,
                 std::ostream& out, std::ostream& err);

struct LookupQuery {
  std::optional<std::string> exe = {};       // check list, font list
  std::optional<std::string> property = {};  // check list
  std::optional<std::string> id = {};        // check list, font list, package
  std::optional<std::string> filter = {};    // filter
  std::optional<std::string> package = {};   // package
  std::optional<int> sub = {};               // package: a "#SUB" record index
};
// Answers the look-up with the record found. A literal "\t" in a property
// or filter key stands for a tab. 0 when found, 1 when not, 2 when the
// query does not fit the kind or the file does not open.
int lookupDataFile(const std::string& path, std::optional<DataFileKind> kind,
                   const LookupQuery& query, bool json, std::ostream& out, std::ostream& err);

// Validates a data file for the people who maintain the lists: lines the
// reader drops or refuses (with line numbers and field counts), damaged
// sections, text outside them, keys that repeat (the last record wins, the
// earlier ones are unreachable), characters that folding changes and
// characters Mac Korean cannot hold. 0 when nothing would be refused or
// lost, 1 otherwise.
int checkDataFile(const std::string& path, std::optional<DataFileKind> kind, std::ostream& out,
                  std::ostream& err);

// Builds a data file of `kind` from plain TSV files, one per section, named
// after the section ("HEADER.tsv", "CHECKLIST.tsv", "SUB.tsv"...); an input
// that is a folder stands for the .tsv files in it. Each file starts with
// the row of field names. Sections without a file are written empty.
// 0 when written, 1 otherwise (the reason in `err`).
int buildDataFileFromTsv(DataFileKind kind, const std::vector<std::string>& inputs,
                         const std::string& output, std::ostream& err);

// Terminal width of UTF-8 text: East Asian wide characters count 2.
std::size_t displayWidth(std::string_view text);

}  // namespace quarvel::cli
