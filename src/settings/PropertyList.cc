#include "settings/PropertyList.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdio>
#include <limits>
#include <utility>
#include <vector>

#include "common/Log.h"
#include "settings/PropertyListCodec.h"

namespace quarvel {

namespace plist_codec {

namespace {

constexpr std::size_t kLoggedDrops = 100;

// Days between 1970-01-01 and the given civil date (proleptic Gregorian).
std::int64_t daysFromCivil(std::int64_t y, unsigned m, unsigned d) {
  y -= m <= 2;
  const std::int64_t era = (y >= 0 ? y : y - 399) / 400;
  const unsigned yoe = static_cast<unsigned>(y - era * 400);
  const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<std::int64_t>(doe) - 719468;
}

void civilFromDays(std::int64_t z, std::int64_t& y, unsigned& m, unsigned& d) {
  z += 719468;
  const std::int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  const unsigned doe = static_cast<unsigned>(z - era * 146097);
  const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const unsigned mp = (5 * doy + 2) / 153;
  d = doy - (153 * mp + 2) / 5 + 1;
  m = mp < 10 ? mp + 3 : mp - 9;
  y = static_cast<std::int64_t>(yoe) + era * 400 + (m <= 2);
}

constexpr std::int64_t kReferenceDay = 11323;  // 2001-01-01 counted from 1970-01-01

std::int64_t secondsOf(std::int64_t y, unsigned mo, unsigned d, unsigned h, unsigned mi,
                       unsigned s) {
  return (daysFromCivil(y, mo, d) - kReferenceDay) * 86400 + h * 3600 + mi * 60 + s;
}

const double kFirstXmlDate = static_cast<double>(secondsOf(1, 1, 1, 0, 0, 0));
const double kLastXmlDate = static_cast<double>(secondsOf(9999, 12, 31, 23, 59, 59));

bool isXmlChar(std::uint32_t c) {
  if (c < 0x20) return c == 0x9 || c == 0xA || c == 0xD;
  return c <= 0xD7FF || (c >= 0xE000 && c <= 0xFFFD) || c >= 0x10000;
}

bool stringFitsXml(std::string_view text) {
  return forEachCodePoint(text, [](std::uint32_t c) { return isXmlChar(c); });
}

bool realFitsXml(double value) {
  if (!std::isnan(value)) return true;
  // The XML form writes NaN as "nan", which reads back as the plain quiet NaN.
  return std::bit_cast<std::uint64_t>(value) ==
         std::bit_cast<std::uint64_t>(std::numeric_limits<double>::quiet_NaN());
}

}  // namespace

DropLog::~DropLog() {
  if (count_ > kLoggedDrops)
    logf("Property list: %zu more unreadable values left out", count_ - kLoggedDrops);
}

void DropLog::drop(const std::string& path, std::string_view why) {
  if (++count_ <= kLoggedDrops)
    logf("Property list: left out the value at %s (%.*s)", path.empty() ? "/" : path.c_str(),
         static_cast<int>(why.size()), why.data());
}

std::optional<double> parseXmlDate(std::string_view text) {
  // YYYY[-MM[-DD[THH[:MM[:SS]]]]]Z, as XML property lists write them.
  std::size_t i = 0;
  auto number = [&](std::size_t digits, unsigned& out) {
    if (text.size() - i < digits) return false;
    out = 0;
    for (std::size_t k = 0; k < digits; ++k, ++i) {
      if (text[i] < '0' || text[i] > '9') return false;
      out = out * 10 + static_cast<unsigned>(text[i] - '0');
    }
    return true;
  };
  auto separator = [&](char c) {
    if (i < text.size() && text[i] == c) {
      ++i;
      return true;
    }
    return false;
  };
  unsigned year = 0, month = 1, day = 1, hour = 0, minute = 0, second = 0;
  if (!number(4, year)) return std::nullopt;
  if (separator('-')) {
    if (!number(2, month)) return std::nullopt;
    if (separator('-')) {
      if (!number(2, day)) return std::nullopt;
      if (separator('T')) {
        if (!number(2, hour)) return std::nullopt;
        if (separator(':')) {
          if (!number(2, minute)) return std::nullopt;
          if (separator(':') && !number(2, second)) return std::nullopt;
        }
      }
    }
  }
  if (!separator('Z') || i != text.size()) return std::nullopt;
  if (month < 1 || month > 12 || day < 1 || hour > 23 || minute > 59 || second > 59)
    return std::nullopt;
  // The day must exist in that month: it survives the trip through days.
  std::int64_t y2 = 0;
  unsigned m2 = 0, d2 = 0;
  civilFromDays(daysFromCivil(year, month, day), y2, m2, d2);
  if (m2 != month || d2 != day) return std::nullopt;
  return static_cast<double>(secondsOf(year, month, day, hour, minute, second));
}

bool dateFitsXml(double seconds) {
  if (!std::isfinite(seconds) || std::trunc(seconds) != seconds) return false;
  if (seconds == 0 && std::signbit(seconds)) return false;  // -0 would read back as +0
  return seconds >= kFirstXmlDate && seconds <= kLastXmlDate;
}

std::string formatXmlDate(double seconds) {
  // Outside what the XML form holds: the nearest date it does.
  if (std::isnan(seconds)) seconds = 0;
  seconds = std::floor(std::fmin(std::fmax(seconds, kFirstXmlDate), kLastXmlDate));
  auto whole = static_cast<std::int64_t>(seconds);
  std::int64_t days = (whole >= 0 ? whole : whole - 86399) / 86400;
  std::int64_t rest = whole - days * 86400;
  std::int64_t y = 0;
  unsigned m = 0, d = 0;
  civilFromDays(days + kReferenceDay, y, m, d);
  char text[40];
  std::snprintf(text, sizeof text, "%04lld-%02u-%02uT%02lld:%02lld:%02lldZ",
                static_cast<long long>(y), m, d, static_cast<long long>(rest / 3600),
                static_cast<long long>(rest / 60 % 60), static_cast<long long>(rest % 60));
  return text;
}

std::int32_t decodeUtf8(std::string_view text, std::size_t& i) {
  auto byte = [&](std::size_t k) { return static_cast<unsigned char>(text[k]); };
  unsigned char b0 = byte(i);
  if (b0 < 0x80) {
    ++i;
    return b0;
  }
  std::size_t length;
  std::uint32_t c, minimum;
  if (b0 >= 0xC2 && b0 <= 0xDF) {
    length = 2, c = b0 & 0x1F, minimum = 0x80;
  } else if (b0 >= 0xE0 && b0 <= 0xEF) {
    length = 3, c = b0 & 0x0F, minimum = 0x800;
  } else if (b0 >= 0xF0 && b0 <= 0xF4) {
    length = 4, c = b0 & 0x07, minimum = 0x10000;
  } else {
    return -1;
  }
  if (text.size() - i < length) return -1;
  for (std::size_t k = 1; k < length; ++k) {
    unsigned char b = byte(i + k);
    if ((b & 0xC0) != 0x80) return -1;
    c = (c << 6) | (b & 0x3F);
  }
  if (c < minimum || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) return -1;
  i += length;
  return static_cast<std::int32_t>(c);
}

void appendUtf8(std::string& out, std::uint32_t c) {
  if (c < 0x80) {
    out.push_back(static_cast<char>(c));
  } else if (c < 0x800) {
    out.push_back(static_cast<char>(0xC0 | (c >> 6)));
    out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
  } else if (c < 0x10000) {
    out.push_back(static_cast<char>(0xE0 | (c >> 12)));
    out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xF0 | (c >> 18)));
    out.push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
  }
}

std::u16string toUtf16(std::string_view text) {
  std::u16string units;
  units.reserve(text.size());
  for (std::size_t i = 0; i < text.size();) {
    std::int32_t c = decodeUtf8(text, i);
    if (c < 0) {
      // A lone surrogate in its three-byte form is kept as that unit.
      if (text.size() - i >= 3 && static_cast<unsigned char>(text[i]) == 0xED &&
          (static_cast<unsigned char>(text[i + 1]) & 0xE0) == 0xA0 &&
          (static_cast<unsigned char>(text[i + 2]) & 0xC0) == 0x80) {
        units.push_back(
            static_cast<char16_t>(0xD000 | ((text[i + 1] & 0x3F) << 6) | (text[i + 2] & 0x3F)));
        i += 3;
      } else {
        units.push_back(u'\uFFFD');
        ++i;
      }
      continue;
    }
    if (c >= 0x10000) {
      units.push_back(static_cast<char16_t>(0xD800 + ((c - 0x10000) >> 10)));
      units.push_back(static_cast<char16_t>(0xDC00 + ((c - 0x10000) & 0x3FF)));
    } else {
      units.push_back(static_cast<char16_t>(c));
    }
  }
  return units;
}

std::string fromUtf16(std::u16string_view units) {
  std::string out;
  out.reserve(units.size());
  for (std::size_t i = 0; i < units.size(); ++i) {
    std::uint32_t c = units[i];
    if (c >= 0xD800 && c <= 0xDBFF && i + 1 < units.size() && units[i + 1] >= 0xDC00 &&
        units[i + 1] <= 0xDFFF) {
      c = 0x10000 + ((c - 0xD800) << 10) + (units[i + 1] - 0xDC00);
      ++i;
    }
    appendUtf8(out, c);  // a lone surrogate comes out in its three-byte form
  }
  return out;
}

}  // namespace plist_codec

using namespace plist_codec;

int nestingDepth(const PlistValue& value, int limit) {
  // Depth first over the containers entered so far, never more than limit + 1
  // of them at once.
  struct Step {
    const PlistArray* items = nullptr;
    std::size_t index = 0;
    PlistDictionary::const_iterator entry, end;
  };
  std::vector<Step> stack;
  int deepest = 0;
  auto enter = [&](const PlistValue& v) {
    if (const PlistArray* items = v.asArray()) {
      stack.push_back({items, 0, {}, {}});
    } else if (const PlistDictionary* entries = v.asDictionary()) {
      stack.push_back({nullptr, 0, entries->begin(), entries->end()});
    }
  };
  enter(value);
  while (!stack.empty()) {
    Step& top = stack.back();
    const PlistValue* child = nullptr;
    if (top.items) {
      if (top.index < top.items->size()) child = &(*top.items)[top.index++];
    } else if (top.entry != top.end) {
      child = &top.entry->second;
      ++top.entry;
    }
    if (!child) {
      stack.pop_back();
      continue;
    }
    deepest = std::max(deepest, static_cast<int>(stack.size()));
    if (deepest > limit) return limit + 1;
    enter(*child);
  }
  return deepest;
}

bool xmlHoldsExactly(const PlistValue& value) {
  switch (value.kind()) {
    case PlistValue::Kind::Real:
      return realFitsXml(value.doubleValue());
    case PlistValue::Kind::String:
      return stringFitsXml(*value.asString());
    case PlistValue::Kind::URL:
      return stringFitsXml(value.asURL()->text);
    case PlistValue::Kind::Date:
      return dateFitsXml(value.asDate()->secondsSinceReferenceDate);
    case PlistValue::Kind::Array:
      for (const PlistValue& item : *value.asArray())
        if (!xmlHoldsExactly(item)) return false;
      return true;
    case PlistValue::Kind::Dictionary:
      for (const auto& [key, item] : *value.asDictionary())
        if (!item.isNone() && (!stringFitsXml(key) || !xmlHoldsExactly(item))) return false;
      return true;
    default:
      return true;
  }
}

std::optional<PlistValue> readPropertyList(std::string_view bytes) {
  if (bytes.empty() || bytes.size() > kMaxPropertyListBytes) return std::nullopt;
  DropLog log;
  if (bytes.starts_with("bplist00")) return readBinary(bytes, log);
  return readXml(bytes, log);
}

std::optional<std::string> writePropertyList(const PlistValue& value) {
  if (nestingDepth(value) > kMaxPropertyListDepth) return std::nullopt;
  return xmlHoldsExactly(value) ? writeXmlPropertyList(value) : writeBinaryPropertyList(value);
}

}  // namespace quarvel
