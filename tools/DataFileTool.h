#pragma once
// The work behind the data-file subcommands of the `quarvel` tool: show and
// lookup here; check and building a data file from plain TSV (encrypt
// --kind) are the library's.
// Each function writes its answer to `out`, its complaints to `err`, and
// answers the tool's exit status.

#include <iosfwd>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "datafiles/DataFileCheck.h"
#include "datafiles/DataFileKind.h"
#include "datafiles/TsvImport.h"
#include "quarvel/FileFramework.h"

namespace quarvel::cli {

using datafile::buildDataFileFromTsv;
using datafile::checkDataFile;
using datafile::DataFileKind;
using datafile::dataFileKindName;
using datafile::detectDataFileKind;
using datafile::makeDataFile;
using datafile::parseDataFileKind;
using datafile::sectionTags;

enum class OutputFormat { Table, Json, Tsv };

// Opens `path` with the class of `kind` (detected when absent) and prints
// its version and records. 0, or 1 when the file does not open.
// `label` names the file in messages (default: `path`; "-" for standard input).
int showDataFile(const std::string& path, std::optional<DataFileKind> kind, OutputFormat format,
                 std::ostream& out, std::ostream& err, const std::string& label = {});

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
                   const LookupQuery& query, bool json, std::ostream& out, std::ostream& err,
                   const std::string& label = {});

// Terminal width of UTF-8 text: East Asian wide characters count 2.
std::size_t displayWidth(std::string_view text);

}  // namespace quarvel::cli
