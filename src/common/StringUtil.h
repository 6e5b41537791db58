#pragma once
// Text helpers shared by every area. Strings are UTF-8 throughout.

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quarvel {

// Plain split on every occurrence of `separator`: "" gives {""}, ",a," gives
// {"", "a", ""}. An empty separator gives the whole text as one part.
std::vector<std::string> split(std::string_view text, std::string_view separator);

// Joins with `separator` between parts, none after the last.
std::string join(const std::vector<std::string>& parts, std::string_view separator);

// Full, locale-free Unicode lower-casing (ICU root locale): "\u0130" becomes
// "i\u0307", final sigma is kept. Invalid UTF-8 is lower-cased byte-wise for
// ASCII and copied otherwise.
std::string lowercase(std::string_view text);

// Removes white space from both ends: U+0009, U+0020, U+00A0, U+1680,
// U+2000..U+200B, U+202F, U+205F, U+3000.
std::string trimWhitespace(std::string_view text);
// As trimWhitespace, also removing U+000A..U+000D, U+0085, U+2028, U+2029.
std::string trimWhitespaceAndNewlines(std::string_view text);

// Path components, '/' being the only separator. The path is first
// normalised ("/" stays, runs of '/' collapse, one trailing '/' goes).
//   lastPathComponent("/a/b/") == "b", ("ver.dat") == "ver.dat", ("/") == "/"
//   deletingLastPathComponent("/a/b/") == "/a", ("/tmp") == "/", ("x") == ""
std::string lastPathComponent(std::string_view path);
std::string deletingLastPathComponent(std::string_view path);

// True when `text` is well-formed UTF-8.
bool isValidUtf8(std::string_view text);

// Appends the UTF-8 form of `c`. Any value below 0x110000 is written,
// surrogates included (as their three-byte form); larger values add nothing.
void appendUtf8(std::string& out, char32_t c);

// Number of UTF-16 code units the text occupies (surrogate pairs count 2).
std::size_t utf16Length(std::string_view utf8);

// How an absent text prints through a "%@" format: "(null)".
inline std::string orNull(const std::optional<std::string>& value) {
  return value ? *value : std::string("(null)");
}

}  // namespace quarvel
