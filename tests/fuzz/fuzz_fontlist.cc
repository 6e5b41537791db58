// FileFontList's open on any plain text, then its look-ups and writer.

#include "FuzzSupport.h"
#include "quarvel/FileFontList.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  return quarvel::fuzz::openAndProbe<quarvel::FileFontList>(
      data, size, [&](quarvel::FileFontList& fonts) {
        const std::string key = quarvel::fuzz::keyFrom(data, size);
        (void)fonts.getIdByFileName(key);
        (void)fonts.getIndex(key);
      });
}
