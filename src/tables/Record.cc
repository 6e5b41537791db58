#include "quarvel/Record.h"

#include <bit>
#include <cstdint>
#include <cstring>
#include <limits>
#include <ostream>
#include <stdexcept>
#include <utility>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace quarvel {

Record Record::withText(std::size_t count, std::string_view text, std::uint32_t** ends) {
  Record record;
  if (count == 0) return record;
  if (count > std::numeric_limits<std::uint32_t>::max() - 1 ||
      text.size() > std::numeric_limits<std::uint32_t>::max())
    throw std::length_error("record too large");
  const std::size_t words = 1 + count + (text.size() + sizeof(std::uint32_t) - 1) / 4;
  auto* const block = new std::uint32_t[words];
  block[0] = static_cast<std::uint32_t>(count);
  if (!text.empty()) std::memcpy(block + 1 + count, text.data(), text.size());
  record.layout_ = reinterpret_cast<std::uintptr_t>(block) | kOwned;
  record.text_ = reinterpret_cast<const char*>(block + 1 + count);
  *ends = block + 1;
  return record;
}

static_assert(sizeof(Record) == 2 * sizeof(void*), "a record is its layout and its text");

void Record::freeBlock() { delete[] reinterpret_cast<std::uint32_t*>(layout_ & ~kOwned); }

Record Record::fromTabbedLine(std::string_view line) {
  std::size_t tabs = 0;
  for (char c : line) tabs += c == '\t';
  return *fromTabbedLine(line, tabs + 1);
}

std::optional<Record> Record::fromTabbedLine(std::string_view line, std::size_t valueCount) {
  if (valueCount == 0) return std::nullopt;
  // The offsets go straight into the block; a line with the wrong count
  // (rare: a damaged file) just costs the block.
  std::uint32_t* ends = nullptr;
  Record record = withText(valueCount, line, &ends);
  if (!splitTabbedLine(line, valueCount, ends)) return std::nullopt;
  return record;
}

namespace {

template <typename End>
bool splitTabs(std::string_view line, std::size_t valueCount, End* ends) {
  if (valueCount == 0 || line.size() > std::numeric_limits<End>::max()) return false;
  const std::size_t last = valueCount - 1;
  std::size_t found = 0;
  std::size_t i = 0;
  // Records a tab at `at` plus each set bit's place in `tabs` (shifted right
  // by `shift`, for masks with a bit per byte's top); false past the last
  // value.
  const auto take = [&](std::size_t at, std::uint64_t tabs, int shift) {
    for (; tabs != 0; tabs &= tabs - 1) {
      if (found == last) return false;
      ends[found++] =
          static_cast<End>(at + (static_cast<std::size_t>(std::countr_zero(tabs)) >> shift));
    }
    return true;
  };
#if defined(__SSE2__)
  // Sixteen bytes at a time: one compare gives a bit per tab. Four such
  // masks make one of 64 bytes, so that the loop over its tabs ends (and
  // its last turn is mispredicted) once per 64 bytes, not per 16.
  const __m128i tabs16 = _mm_set1_epi8('\t');
  const auto maskAt = [&](std::size_t at) {
    const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(line.data() + at));
    return static_cast<std::uint64_t>(
        static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(bytes, tabs16))));
  };
  for (; i + 64 <= line.size(); i += 64)
    if (!take(i, maskAt(i) | maskAt(i + 16) << 16 | maskAt(i + 32) << 32 | maskAt(i + 48) << 48, 0))
      return false;
  for (; i + 16 <= line.size(); i += 16)
    if (!take(i, maskAt(i), 0)) return false;
#endif
  if constexpr (std::endian::native == std::endian::little) {
    // Eight bytes at a time: a mask with the high bit of each tab byte set
    // (exact: no carry crosses a byte).
    constexpr std::uint64_t kLow7 = 0x7F7F7F7F7F7F7F7FULL, kTabs = 0x0909090909090909ULL;
    for (; i + 8 <= line.size(); i += 8) {
      std::uint64_t word;
      std::memcpy(&word, line.data() + i, 8);
      const std::uint64_t x = word ^ kTabs;  // a zero byte where a tab was
      if (!take(i, ~(((x & kLow7) + kLow7) | x | kLow7), 3)) return false;
    }
  }
  for (; i < line.size(); ++i)
    if (line[i] == '\t' && !take(i, 1, 0)) return false;
  if (found != last) return false;
  ends[last] = static_cast<End>(line.size());
  return true;
}

}  // namespace

bool Record::splitTabbedLine(std::string_view line, std::size_t valueCount, std::uint32_t* ends) {
  return splitTabs(line, valueCount, ends);
}

bool Record::splitTabbedLine(std::string_view line, std::size_t valueCount, std::uint16_t* ends) {
  return splitTabs(line, valueCount, ends);
}

Record Record::fromValues(std::size_t count, const std::string_view* values) {
  if (count == 0) return Record();
  std::string text;
  std::size_t size = count - 1;
  for (std::size_t i = 0; i < count; ++i) size += values[i].size();
  text.reserve(size);
  for (std::size_t i = 0; i < count; ++i) {
    if (i != 0) text += '\t';
    text += values[i];
  }
  std::uint32_t* ends = nullptr;
  Record record = withText(count, text, &ends);
  std::size_t end = 0;
  for (std::size_t i = 0; i < count; ++i) {
    end += values[i].size();
    ends[i] = static_cast<std::uint32_t>(end);
    ++end;
  }
  return record;
}

Record::Record(std::initializer_list<std::string_view> values)
    : Record(fromValues(values.size(), values.begin())) {}

Record::Record(const std::vector<std::string>& values) {
  std::vector<std::string_view> views(values.begin(), values.end());
  *this = fromValues(views.size(), views.data());
}

Record::Record(const Record& other) {
  if (other.layout_ == 0) return;
  std::uint32_t* ends = nullptr;
  *this = withText(other.size(), other.tabbedText(), &ends);
  for (std::size_t i = 0; i < other.size(); ++i) ends[i] = other.layoutAt(i + 1);
}

Record& Record::operator=(const Record& other) {
  if (this != &other) *this = Record(other);
  return *this;
}

Record::Record(Record&& other) noexcept
    : layout_(std::exchange(other.layout_, 0)), text_(std::exchange(other.text_, nullptr)) {}

Record& Record::operator=(Record&& other) noexcept {
  if (this != &other) {
    if (owned()) freeBlock();
    layout_ = std::exchange(other.layout_, 0);
    text_ = std::exchange(other.text_, nullptr);
  }
  return *this;
}

std::string_view Record::tabbedText() const {
  return layout_ != 0 ? std::string_view(text_, textSize()) : std::string_view();
}

std::string_view Record::at(std::size_t index) const {
  if (index >= size()) throw std::out_of_range("record has no such value");
  return (*this)[index];
}

std::vector<std::string> Record::values() const {
  std::vector<std::string> out;
  out.reserve(size());
  for (std::string_view value : *this) out.emplace_back(value);
  return out;
}

void Record::set(std::size_t index, std::string_view value) {
  if (index >= size()) throw std::out_of_range("record has no such value");
  std::vector<std::string_view> views(begin(), end());
  views[index] = value;
  *this = fromValues(views.size(), views.data());
}

void Record::resize(std::size_t count, std::string_view fill) {
  std::vector<std::string_view> views(begin(), end());
  views.resize(count, fill);
  *this = fromValues(views.size(), views.data());
}

void Record::erase(std::size_t index) {
  if (index >= size()) throw std::out_of_range("record has no such value");
  std::vector<std::string_view> views(begin(), end());
  views.erase(views.begin() + static_cast<std::ptrdiff_t>(index));
  *this = fromValues(views.size(), views.data());
}

bool operator==(const Record& a, const Record& b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i)
    if (a[i] != b[i]) return false;
  return true;
}

std::ostream& operator<<(std::ostream& out, const Record& record) {
  out << '{';
  for (std::size_t i = 0; i < record.size(); ++i) out << (i ? ", \"" : "\"") << record[i] << '"';
  return out << '}';
}

}  // namespace quarvel
