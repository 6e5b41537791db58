#pragma once
/// @file
/// The tab split of a long run of lines shared by two threads. The table's
/// builder walks the lines in order; a helper splits the later lines
/// meanwhile, so that the builder finds them done when it gets there.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>

#include "common/HugePages.h"

namespace quarvel {

/// The layouts of `lines` as Record::referring takes them (16-bit: the
/// value count, then each value's end), one per line at a fixed stride,
/// in chunks that either thread claims: the builder those it reaches
/// first, the helper the later ones that the builder has not. A line that
/// does not fit a layout is left to the builder.
class TabbedSplit {
 public:
  TabbedSplit(std::span<const std::string_view> lines, std::size_t fieldCount);
  TabbedSplit(const TabbedSplit&) = delete;
  TabbedSplit& operator=(const TabbedSplit&) = delete;

  /// On the helper's thread: splits the later chunks in order, up to the
  /// first one the builder has claimed. Each split line's count is the field
  /// count, or 0 when the line holds another number of values.
  void splitAhead();

  /// On the builder's thread, at the first line of each chunk in order:
  /// true when the helper split the chunk (waiting should it be at it),
  /// false when it is the builder's to split, the helper kept out.
  bool splitByHelper(std::size_t line);

  /// Whether `line` has a 16-bit layout; the record of a longer one owns
  /// its block, and the builder makes it.
  static bool fitsLayout(std::string_view line) { return line.size() <= UINT16_MAX; }
  /// Writes the layout of a line that fits: the field count and each
  /// value's end, or a count of 0 when the line holds another number of
  /// values (a refused line).
  static void splitLine(std::string_view line, std::size_t fieldCount, std::uint16_t* layout);

  std::size_t stride() const { return fieldCount_ + 1; }
  /// Whether `line` starts a chunk.
  static bool startsChunk(std::size_t line) { return line % kChunk == 0; }
  /// The layouts, for the records' shared block to keep; the helper writes
  /// no more once the builder has passed every chunk.
  std::unique_ptr<std::uint16_t[], HugePageBlockFree> takeLayouts() { return std::move(layouts_); }

 private:
  static constexpr std::size_t kChunk = 1024;
  enum State : std::uint8_t { kFree, kBuilder, kHelper, kSplit };

  std::span<const std::string_view> lines_;
  std::size_t fieldCount_;
  std::unique_ptr<std::uint16_t[], HugePageBlockFree> layouts_;
  std::uint16_t* at_;  ///< the layouts, also once taken
  std::size_t chunks_;
  std::unique_ptr<std::atomic<std::uint8_t>[]> states_;
};

}  // namespace quarvel
