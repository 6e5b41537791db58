#include "format/HugePages.h"

#include <sys/mman.h>

#if defined(__GLIBC__)
#include <malloc.h>
#endif

#include <cstdint>

namespace quarvel::datafile {

void adviseHugePages(void* block, std::size_t bytes) {
  constexpr std::uintptr_t kHuge = std::uintptr_t{2} << 20;
  const auto begin = reinterpret_cast<std::uintptr_t>(block);
  const std::uintptr_t first = (begin + kHuge - 1) & ~(kHuge - 1);
  const std::uintptr_t last = (begin + bytes) & ~(kHuge - 1);
  if (block == nullptr || last <= first) return;
  ::madvise(reinterpret_cast<void*>(first), last - first, MADV_HUGEPAGE);
}

void releaseFreedMemory() {
#if defined(__GLIBC__)
  ::malloc_trim(0);
#endif
}

}  // namespace quarvel::datafile
