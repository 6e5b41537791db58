#include "common/StringUtil.h"

#include <unicode/ustring.h>
#include <unicode/utf8.h>

namespace quarvel {

std::vector<std::string> split(std::string_view text, std::string_view separator) {
  std::vector<std::string> parts;
  if (separator.empty()) {
    parts.emplace_back(text);
    return parts;
  }
  std::size_t start = 0;
  for (;;) {
    std::size_t at = text.find(separator, start);
    if (at == std::string_view::npos) {
      parts.emplace_back(text.substr(start));
      return parts;
    }
    parts.emplace_back(text.substr(start, at - start));
    start = at + separator.size();
  }
}

std::string join(const std::vector<std::string>& parts, std::string_view separator) {
  std::string out;
  for (std::size_t i = 0; i < parts.size(); ++i) {
    if (i) out.append(separator);
    out.append(parts[i]);
  }
  return out;
}

std::string lowercase(std::string_view text) {
  bool ascii = true;
  for (unsigned char c : text)
    if (c >= 0x80) {
      ascii = false;
      break;
    }
  if (ascii || !isValidUtf8(text)) {
    std::string out(text);
    for (char& c : out)
      if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return out;
  }
  // UTF-8 -> UTF-16 -> lower -> UTF-8.
  UErrorCode status = U_ZERO_ERROR;
  std::u16string wide(text.size(), u'\0');
  int32_t wideLength = 0;
  u_strFromUTF8(wide.data(), static_cast<int32_t>(wide.size()), &wideLength, text.data(),
                static_cast<int32_t>(text.size()), &status);
  wide.resize(static_cast<std::size_t>(wideLength));
  std::u16string lower(wide.size() * 3 + 1, u'\0');
  status = U_ZERO_ERROR;
  int32_t lowerLength = u_strToLower(lower.data(), static_cast<int32_t>(lower.size()), wide.data(),
                                     wideLength, "", &status);
  if (U_FAILURE(status)) return std::string(text);
  lower.resize(static_cast<std::size_t>(lowerLength));
  std::string out(lower.size() * 3, '\0');
  int32_t outLength = 0;
  status = U_ZERO_ERROR;
  u_strToUTF8(out.data(), static_cast<int32_t>(out.size()), &outLength, lower.data(), lowerLength,
              &status);
  if (U_FAILURE(status)) return std::string(text);
  out.resize(static_cast<std::size_t>(outLength));
  return out;
}

namespace {

bool isWhite(UChar32 c) {
  return c == 0x09 || c == 0x20 || c == 0xA0 || c == 0x1680 || (c >= 0x2000 && c <= 0x200B) ||
         c == 0x202F || c == 0x205F || c == 0x3000;
}

bool isNewline(UChar32 c) {
  return (c >= 0x0A && c <= 0x0D) || c == 0x85 || c == 0x2028 || c == 0x2029;
}

template <typename Pred>
std::string trimIf(std::string_view text, Pred drop) {
  const auto* s = reinterpret_cast<const uint8_t*>(text.data());
  int32_t length = static_cast<int32_t>(text.size());
  int32_t begin = 0;
  while (begin < length) {
    int32_t next = begin;
    UChar32 c;
    U8_NEXT(s, next, length, c);
    if (c < 0 || !drop(c)) break;
    begin = next;
  }
  int32_t end = length;
  while (end > begin) {
    int32_t previous = end;
    UChar32 c;
    U8_PREV(s, begin, previous, c);
    if (c < 0 || !drop(c)) break;
    end = previous;
  }
  return std::string(
      text.substr(static_cast<std::size_t>(begin), static_cast<std::size_t>(end - begin)));
}

std::string normalisePath(std::string_view path) {
  std::string out;
  out.reserve(path.size());
  for (char c : path) {
    if (c == '/' && !out.empty() && out.back() == '/') continue;
    out.push_back(c);
  }
  if (out.size() > 1 && out.back() == '/') out.pop_back();
  return out;
}

}  // namespace

std::string trimWhitespace(std::string_view text) { return trimIf(text, isWhite); }

std::string trimWhitespaceAndNewlines(std::string_view text) {
  return trimIf(text, [](UChar32 c) { return isWhite(c) || isNewline(c); });
}

std::string lastPathComponent(std::string_view path) {
  std::string p = normalisePath(path);
  if (p.size() <= 1) return p;
  std::size_t slash = p.rfind('/');
  return slash == std::string::npos ? p : p.substr(slash + 1);
}

std::string deletingLastPathComponent(std::string_view path) {
  std::string p = normalisePath(path);
  if (p.empty() || p == "/") return p;
  std::size_t slash = p.rfind('/');
  if (slash == std::string::npos) return "";
  if (slash == 0) return "/";
  return p.substr(0, slash);
}

bool isValidUtf8(std::string_view text) {
  const auto* s = reinterpret_cast<const uint8_t*>(text.data());
  int32_t length = static_cast<int32_t>(text.size());
  for (int32_t i = 0; i < length;) {
    if (s[i] < 0x80) {
      ++i;
      continue;
    }
    UChar32 c;
    U8_NEXT(s, i, length, c);
    if (c < 0) return false;
  }
  return true;
}

void appendUtf8(std::string& out, char32_t c) {
  if (c < 0x80) {
    out += static_cast<char>(c);
  } else if (c < 0x800) {
    out += static_cast<char>(0xC0 | (c >> 6));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else if (c < 0x10000) {
    out += static_cast<char>(0xE0 | (c >> 12));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else if (c < 0x110000) {
    out += static_cast<char>(0xF0 | (c >> 18));
    out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  }
}

std::size_t utf16Length(std::string_view utf8) {
  std::size_t units = 0;
  for (unsigned char c : utf8) {
    if ((c & 0xC0) != 0x80) ++units;  // a lead byte or ASCII starts a code point
    if ((c & 0xF8) == 0xF0) ++units;  // four-byte sequences need a surrogate pair
  }
  return units;
}

}  // namespace quarvel
