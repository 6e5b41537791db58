// `quarvel check`, `show` and `encrypt --kind KIND FOLDER` on one input, its
// first byte picking kind and output format. The rest as a data file's text:
// a file the check passes opens with the kind's class, shows, saves and reads
// back with as many records. Split at 0x1E, as each section's TSV rows: a
// file the import builds reads back with as many records as rows given.

#include <sstream>

#include "DataFileTool.h"
#include "FuzzSupport.h"
#include "common/StringUtil.h"
#include "datafiles/TsvImport.h"
#include "format/DataFileFormat.h"

namespace {

using namespace quarvel;
using namespace quarvel::cli;
using namespace quarvel::datafile;
using fuzz::fail;

void checkAndShow(DataFileKind kind, OutputFormat format, std::string_view text) {
  if (!fuzz::writeEnciphered(text)) return;
  std::ostringstream out, err;
  const int checked = checkDataFile(fuzz::scratchPath(), kind, out, err);
  const int shown = showDataFile(fuzz::scratchPath(), kind, format, out, err);
  if (checked != 0) return;
  if (shown != 0) fail("a file the check passes does not show");
  std::unique_ptr<FileFramework> file = makeDataFile(kind), again = makeDataFile(kind);
  if (!file->openWithFileName(fuzz::scratchPath(), true))
    fail("a file the check passes does not open");
  const std::string saved = (fuzz::scratchFolder() / "saved.dat").string();
  if (!file->saveAsFileName(saved, true)) fail("a file the check passes is refused on save");
  if (!again->openWithFileName(saved, true)) fail("a saved file does not open");
  for (const std::string& tag : sectionTags(kind))
    if (again->getTableByTag(tag)->getDataCount() != file->getTableByTag(tag)->getDataCount())
      fail("a saved file holds other records");
}

void importRows(DataFileKind kind, std::string_view rest) {
  const std::vector<std::string> tags = sectionTags(kind);
  const fuzz::fs::path in = fuzz::scratchFolder() / "in";
  fuzz::fs::remove_all(in);
  fuzz::fs::create_directory(in);
  std::unique_ptr<FileFramework> blank = makeDataFile(kind);
  const std::vector<std::string_view> sections = fuzz::parts(rest, '\x1E', tags.size());
  std::vector<std::size_t> given(tags.size(), 0);
  for (std::size_t s = 0; s < sections.size(); ++s) {
    // The data rows as the import counts them: a last empty line is none.
    const std::vector<std::string> lines = split(sections[s], "\n");
    given[s] = lines.size() - (!lines.empty() && lines.back().empty());
    fuzz::writeFile(
        in / (tags[s].substr(1) + ".tsv"),
        join(*blank->getTableByTag(tags[s])->getFields(), "\t") + "\n" + std::string(sections[s]));
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
  const std::string_view rest = fuzz::asText(data + 1, size - 1);
  checkAndShow(kind, static_cast<OutputFormat>((data[0] >> 2) % 3), rest);
  importRows(kind, rest);
  return 0;
}
