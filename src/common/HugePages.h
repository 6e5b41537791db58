#pragma once
// Large buffers filled once from end to end while a data file opens (its
// text, its records, their indexes) take a page fault for every 4 KiB
// touched; huge pages take one per 2 MiB. Random look-ups into arrays far
// larger than what the TLB maps in small pages need a few dozen entries in
// huge ones.

#include <cstddef>
#include <cstdlib>
#include <new>
#include <utility>

namespace quarvel {

// Offers the whole 2 MiB pages inside [block, block + bytes) to the kernel
// for huge pages, before they are first touched. Changes no byte and fails
// silently (the pages stay small). Safe from any thread.
void adviseHugePages(void* block, std::size_t bytes);

// malloc's block, or for 2 MiB and more one 2 MiB-aligned whose whole
// 2 MiB pages are offered for huge pages; either is released with
// std::free. Throws std::bad_alloc as operator new does.
void* allocateHugePageBlock(std::size_t bytes);

// The bytes allocateHugePageBlock(bytes) reserves: for 2 MiB and more,
// rounded up to whole huge pages.
std::size_t hugePageBlockRoom(std::size_t bytes);

// Hands back to the kernel the whole pages of [block + used, block + bytes),
// room reserved and never to be written: a huge page only partly used is
// otherwise resident whole (up to 2 MiB at the end of each array). The
// bytes there read as zero afterwards. Fails silently.
void releaseUnusedPages(const void* block, std::size_t used, std::size_t bytes);

// Frees a block from allocateHugePageBlock (a unique_ptr's deleter).
struct HugePageBlockFree {
  void operator()(void* block) const { std::free(block); }
};

// The allocator of containers whose storage is such a block.
template <typename T>
struct HugePageAllocator {
  using value_type = T;
  HugePageAllocator() = default;
  template <typename U>
  HugePageAllocator(const HugePageAllocator<U>&) {}  // NOLINT(google-explicit-constructor)
  T* allocate(std::size_t count) {
    return static_cast<T*>(allocateHugePageBlock(count * sizeof(T)));
  }
  void deallocate(T* p, std::size_t) { std::free(p); }
  friend bool operator==(const HugePageAllocator&, const HugePageAllocator&) { return true; }
};

// The same for arrays that a resize grows without setting: new elements are
// left as they are, for arrays whose every element is written at once.
template <typename T>
struct UninitializedHugePageAllocator : HugePageAllocator<T> {
  template <typename U>
  struct rebind {
    using other = UninitializedHugePageAllocator<U>;
  };
  UninitializedHugePageAllocator() = default;
  template <typename U>
  UninitializedHugePageAllocator(  // NOLINT(google-explicit-constructor)
      const UninitializedHugePageAllocator<U>&) {}
  template <typename U>
  void construct(U* p) noexcept {
    ::new (static_cast<void*>(p)) U;
  }
  template <typename U, typename... Args>
  void construct(U* p, Args&&... args) {
    ::new (static_cast<void*>(p)) U(std::forward<Args>(args)...);
  }
};

}  // namespace quarvel
