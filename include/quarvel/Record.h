#pragma once
/// @file
/// One record of a table: an ordered list of text values.
///
/// A loaded check list holds hundreds of thousands of records, so a record is
/// kept compact: one heap block holding the value count, the end offset of
/// each value, and the values' text joined by tabs. Building a record from a
/// tab-separated line is one copy of the line; writing it back out is one
/// copy of the text. A value may itself hold a tab (set() accepts anything):
/// the offsets, not the tabs, say where values end, and joining the values
/// with "\t" still gives exactly the stored text.
///
/// A record read from a data file need not own its text: referring() builds
/// one over a layout and text that its table keeps (one buffer for all of a
/// file's records), and such a record gets a block of its own the first time
/// it is changed. A copy always owns its block.
///
/// Values are read as string_views into the block or the referred text; they
/// stay valid until the record is changed or destroyed.
///
/// Not thread-safe to change: readers on several threads are fine while no
/// thread changes the record.

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <iosfwd>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quarvel {

class Record {
 public:
  class const_iterator {
   public:
    using iterator_category = std::input_iterator_tag;
    using value_type = std::string_view;
    using difference_type = std::ptrdiff_t;
    using reference = std::string_view;
    using pointer = void;

    const_iterator() = default;
    const_iterator(const Record* record, std::size_t index) : record_(record), index_(index) {}
    std::string_view operator*() const { return (*record_)[index_]; }
    const_iterator& operator++() {
      ++index_;
      return *this;
    }
    const_iterator operator++(int) {
      const_iterator before = *this;
      ++index_;
      return before;
    }
    bool operator==(const const_iterator& other) const { return index_ == other.index_; }

   private:
    const Record* record_ = nullptr;
    std::size_t index_ = 0;
  };

  /// A record of no values.
  Record() = default;
  Record(std::initializer_list<std::string_view> values);
  explicit Record(const std::vector<std::string>& values);
  /// The values of `line` split on every tab ("" is one empty value).
  static Record fromTabbedLine(std::string_view line);
  /// The same when the line holds exactly `valueCount` values; nothing
  /// otherwise.
  static std::optional<Record> fromTabbedLine(std::string_view line, std::size_t valueCount);
  /// Writes the end offset of each of `valueCount` values of `line` to
  /// `ends` (room for valueCount); false, with `ends` partly written, when
  /// the line does not hold exactly that many values or is 4 GiB or more.
  static bool splitTabbedLine(std::string_view line, std::size_t valueCount, std::uint32_t* ends);
  /// The same in 16 bits, for a line shorter than 64 KiB (false otherwise).
  static bool splitTabbedLine(std::string_view line, std::size_t valueCount, std::uint16_t* ends);
  /// A record of the values `layout` describes ([0] the value count n > 0,
  /// [1..n] each value's end offset from `text`, values separated by one
  /// byte), referring to both instead of copying them. The caller keeps both
  /// alive and unchanged while the record, or one it is moved into, refers
  /// to them; set(), resize(), erase() and clear() end the reference.
  static Record referring(const std::uint32_t* layout, const char* text) {
    Record record;
    record.layout_ = reinterpret_cast<std::uintptr_t>(layout);
    record.text_ = text;
    return record;
  }
  /// The same over a layout in 16 bits: the offsets of a file's lines take
  /// half the room.
  static Record referring(const std::uint16_t* layout, const char* text) {
    Record record;
    record.layout_ = reinterpret_cast<std::uintptr_t>(layout) | kNarrow;
    record.text_ = text;
    return record;
  }

  Record(const Record& other);
  Record& operator=(const Record& other);
  Record(Record&& other) noexcept;
  Record& operator=(Record&& other) noexcept;
  ~Record() {
    if (owned()) freeBlock();
  }

  std::size_t size() const { return layout_ == 0 ? 0 : layoutAt(0); }
  bool empty() const { return size() == 0; }
  /// Value `index`; the index must be below size().
  std::string_view operator[](std::size_t index) const {
    const std::uint32_t begin = index == 0 ? 0 : layoutAt(index) + 1;
    return std::string_view(text_ + begin, layoutAt(index + 1) - begin);
  }
  /// Value `index`; throws std::out_of_range beyond the values.
  std::string_view at(std::size_t index) const;
  const_iterator begin() const { return const_iterator(this, 0); }
  const_iterator end() const { return const_iterator(this, size()); }

  /// Replaces value `index`; throws std::out_of_range beyond the values.
  void set(std::size_t index, std::string_view value);
  /// Drops values beyond `count`, or appends copies of `fill` up to it.
  void resize(std::size_t count, std::string_view fill);
  /// Removes value `index` (below size()).
  void erase(std::size_t index);
  void clear() { *this = Record(); }

  /// The values joined by tabs: the stored text itself.
  std::string_view tabbedText() const;
  /// Values `first` to `last` (inclusive, last below size()) joined by tabs,
  /// as a view of the stored text.
  std::string_view joined(std::size_t first, std::size_t last) const {
    const std::uint32_t begin = first == 0 ? 0 : layoutAt(first) + 1;
    return std::string_view(text_ + begin, layoutAt(last + 1) - begin);
  }
  std::vector<std::string> values() const;

  friend bool operator==(const Record& a, const Record& b);

 private:
  /// Builds the block for `count` values whose tab-joined text is `text`;
  /// `ends` receives each value's end offset.
  static Record withText(std::size_t count, std::string_view text, std::uint32_t** ends);
  static Record fromValues(std::size_t count, const std::string_view* values);
  std::size_t textSize() const { return layout_ == 0 ? 0 : layoutAt(size()); }
  /// Entry `i` of the layout: [0] the count, [1..n] the end offsets.
  std::uint32_t layoutAt(std::size_t i) const {
    if (layout_ & kNarrow) return reinterpret_cast<const std::uint16_t*>(layout_ - kNarrow)[i];
    return reinterpret_cast<const std::uint32_t*>(layout_ & ~kOwned)[i];
  }
  /// Whether layout_ is the record's own block. A 16-bit layout is only
  /// 2-aligned, so kOwned alone does not tell.
  bool owned() const { return (layout_ & (kNarrow | kOwned)) == kOwned; }
  /// Deletes the block an owning record holds.
  void freeBlock();
  /// Set in layout_ when its entries are 16-bit (both kinds are aligned).
  static constexpr std::uintptr_t kNarrow = 1;
  /// Set in layout_, without kNarrow, when it is the record's own block,
  /// always 32-bit and so 4-aligned: [0] value count n, [1..n] end offsets,
  /// then the text. Without it the layout and the text are referred to. So
  /// a record is two words: the records of a large list take a third less
  /// room than with a pointer of their own to the block.
  static constexpr std::uintptr_t kOwned = 2;

  /// Where the count and offsets are (32-bit, or 16-bit with kNarrow set),
  /// owned with kOwned set or referred to; 0 for no values.
  std::uintptr_t layout_ = 0;
  const char* text_ = nullptr;
};

/// Prints the values as {"a", "b"} (test failure messages).
std::ostream& operator<<(std::ostream& out, const Record& record);

}  // namespace quarvel
