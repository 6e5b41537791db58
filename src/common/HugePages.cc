#include "common/HugePages.h"

#include <sys/mman.h>
#include <unistd.h>

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

void releaseUnusedPages(const void* block, std::size_t used, std::size_t bytes) {
  const std::size_t page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
  const auto begin = reinterpret_cast<std::uintptr_t>(block);
  const std::uintptr_t first = (begin + used + page - 1) & ~(page - 1);
  const std::uintptr_t last = (begin + bytes) & ~(page - 1);
  if (block == nullptr || used >= bytes || last <= first) return;
  ::madvise(reinterpret_cast<void*>(first), last - first, MADV_DONTNEED);
}

std::size_t hugePageBlockRoom(std::size_t bytes) {
  return bytes >= kHuge ? (bytes + kHuge - 1) / kHuge * kHuge : bytes;
}

void* allocateHugePageBlock(std::size_t bytes) {
  void* block = nullptr;
  if (bytes >= kHuge) {
    block = std::aligned_alloc(kHuge, hugePageBlockRoom(bytes));
    // Only the pages the block fills: a huge page partly used would be
    // resident whole.
    adviseHugePages(block, bytes);
  } else {
    block = std::malloc(bytes == 0 ? 1 : bytes);
  }
  if (block == nullptr) throw std::bad_alloc();
  return block;
}

}  // namespace quarvel
