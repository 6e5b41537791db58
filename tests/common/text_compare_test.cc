#include <gtest/gtest.h>

#include <tuple>

#include "common/TextCompare.h"

namespace quarvel {
namespace {

int sign(int v) { return (v > 0) - (v < 0); }

// Digit runs compare by value; case folding is full but literal; stray
// bytes keep their place. Each pair is checked both ways and through the
// sort keys as well.
TEST(TextCompare, OrdersPairsBothWaysAndThroughTheSortKeys) {
  const std::tuple<const char*, const char*, int> pairs[] = {
      {"a2", "a10", -1},
      {"v1.2.10", "v1.2.9", 1},
      {"A1B2", "a01b02", 0},
      {"18446744073709551616", "0", 0},  // wraps
      {"18446744073709551615", "18446744073709551614", 1},
      {"12", "1a", 1},
      {"1", "1a", -1},
      {"\xEF\xBC\x91", "2", 1},  // a fullwidth digit is an ordinary character
      {"xyz", "XYZ", 0},
      {"@", "`", -1},
      {"9", "a", -1},
      {".", "1", -1},
      {"_", "a", -1},
      {"[", "A", -1},
      {"\xC3\x89", "\xC3\xA9", 0},  // É é
      {"\xC3\xA9", "f", 1},         // é after f
      {"\xC3\x9F", "ss", 0},        // ß
      {"\xC3\x9F", "st", -1},
      {"s", "\xC3\x9F", -1},
      {"\xC4\xB0", "i\xCC\x87", 0},                  // İ and i + dot above
      {"\xC4\xB1", "i", 1},                          // dotless i stays
      {"\xCF\x82", "\xCE\xA3", 0},                   // final sigma, capital sigma
      {"\xEF\xAC\x80", "ff", 0},                     // ff ligature
      {"\xE2\x84\xAA", "K", 0},                      // Kelvin sign
      {"\xC3\xA9", "e\xCC\x81", 1},                  // no canonical equivalence
      {"\xEE\x80\x80", "\xF0\x90\x80\x80", -1},      // code point order, not UTF-16
      {"\xF0\x90\x90\x80", "\xF0\x90\x90\xA8", -1},  // no folding beyond the BMP
      {"\xEA\xB0\x80", "\xEB\x82\x98", -1},          // Hangul by code point
      // A prefix comes first; stray bytes compare as U+DC80..U+DCFF.
      {"", "", 0},
      {"", "a", -1},
      {"abc", "abcd", -1},
      {"\xFF", "\xFE", 1},
      {"\xFF", "\xEF\xBF\xBD", -1},  // U+DCFF before U+FFFD
      {"a\xC3", "a", 1},
      {"a\xC3", "a\xC3", 0},
      {"\xC3"
       "a",
       "\xC3"
       "B",
       -1},
  };
  for (const auto& [a, b, order] : pairs) {
    EXPECT_EQ(compareCaselessNumeric(a, b), order) << a << " vs " << b;
    EXPECT_EQ(compareCaselessNumeric(b, a), -order) << a << " vs " << b;
    EXPECT_EQ(sign(caselessNumericSortKey(a).compare(caselessNumericSortKey(b))), order)
        << a << " vs " << b;
  }
}

}  // namespace
}  // namespace quarvel
