#pragma once
// The comparison the table sorts use: case-insensitive, literal (no
// canonical equivalence) and numeric (ASCII digit runs compare by value).

#include <string>
#include <string_view>

namespace quarvel {

// -1, 0 or 1 as `a` sorts before, with or after `b`. Both are UTF-8.
// ASCII letters compare as lower case, other characters of the Basic
// Multilingual Plane by their full case folding ("\u00DF" equals "ss"),
// characters beyond it by code point; runs of ASCII digits compare by their
// value as unsigned 64-bit numbers (wrapping), so "9" < "10" and "01" ==
// "1"; the string that runs out first sorts first. Bytes that are not UTF-8
// count as the code points U+DC80..U+DCFF.
int compareCaselessNumeric(std::string_view a, std::string_view b);

// A byte string whose plain byte order (memcmp, shorter first) is the order
// of compareCaselessNumeric: sorting many values is cheaper on their keys.
std::string caselessNumericSortKey(std::string_view text);

}  // namespace quarvel
