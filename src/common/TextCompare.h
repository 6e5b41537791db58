#pragma once
// The comparison the table sorts use: case-insensitive, literal (no
// canonical equivalence) and numeric (ASCII digit runs compare by value).

#include <string_view>

namespace quarvel {

// -1, 0 or 1 as `a` sorts before, with or after `b`. Both are UTF-8.
int compareCaselessNumeric(std::string_view a, std::string_view b);

}  // namespace quarvel
