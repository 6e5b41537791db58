#include "common/HugePages.h"

#include <sys/mman.h>

#include <cstdint>
#include <new>

namespace quarvel {

namespace {
constexpr std::size_t kHuge = std::size_t{2} << 20;
}  // namespace

void adviseHugePages(void* block, std::size_t bytes) {
  const auto begin = reinterpret_cast<std::uintptr_t>(block);
  const std::uintptr_t first = (begin + kHuge - 1) & ~(kHuge - 1);
  const std::uintptr_t last = (begin + bytes) & ~(kHuge - 1);
  if (block == nullptr || last <= first) return;
  ::madvise(reinterpret_cast<void*>(first), last - first, MADV_HUGEPAGE);
}

void* allocateHugePageBlock(std::size_t bytes) {
  void* block = nullptr;
  if (bytes >= kHuge) {
    const std::size_t rounded = (bytes + kHuge - 1) / kHuge * kHuge;
    block = std::aligned_alloc(kHuge, rounded);
    adviseHugePages(block, rounded);
  } else {
    block = std::malloc(bytes == 0 ? 1 : bytes);
  }
  if (block == nullptr) throw std::bad_alloc();
  return block;
}

}  // namespace quarvel
