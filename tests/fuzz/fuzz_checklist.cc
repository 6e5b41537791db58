// FileCheckList's open on any plain text, then its look-ups and writer.

#include "FuzzSupport.h"
#include "quarvel/FileCheckList.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  return quarvel::fuzz::openAndProbe<quarvel::FileCheckList>(
      data, size, [&](quarvel::FileCheckList& list) {
        const std::string key = quarvel::fuzz::keyFrom(data, size);
        const std::uint64_t count = list.getTableByTag("#CHECKLIST")->getDataCount();
        for (int found : {list.getIdByFileName(key), list.getIdByProperty(key), list.getIndex(key)})
          if (found < -1 || (found >= 0 && static_cast<std::uint64_t>(found) >= count))
            __builtin_trap();
        list.initCompanyAndProduct();
        if (list.m_pArrCompany().size() != count) __builtin_trap();
      });
}
