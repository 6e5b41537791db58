#pragma once
// Pieces shared by the XML and binary property-list codecs
// (PropertyList.cc, PropertyListXml.cc, PropertyListBinary.cc).

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "quarvel/PlistValue.h"

namespace quarvel::plist_codec {

// Counts and logs the values a reader leaves out, one line each (up to a
// cap, then one line with the rest's count, so a crafted document cannot
// flood the log).
class DropLog {
 public:
  ~DropLog();
  void drop(const std::string& path, std::string_view why);

 private:
  std::size_t count_ = 0;
};

std::optional<PlistValue> readXml(std::string_view bytes, DropLog& log);
std::optional<PlistValue> readBinary(std::string_view bytes, DropLog& log);

// Dates: seconds since 2001-01-01T00:00:00Z and the XML form
// "YYYY-MM-DDTHH:MM:SSZ" (also its shorter forms down to "YYYYZ").
std::optional<double> parseXmlDate(std::string_view text);
// Whole seconds within years 0001-9999 only.
bool dateFitsXml(double seconds);
std::string formatXmlDate(double seconds);

// Strict UTF-8: no overlong forms, surrogates or code points past U+10FFFF.
// Calls `each` with every code point; false at the first bad sequence.
template <typename F>
bool forEachCodePoint(std::string_view text, F&& each);

// The string as UTF-16 code units for the binary form. Three-byte encodings
// of lone surrogates (what reading a binary string holding one produces)
// give those units back; other bad sequences become U+FFFD.
std::u16string toUtf16(std::string_view text);
// The reverse: UTF-8, with a lone surrogate kept as its three-byte form.
std::string fromUtf16(std::u16string_view units);

// Decodes one strict UTF-8 sequence at text[i]; answers the code point and
// advances i, or answers -1 (leaving i) when the sequence is bad.
std::int32_t decodeUtf8(std::string_view text, std::size_t& i);
void appendUtf8(std::string& out, std::uint32_t codePoint);

template <typename F>
bool forEachCodePoint(std::string_view text, F&& each) {
  for (std::size_t i = 0; i < text.size();) {
    std::int32_t c = decodeUtf8(text, i);
    if (c < 0) return false;
    if (!each(static_cast<std::uint32_t>(c))) return false;
  }
  return true;
}

}  // namespace quarvel::plist_codec
