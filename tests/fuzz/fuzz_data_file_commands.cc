// `quarvel check`, `quarvel show` and `quarvel encrypt --kind KIND FOLDER`
// on one input: the first byte picks the kind and the output format.
//
// The rest is the plain text of a data file, enciphered into the scratch
// file. The check splits and decodes the file on its own, so it is held to
// the library: a file it passes must open with the kind's class, show, save
// without refusal, and read back with as many records in every section.
//
// The rest, split at the byte 0x1E, is also the data rows of each section in
// file order, each written as SECTION.tsv under its row of field names. A
// data file the import builds must read back with as many records in every
// section as it was given rows.

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "DataFileTool.h"
#include "FuzzSupport.h"
#include "common/StringUtil.h"
#include "datafiles/TsvImport.h"
#include "format/DataFileFormat.h"

namespace {

namespace fs = std::filesystem;
using namespace quarvel;
using namespace quarvel::cli;
using namespace quarvel::datafile;
using fuzz::fail;

void checkAndShow(DataFileKind kind, OutputFormat format, std::string_view text) {
  if (!fuzz::writeEnciphered(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()))
    return;
  std::ostringstream out, err;
  const int checked = checkDataFile(fuzz::scratchPath(), kind, out, err);
  const int shown = showDataFile(fuzz::scratchPath(), kind, format, out, err);
  if (checked != 0) return;
  if (shown != 0) fail("a file the check passes does not show");
  std::unique_ptr<FileFramework> file = makeDataFile(kind);
  if (!file->openWithFileName(fuzz::scratchPath(), true))
    fail("a file the check passes does not open");
  const std::string saved = (fuzz::scratchFolder() / "saved.dat").string();
  if (!file->saveAsFileName(saved, true)) fail("a file the check passes is refused on save");
  std::unique_ptr<FileFramework> again = makeDataFile(kind);
  if (!again->openWithFileName(saved, true)) fail("a saved file does not open");
  for (const std::string& tag : sectionTags(kind))
    if (again->getTableByTag(tag)->getDataCount() != file->getTableByTag(tag)->getDataCount())
      fail("a saved file holds other records");
}

void importRows(DataFileKind kind, std::string_view rest) {
  const std::vector<std::string> tags = sectionTags(kind);
  const fs::path in = fuzz::scratchFolder() / "in";
  fs::remove_all(in);
  fs::create_directory(in);
  std::unique_ptr<FileFramework> blank = makeDataFile(kind);
  std::vector<std::size_t> given(tags.size(), 0);
  for (std::size_t s = 0; s < tags.size() && rest.data() != nullptr; ++s) {
    const std::size_t end = rest.find('\x1E');
    const std::string rows(rest.substr(0, end));
    rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
    // The data rows as the import counts them: a last empty line is none.
    std::vector<std::string> lines = split(rows, "\n");
    given[s] = lines.size() - (!lines.empty() && lines.back().empty());
    std::ofstream(in / (tags[s].substr(1) + ".tsv"), std::ios::binary)
        << join(*blank->getTableByTag(tags[s])->getFields(), "\t") << '\n'
        << rows;
  }
  const std::string output = (fuzz::scratchFolder() / "built.dat").string();
  std::ostringstream err;
  if (buildDataFileFromTsv(kind, {in.string()}, output, err) != 0) return;
  std::unique_ptr<FileFramework> file = makeDataFile(kind);
  if (!file->openWithFileName(output, true)) fail("a built file does not open");
  // The header keeps one version, however many rows it was given.
  for (std::size_t s = 1; s < tags.size(); ++s)
    if (file->getTableByTag(tags[s])->getDataCount() != given[s])
      fail("a built file reads back with other records");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::quietLog();
  if (size == 0) return 0;
  const auto kind = static_cast<DataFileKind>(data[0] % 4);
  const std::string_view rest(reinterpret_cast<const char*>(data) + 1, size - 1);
  checkAndShow(kind, static_cast<OutputFormat>((data[0] >> 2) % 3), rest);
  importRows(kind, rest);
  return 0;
}
