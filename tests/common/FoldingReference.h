#pragma once
// The folding done the slow, literal way: the 209 rows of FoldingRows.h as
// 209 replace-all passes in order, each with the case-insensitive,
// canonically-equivalent search below. Tests, the fuzzer and the benchmark
// hold the fast table-driven folding of CommonLib against it.
//
// How the search matches. Both sides are compared code point by code point;
// where they differ, each side is expanded at that place into a folded unit:
// the lead code point and the extending code points after it
// (Grapheme_Extend, plus the emoji modifiers U+1F3FB..U+1F3FF); the lead is
// replaced by its canonical decomposition with the first code point of that
// fully case-folded (BMP only), each extending code point by its canonical
// decomposition, and the marks after the last non-extending element are
// stably sorted by combining class. A match is accepted only when
//   1. it ends at the end of a folded unit of the text,
//   2. the next code point is not extending (unless the last matched code
//      point is a symbol or a number, which take no accents: "¼" is found in
//      "¼\u0303", so removing it lets the mark join the letter before it),
//   3. if the last matched unit is ZWJ, CGJ, a conjoining jamo or a virama,
//      or the next code point is CGJ, a grapheme cluster ends at the match.

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace quarvel::foldref {

struct FoldMatch {
  std::size_t start = 0;   // UTF-16 index
  std::size_t length = 0;  // UTF-16 units
  bool operator==(const FoldMatch&) const = default;
};

// The first match of `target` in `text` that starts at `from` or later.
std::optional<FoldMatch> findFolded(std::u16string_view text, std::u16string_view target,
                                    std::size_t from = 0);

// Every match, found left to right on the original text, replaced at once.
std::u16string replaceAllFolded(std::u16string_view text, std::u16string_view target,
                                std::u16string_view replacement);

// The 209 passes over UTF-8 text (invalid sequences become U+FFFD first).
std::string referenceFold(std::string_view utf8);

std::u16string toUtf16(std::string_view utf8);
std::string toUtf8(std::u16string_view utf16);

}  // namespace quarvel::foldref
