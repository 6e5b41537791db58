#include "quarvel/settings/PropertyList.h"

#include <plist/plist.h>

#include <cmath>
#include <cstdlib>
#include <limits>
#include <memory>

namespace quarvel {

namespace {

struct PlistFree {
  void operator()(plist_t node) const { plist_free(node); }
};
using PlistPtr = std::unique_ptr<void, PlistFree>;

// Nesting deeper than this is treated as a damaged document; it keeps the
// recursive conversion from exhausting the stack.
constexpr int kMaxDepth = 256;

std::optional<PlistValue> fromNode(plist_t node, int depth) {
  if (depth > kMaxDepth) return std::nullopt;
  switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
      std::uint8_t b = 0;
      plist_get_bool_val(node, &b);
      return PlistValue::boolean(b != 0);
    }
    case PLIST_UINT: {
      // libplist keeps every integer as 64 unsigned bits; the documents we
      // read hold signed ones.
      std::uint64_t u = 0;
      plist_get_uint_val(node, &u);
      return PlistValue::integer(static_cast<std::int64_t>(u));
    }
    case PLIST_UID: {
      std::uint64_t u = 0;
      plist_get_uid_val(node, &u);
      return PlistValue::integer(static_cast<std::int64_t>(u));
    }
    case PLIST_REAL: {
      double d = 0;
      plist_get_real_val(node, &d);
      return PlistValue::real(d);
    }
    case PLIST_STRING: {
      std::uint64_t length = 0;
      const char* s = plist_get_string_ptr(node, &length);
      return PlistValue::string(s ? std::string(s, length) : std::string());
    }
    case PLIST_KEY: {
      char* s = nullptr;
      plist_get_key_val(node, &s);
      std::string text = s ? s : "";
      std::free(s);
      return PlistValue::string(std::move(text));
    }
    case PLIST_DATA: {
      char* bytes = nullptr;
      std::uint64_t length = 0;
      plist_get_data_val(node, &bytes, &length);
      PlistData data(reinterpret_cast<std::uint8_t*>(bytes),
                     reinterpret_cast<std::uint8_t*>(bytes) + (bytes ? length : 0));
      std::free(bytes);
      return PlistValue::data(std::move(data));
    }
    case PLIST_DATE: {
      std::int32_t sec = 0, usec = 0;
      plist_get_date_val(node, &sec, &usec);
      // The fraction comes back without its sign.
      double fraction = usec / 1e6;
      return PlistValue::date({sec < 0 ? sec - fraction : sec + fraction});
    }
    case PLIST_ARRAY: {
      PlistArray items;
      std::uint32_t n = plist_array_get_size(node);
      items.reserve(n);
      for (std::uint32_t i = 0; i < n; ++i) {
        plist_t item = plist_array_get_item(node, i);
        if (!item) continue;
        auto value = fromNode(item, depth + 1);
        if (!value) return std::nullopt;
        items.push_back(std::move(*value));
      }
      return PlistValue::array(std::move(items));
    }
    case PLIST_DICT: {
      PlistDictionary entries;
      plist_dict_iter it = nullptr;
      plist_dict_new_iter(node, &it);
      if (!it) return PlistValue::dictionary({});
      for (;;) {
        char* key = nullptr;
        plist_t item = nullptr;
        plist_dict_next_item(node, it, &key, &item);
        if (!item) {
          std::free(key);
          break;
        }
        auto value = fromNode(item, depth + 1);
        if (!value) {
          std::free(key);
          std::free(it);
          return std::nullopt;
        }
        entries.insert_or_assign(key ? key : "", std::move(*value));
        std::free(key);
      }
      std::free(it);
      return PlistValue::dictionary(std::move(entries));
    }
    default:
      return PlistValue();
  }
}

plist_t toNode(const PlistValue& value) {
  switch (value.kind()) {
    case PlistValue::Kind::None:
      return plist_new_string("");
    case PlistValue::Kind::Boolean:
      return plist_new_bool(value.boolValue() ? 1 : 0);
    case PlistValue::Kind::Integer:
      return plist_new_uint(static_cast<std::uint64_t>(value.integerValue()));
    case PlistValue::Kind::Real:
      return plist_new_real(value.doubleValue());
    case PlistValue::Kind::String:
      return plist_new_string(value.asString()->c_str());
    case PlistValue::Kind::Data: {
      const PlistData& d = *value.asData();
      return plist_new_data(reinterpret_cast<const char*>(d.data()), d.size());
    }
    case PlistValue::Kind::Date: {
      // libplist holds dates as 32-bit seconds around 2001; clamp outside.
      double s = value.asDate()->secondsSinceReferenceDate;
      if (std::isnan(s)) s = 0;
      constexpr double kMax = std::numeric_limits<std::int32_t>::max();
      constexpr double kMin = std::numeric_limits<std::int32_t>::min();
      s = std::fmin(std::fmax(s, kMin), kMax);
      double whole = std::trunc(s);
      // libplist adds the microseconds to the seconds, so they carry the sign.
      auto usec = static_cast<std::int32_t>(std::lround((s - whole) * 1e6));
      if (usec > 999999) usec = 999999;
      if (usec < -999999) usec = -999999;
      return plist_new_date(static_cast<std::int32_t>(whole), usec);
    }
    case PlistValue::Kind::URL:
      return plist_new_string(value.asURL()->text.c_str());
    case PlistValue::Kind::Array: {
      plist_t node = plist_new_array();
      for (const PlistValue& item : *value.asArray()) plist_array_append_item(node, toNode(item));
      return node;
    }
    case PlistValue::Kind::Dictionary: {
      plist_t node = plist_new_dict();
      for (const auto& [key, item] : *value.asDictionary()) {
        if (item.isNone()) continue;
        plist_dict_set_item(node, key.c_str(), toNode(item));
      }
      return node;
    }
  }
  return plist_new_string("");
}

// Reads a big-endian unsigned number of `width` bytes at `at`; false when it
// does not fit in the document.
bool readBigEndian(std::string_view bytes, std::uint64_t at, std::uint64_t width,
                   std::uint64_t& value) {
  if (width == 0 || width > 8 || at > bytes.size() || bytes.size() - at < width) return false;
  value = 0;
  for (std::uint64_t i = 0; i < width; ++i)
    value = (value << 8) | static_cast<unsigned char>(bytes[at + i]);
  return true;
}

// libplist aborts the process (an assertion) when it hands out a string or a
// dictionary key holding a NUL character, which only a binary document can
// carry. Such a document is refused before libplist builds its tree.
bool binaryHasNulInStrings(std::string_view bytes) {
  constexpr std::size_t kTrailer = 32;
  if (bytes.size() < 8 + kTrailer) return false;
  std::uint64_t offsetSize = 0, objectCount = 0, tableOffset = 0;
  std::uint64_t trailer = bytes.size() - kTrailer;
  if (!readBigEndian(bytes, trailer + 6, 1, offsetSize) ||
      !readBigEndian(bytes, trailer + 8, 8, objectCount) ||
      !readBigEndian(bytes, trailer + 24, 8, tableOffset))
    return false;
  if (offsetSize == 0 || offsetSize > 8 || tableOffset >= bytes.size() ||
      objectCount > (bytes.size() - tableOffset) / offsetSize)
    return false;  // libplist refuses these itself
  for (std::uint64_t i = 0; i < objectCount; ++i) {
    std::uint64_t at = 0;
    if (!readBigEndian(bytes, tableOffset + i * offsetSize, offsetSize, at) || at >= bytes.size())
      continue;
    unsigned marker = static_cast<unsigned char>(bytes[at]);
    unsigned kind = marker >> 4;
    if (kind != 0x5 && kind != 0x6) continue;  // ASCII and UTF-16 strings
    std::uint64_t length = marker & 0xF;
    std::uint64_t start = at + 1;
    if (length == 0xF) {
      std::uint64_t sizeMarker = 0;
      if (!readBigEndian(bytes, start, 1, sizeMarker) || (sizeMarker >> 4) != 0x1) continue;
      std::uint64_t width = std::uint64_t{1} << (sizeMarker & 0xF);
      if (!readBigEndian(bytes, start + 1, width, length)) continue;
      start += 1 + width;
    }
    std::uint64_t unit = kind == 0x6 ? 2 : 1;
    if (start > bytes.size() || length > (bytes.size() - start) / unit) continue;
    for (std::uint64_t k = 0; k < length; ++k) {
      bool nul = unit == 1 ? bytes[start + k] == '\0'
                           : bytes[start + 2 * k] == '\0' && bytes[start + 2 * k + 1] == '\0';
      if (nul) return true;
    }
  }
  return false;
}

}  // namespace

std::optional<PlistValue> readPropertyList(std::string_view bytes) {
  if (bytes.empty() || bytes.size() > std::numeric_limits<std::uint32_t>::max())
    return std::nullopt;
  if (plist_is_binary(bytes.data(), static_cast<std::uint32_t>(bytes.size())) &&
      binaryHasNulInStrings(bytes))
    return std::nullopt;
  plist_t root = nullptr;
  plist_from_memory(bytes.data(), static_cast<std::uint32_t>(bytes.size()), &root);
  if (!root) return std::nullopt;
  PlistPtr owner(root);
  return fromNode(root, 0);
}

std::string writeXmlPropertyList(const PlistValue& value) {
  PlistPtr root(toNode(value));
  char* xml = nullptr;
  std::uint32_t length = 0;
  plist_to_xml(root.get(), &xml, &length);
  std::string out = xml ? std::string(xml, length) : std::string();
  plist_to_xml_free(xml);
  return out;
}

}  // namespace quarvel
