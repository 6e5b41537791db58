#include "tables/TabbedSplit.h"

#include <algorithm>
#include <cstdint>
#include <thread>

#include "quarvel/Record.h"

namespace quarvel {

TabbedSplit::TabbedSplit(std::span<const std::string_view> lines, std::size_t fieldCount)
    : lines_(lines),
      fieldCount_(fieldCount),
      layouts_(static_cast<std::uint16_t*>(
          allocateHugePageBlock(lines.size() * stride() * sizeof(std::uint16_t)))),
      at_(layouts_.get()),
      chunks_((lines.size() + kChunk - 1) / kChunk),
      states_(std::make_unique<std::atomic<std::uint8_t>[]>(chunks_)) {}

void TabbedSplit::splitLine(std::string_view line, std::size_t fieldCount, std::uint16_t* layout) {
  const bool split = Record::splitTabbedLine(line, fieldCount, layout + 1);
  layout[0] = static_cast<std::uint16_t>(split ? fieldCount : 0);
}

void TabbedSplit::splitAhead() {
  // The helper goes on to other work afterwards (a check list's property
  // index), so it takes less than half: on a 200,000-record list, from
  // three fifths on left the two threads ending closest together.
  for (std::size_t chunk = chunks_ * 3 / 5; chunk < chunks_; ++chunk) {
    std::uint8_t free = kFree;
    if (!states_[chunk].compare_exchange_strong(free, kHelper, std::memory_order_relaxed))
      return;  // the builder is here already
    const std::size_t end = std::min(lines_.size(), (chunk + 1) * kChunk);
    for (std::size_t line = chunk * kChunk; line < end; ++line)
      if (fitsLayout(lines_[line])) splitLine(lines_[line], fieldCount_, at_ + line * stride());
    states_[chunk].store(kSplit, std::memory_order_release);
  }
}

bool TabbedSplit::splitByHelper(std::size_t line) {
  std::atomic<std::uint8_t>& state = states_[line / kChunk];
  std::uint8_t seen = kFree;
  if (state.compare_exchange_strong(seen, kBuilder, std::memory_order_acquire)) return false;
  // The helper has it, or is at it: a chunk takes it a few tens of
  // microseconds.
  for (unsigned spins = 0; seen != kSplit; seen = state.load(std::memory_order_acquire)) {
    if (++spins < 256) {
#if defined(__x86_64__) || defined(__i386__)
      __builtin_ia32_pause();
#endif
    } else {
      std::this_thread::yield();
    }
  }
  return true;
}

}  // namespace quarvel
