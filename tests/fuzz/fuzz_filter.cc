// FileFilter's open on any plain text, then its look-up and writer.

#include "FuzzSupport.h"
#include "quarvel/FileFilter.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  return quarvel::fuzz::openAndProbe<quarvel::FileFilter>(
      data, size, [&](quarvel::FileFilter& filter) {
        const int found = filter.getIdByFilter(quarvel::fuzz::keyFrom(data, size));
        if (found >= 0 &&
            static_cast<std::uint64_t>(found) >= filter.getTableByTag("#SWLIST")->getDataCount())
          __builtin_trap();
      });
}
