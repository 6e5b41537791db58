// `quarvel encrypt --kind KIND FOLDER` on arbitrary rows: the first byte
// picks the kind; the rest, split at the byte 0x1E, gives the data rows of
// each section in file order, each written as SECTION.tsv under its row of
// field names. A data file it builds must read back with as many records in
// every section as it was given rows.

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "FuzzSupport.h"
#include "common/StringUtil.h"
#include "datafiles/TsvImport.h"
#include "format/DataFileFormat.h"

namespace {

namespace fs = std::filesystem;
using namespace quarvel;
using namespace quarvel::datafile;

using quarvel::fuzz::fail;

// The data rows of one section's text, as the import counts them.
std::size_t rowCount(const std::string& rows) {
  std::vector<std::string> lines = split(rows, "\n");
  if (!lines.empty() && lines.back().empty()) lines.pop_back();
  return lines.size();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::quietLog();
  if (size == 0) return 0;
  const auto kind = static_cast<DataFileKind>(data[0] % 4);
  const std::vector<std::string> tags = sectionTags(kind);
  std::string_view rest(reinterpret_cast<const char*>(data) + 1, size - 1);

  const fs::path in = fuzz::scratchFolder() / "in";
  fs::remove_all(in);
  fs::create_directory(in);
  std::unique_ptr<FileFramework> blank = makeDataFile(kind);
  std::vector<std::size_t> given(tags.size(), 0);
  for (std::size_t s = 0; s < tags.size() && rest.data() != nullptr; ++s) {
    const std::size_t end = rest.find('\x1E');
    const std::string rows(rest.substr(0, end));
    rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
    given[s] = rowCount(rows);
    std::ofstream(in / (tags[s].substr(1) + ".tsv"), std::ios::binary)
        << join(*blank->getTableByTag(tags[s])->getFields(), "\t") << '\n'
        << rows;
  }

  const std::string output = (fuzz::scratchFolder() / "built.dat").string();
  std::ostringstream err;
  if (buildDataFileFromTsv(kind, {in.string()}, output, err) != 0) return 0;
  std::unique_ptr<FileFramework> file = makeDataFile(kind);
  if (!file->openWithFileName(output, true)) fail("a built file does not open");
  // The header keeps one version, however many rows it was given.
  for (std::size_t s = 1; s < tags.size(); ++s)
    if (file->getTableByTag(tags[s])->getDataCount() != given[s])
      fail("a built file reads back with other records");
  return 0;
}
