#pragma once
// The folding done the slow, literal way, held against the fast table-driven
// folding of CommonLib by the tests, the fuzzer and the benchmark: the 209
// rows of FoldingRows.h as replace-all passes in order. Each pass compares
// code point by code point; where the two sides differ, each is expanded
// into a folded unit: its lead, canonically decomposed with the first code
// point case-folded (BMP only), then the extending code points after it
// (Grapheme_Extend, U+1F3FB..U+1F3FF) decomposed, the trailing marks sorted
// by combining class. A match must end at the end of a folded unit of the
// text, before no extending code point (unless it ended on a symbol or a
// number: "¼" is found in "¼\u0303", so the mark joins the letter before
// it), and at a grapheme cluster boundary when its last unit is ZWJ, CGJ, a
// conjoining jamo or a virama, or CGJ follows.

#include <string>
#include <string_view>

namespace quarvel::foldref {

// The 209 passes over UTF-8 text (invalid sequences become U+FFFD first).
std::string referenceFold(std::string_view utf8);

}  // namespace quarvel::foldref
