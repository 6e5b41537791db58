// `quarvel check` and `quarvel show` on any plain text of a data file (the
// first byte picks the kind and the output format; the rest is the text,
// enciphered into a scratch file as DataFileFuzz.h does). The check splits
// and decodes the file on its own, so it is held to the library: a file it
// passes must open with the kind's class, show, save without refusal, and
// read back with as many records in every section.

#include <sstream>

#include "DataFileTool.h"
#include "FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quarvel;
  using namespace quarvel::cli;
  using fuzz::fail;
  fuzz::quietLog();
  if (size == 0) return 0;
  const auto kind = static_cast<DataFileKind>(data[0] % 4);
  const auto format = static_cast<OutputFormat>((data[0] >> 2) % 3);
  if (!fuzz::writeEnciphered(data + 1, size - 1)) return 0;

  std::ostringstream out, err;
  const int checked = checkDataFile(fuzz::scratchPath(), kind, out, err);
  const int shown = showDataFile(fuzz::scratchPath(), kind, format, out, err);
  if (checked != 0) return 0;
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
  return 0;
}
