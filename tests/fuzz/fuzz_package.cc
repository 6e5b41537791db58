// FilePackage's open on any plain text, then its look-ups and writer.

#include "FuzzSupport.h"
#include "quarvel/FilePackage.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  return quarvel::fuzz::openAndProbe<quarvel::FilePackage>(
      data, size, [&](quarvel::FilePackage& package) {
        const int found = package.getPackageIndex(quarvel::fuzz::keyFrom(data, size));
        const auto subs = static_cast<int>(package.getTableByTag("#SUB")->getDataCount());
        for (int sub : {-1, 0, subs - 1, subs})
          (void)package.getProductNameByPackageIndex(found, sub);
        (void)package.getProductNameByPackageIndex(0, 0);
      });
}
