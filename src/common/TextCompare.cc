#include "common/TextCompare.h"

#include <unicode/uchar.h>
#include <unicode/ustring.h>
#include <unicode/utf8.h>

#include <cstdint>

#include "common/StringUtil.h"

namespace quarvel {
namespace {

bool isAsciiDigit(char c) { return c >= '0' && c <= '9'; }

// Walks a UTF-8 string as the stream of code points the comparison sees:
// ASCII lowered, other BMP characters replaced by their full case folding
// (one to three code points), characters beyond the BMP and stray bytes
// kept as they are. Runs of ASCII digits are taken whole by the caller.
class FoldedCursor {
 public:
  explicit FoldedCursor(std::string_view text) : text_(text) {}

  bool atEnd() const { return next_ == count_ && pos_ >= text_.size(); }
  bool atDigit() const {
    return next_ == count_ && pos_ < text_.size() && isAsciiDigit(text_[pos_]);
  }

  // The value of the digit run at the cursor, wrapping as unsigned 64-bit.
  std::uint64_t takeNumber() {
    std::uint64_t value = 0;
    while (pos_ < text_.size() && isAsciiDigit(text_[pos_]))
      value = value * 10 + static_cast<std::uint64_t>(text_[pos_++] - '0');
    return value;
  }

  // The next folded code point; only called when not atEnd().
  char32_t take() {
    if (next_ < count_) return pending_[next_++];
    const auto byte = static_cast<unsigned char>(text_[pos_]);
    if (byte < 0x80) {
      ++pos_;
      return (byte >= 'A' && byte <= 'Z') ? byte + ('a' - 'A') : byte;
    }
    const auto* data = reinterpret_cast<const std::uint8_t*>(text_.data());
    const auto length = static_cast<std::int32_t>(text_.size());
    auto at = static_cast<std::int32_t>(pos_);
    UChar32 c;
    U8_NEXT(data, at, length, c);
    if (c < 0) {
      ++pos_;
      return 0xDC00 + byte;
    }
    pos_ = static_cast<std::size_t>(at);
    if (c > 0xFFFF) return static_cast<char32_t>(c);
    return fold(static_cast<char16_t>(c));
  }

 private:
  char32_t fold(char16_t c) {
    UChar folded[4];
    UErrorCode status = U_ZERO_ERROR;
    const std::int32_t n = u_strFoldCase(folded, 4, &c, 1, U_FOLD_CASE_DEFAULT, &status);
    if (U_FAILURE(status) || n < 1 || n > 3) return c;
    // Case folding of a BMP character stays in the BMP.
    for (std::int32_t i = 1; i < n; ++i) pending_[i - 1] = folded[i];
    count_ = static_cast<std::uint8_t>(n - 1);
    next_ = 0;
    return folded[0];
  }

  std::string_view text_;
  std::size_t pos_ = 0;
  char32_t pending_[2] = {};
  std::uint8_t count_ = 0;
  std::uint8_t next_ = 0;
};

}  // namespace

int compareCaselessNumeric(std::string_view a, std::string_view b) {
  FoldedCursor left(a), right(b);
  for (;;) {
    if (left.atEnd()) return right.atEnd() ? 0 : -1;
    if (right.atEnd()) return 1;
    if (left.atDigit() && right.atDigit()) {
      const std::uint64_t x = left.takeNumber(), y = right.takeNumber();
      if (x != y) return x < y ? -1 : 1;
      continue;
    }
    const char32_t x = left.take(), y = right.take();
    if (x != y) return x < y ? -1 : 1;
  }
}

// The key is the folded stream in UTF-8, whose byte order is code point
// order, with each digit run written as '0' and its value in eight
// big-endian bytes. All ASCII digits order alike against any other
// character, so the '0' stands for the run's first digit there, and two runs
// meet at their headers and compare by value.
std::string caselessNumericSortKey(std::string_view text) {
  std::string key;
  key.reserve(text.size() + 8);
  FoldedCursor cursor(text);
  while (!cursor.atEnd()) {
    if (cursor.atDigit()) {
      const std::uint64_t value = cursor.takeNumber();
      key += '0';
      for (int shift = 56; shift >= 0; shift -= 8)
        key += static_cast<char>((value >> shift) & 0xFF);
    } else {
      appendUtf8(key, cursor.take());
    }
  }
  return key;
}

}  // namespace quarvel
