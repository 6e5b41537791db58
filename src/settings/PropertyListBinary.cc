// The binary property-list form ("bplist00"): objects one after another
// behind the 8-byte header, an offset table giving where each starts, and a
// 32-byte trailer (offset width, reference width, object count, top object,
// table position). Containers hold object references, so a document is a
// graph: the reader follows it with the depth limit (which also ends
// reference cycles) and a budget of values bounded by the document's size.
#include <cmath>
#include <cstring>
#include <vector>

#include "settings/PropertyList.h"
#include "settings/PropertyListCodec.h"

namespace quarvel {

namespace plist_codec {

namespace {

constexpr std::size_t kHeader = 8;
constexpr std::size_t kTrailer = 32;

std::uint64_t bigEndian(const char* at, std::size_t width) {
  std::uint64_t value = 0;
  for (std::size_t i = 0; i < width; ++i) value = (value << 8) | static_cast<unsigned char>(at[i]);
  return value;
}

double bigEndianDouble(const char* at) {
  std::uint64_t bits = bigEndian(at, 8);
  double value;
  std::memcpy(&value, &bits, sizeof value);
  return value;
}

class BinaryReader {
 public:
  BinaryReader(std::string_view bytes, DropLog& log) : bytes_(bytes), log_(log) {}

  std::optional<PlistValue> read() {
    if (bytes_.size() < kHeader + kTrailer + 1) return std::nullopt;
    const char* trailer = bytes_.data() + bytes_.size() - kTrailer;
    offsetWidth_ = static_cast<unsigned char>(trailer[6]);
    refWidth_ = static_cast<unsigned char>(trailer[7]);
    count_ = bigEndian(trailer + 8, 8);
    std::uint64_t top = bigEndian(trailer + 16, 8);
    table_ = bigEndian(trailer + 24, 8);
    const std::uint64_t tableEnd = bytes_.size() - kTrailer;
    if (offsetWidth_ < 1 || offsetWidth_ > 8 || refWidth_ < 1 || refWidth_ > 8 || count_ == 0 ||
        top >= count_ || table_ < kHeader + 1 || table_ > tableEnd ||
        count_ > (tableEnd - table_) / offsetWidth_)
      return std::nullopt;
    budget_ = bytes_.size();
    std::string path;
    const char* why = nullptr;
    std::optional<PlistValue> value = object(top, 0, path, why);
    if (failed_ || !value) return std::nullopt;
    return value;
  }

 private:
  // Where object `ref` starts, or 0 when the reference or its offset is bad.
  std::uint64_t offsetOf(std::uint64_t ref) const {
    if (ref >= count_) return 0;
    std::uint64_t at = bigEndian(bytes_.data() + table_ + ref * offsetWidth_, offsetWidth_);
    return at >= kHeader && at < table_ ? at : 0;
  }

  // Whether `length` items of `width` bytes fit from `at` up to the table.
  bool fits(std::uint64_t at, std::uint64_t length, std::uint64_t width) const {
    return at <= table_ && length <= (table_ - at) / width;
  }

  // An object's count: the marker's low nibble, or an integer object after it.
  bool lengthOf(unsigned low, std::uint64_t& at, std::uint64_t& length) const {
    if (low != 0xF) {
      length = low;
      return true;
    }
    if (!fits(at, 1, 1)) return false;
    unsigned marker = static_cast<unsigned char>(bytes_[at]);
    if ((marker >> 4) != 0x1 || (marker & 0xF) > 3) return false;
    std::uint64_t width = std::uint64_t{1} << (marker & 0xF);
    if (!fits(at + 1, 1, width)) return false;
    length = bigEndian(bytes_.data() + at + 1, width);
    at += 1 + width;
    return true;
  }

  std::optional<PlistValue> object(std::uint64_t ref, int depth, std::string& path,
                                   const char*& why) {
    if (depth > kMaxPropertyListDepth) {
      failed_ = true;  // too deep, or a reference cycle
      return std::nullopt;
    }
    if (budget_ == 0) {
      failed_ = true;  // more values than the document's size accounts for
      return std::nullopt;
    }
    --budget_;
    why = "bad object reference or offset";
    std::uint64_t at = offsetOf(ref);
    if (at == 0) return std::nullopt;
    const unsigned marker = static_cast<unsigned char>(bytes_[at]);
    const unsigned low = marker & 0xF;
    ++at;
    why = "bad object length";
    switch (marker >> 4) {
      case 0x0:
        why = "null or unknown object";
        if (marker == 0x08 || marker == 0x09) return PlistValue::boolean(marker == 0x09);
        return std::nullopt;
      case 0x1: {
        if (low > 4) break;
        std::uint64_t width = std::uint64_t{1} << low;
        if (!fits(at, 1, width)) return std::nullopt;
        const char* p = bytes_.data() + at;
        if (width < 8) return PlistValue::integer(static_cast<std::int64_t>(bigEndian(p, width)));
        if (width == 8) return PlistValue::integer(static_cast<std::int64_t>(bigEndian(p, 8)));
        // 16 bytes: a signed 128-bit number; 64 bits hold it unless it is
        // below -2^63 or at or past 2^64.
        std::uint64_t high = bigEndian(p, 8), lowBits = bigEndian(p + 8, 8);
        if (high == 0) return PlistValue::unsignedInteger(lowBits);
        if (high == ~std::uint64_t{0} && (lowBits >> 63))
          return PlistValue::integer(static_cast<std::int64_t>(lowBits));
        why = "integer out of range";
        return std::nullopt;
      }
      case 0x2:
        if (low == 2 && fits(at, 1, 4)) {
          std::uint32_t bits = static_cast<std::uint32_t>(bigEndian(bytes_.data() + at, 4));
          float value;
          std::memcpy(&value, &bits, sizeof value);
          return PlistValue::real(value);
        }
        if (low == 3 && fits(at, 1, 8))
          return PlistValue::real(bigEndianDouble(bytes_.data() + at));
        break;
      case 0x3:
        if (low == 3 && fits(at, 1, 8))
          return PlistValue::date({bigEndianDouble(bytes_.data() + at)});
        break;
      case 0x4: {
        std::uint64_t length = 0;
        if (!lengthOf(low, at, length) || !fits(at, length, 1)) return std::nullopt;
        const auto* p = reinterpret_cast<const std::uint8_t*>(bytes_.data() + at);
        return PlistValue::data(PlistData(p, p + length));
      }
      case 0x5: {
        std::uint64_t length = 0;
        if (!lengthOf(low, at, length) || !fits(at, length, 1)) return std::nullopt;
        // ASCII; a byte past 0x7F is taken as Latin-1 rather than lost.
        std::string text;
        text.reserve(length);
        for (std::uint64_t i = 0; i < length; ++i)
          appendUtf8(text, static_cast<unsigned char>(bytes_[at + i]));
        return PlistValue::string(std::move(text));
      }
      case 0x6: {
        std::uint64_t length = 0;
        if (!lengthOf(low, at, length) || !fits(at, length, 2)) return std::nullopt;
        std::u16string units(length, u'\0');
        for (std::uint64_t i = 0; i < length; ++i)
          units[i] = static_cast<char16_t>(bigEndian(bytes_.data() + at + 2 * i, 2));
        return PlistValue::string(fromUtf16(units));
      }
      case 0x8:
        if (!fits(at, 1, low + 1)) return std::nullopt;
        if (low > 7) break;
        return PlistValue::integer(
            static_cast<std::int64_t>(bigEndian(bytes_.data() + at, low + 1)));
      case 0xA:
      case 0xC: {  // array, set
        std::uint64_t length = 0;
        if (!lengthOf(low, at, length) || !fits(at, length, refWidth_)) return std::nullopt;
        PlistArray items;
        items.reserve(length);
        for (std::uint64_t i = 0; i < length; ++i) {
          std::size_t mark = path.size();
          path += "[" + std::to_string(i) + "]";
          const char* childWhy = nullptr;
          auto item = object(reference(at, i), depth + 1, path, childWhy);
          if (failed_) return std::nullopt;
          if (item)
            items.push_back(std::move(*item));
          else
            log_.drop(path, childWhy);
          path.resize(mark);
        }
        return PlistValue::array(std::move(items));
      }
      case 0xD: {
        std::uint64_t length = 0;
        if (!lengthOf(low, at, length) || length > (~std::uint64_t{0}) / 2 ||
            !fits(at, 2 * length, refWidth_))
          return std::nullopt;
        PlistDictionary entries;
        for (std::uint64_t i = 0; i < length; ++i) {
          std::size_t mark = path.size();
          const char* childWhy = nullptr;
          std::optional<std::string> key = keyAt(reference(at, i), childWhy);
          path += key ? "/" + *key : "/(key " + std::to_string(i) + ")";
          std::optional<PlistValue> item;
          if (key) item = object(reference(at, length + i), depth + 1, path, childWhy);
          if (failed_) return std::nullopt;
          if (item)
            entries.insert_or_assign(std::move(*key), std::move(*item));
          else
            log_.drop(path, childWhy);
          path.resize(mark);
        }
        return PlistValue::dictionary(std::move(entries));
      }
      default:
        break;
    }
    why = "unknown object";
    return std::nullopt;
  }

  std::uint64_t reference(std::uint64_t at, std::uint64_t i) const {
    return bigEndian(bytes_.data() + at + i * refWidth_, refWidth_);
  }

  std::optional<std::string> keyAt(std::uint64_t ref, const char*& why) {
    std::uint64_t at = offsetOf(ref);
    unsigned kind = at ? static_cast<unsigned char>(bytes_[at]) >> 4 : 0;
    if (kind != 0x5 && kind != 0x6) {
      why = "key that is no string";
      return std::nullopt;
    }
    std::string ignored;
    auto key = object(ref, 0, ignored, why);
    if (!key) return std::nullopt;
    return *key->asString();
  }

  std::string_view bytes_;
  DropLog& log_;
  unsigned offsetWidth_ = 0, refWidth_ = 0;
  std::uint64_t count_ = 0, table_ = 0;
  std::uint64_t budget_ = 0;
  bool failed_ = false;
};

// --- Writing ---

void putBigEndian(std::string& out, std::uint64_t value, std::size_t width) {
  for (std::size_t i = width; i-- > 0;) out.push_back(static_cast<char>(value >> (8 * i)));
}

std::size_t widthFor(std::uint64_t largest) {
  if (largest < (std::uint64_t{1} << 8)) return 1;
  if (largest < (std::uint64_t{1} << 16)) return 2;
  if (largest < (std::uint64_t{1} << 32)) return 4;
  return 8;
}

void putInteger(std::string& out, std::int64_t value, bool isUnsigned) {
  if (isUnsigned) {  // 2^63 and more: the 16-byte form
    out.push_back('\x14');
    putBigEndian(out, 0, 8);
    putBigEndian(out, static_cast<std::uint64_t>(value), 8);
    return;
  }
  std::size_t width = value < 0 ? 8 : widthFor(static_cast<std::uint64_t>(value));
  static const char kMarker[] = {0, '\x10', '\x11', 0, '\x12', 0, 0, 0, '\x13'};
  out.push_back(kMarker[width]);
  putBigEndian(out, static_cast<std::uint64_t>(value), width);
}

void putMarker(std::string& out, unsigned kind, std::uint64_t length) {
  if (length < 15) {
    out.push_back(static_cast<char>((kind << 4) | length));
    return;
  }
  out.push_back(static_cast<char>((kind << 4) | 0xF));
  putInteger(out, static_cast<std::int64_t>(length), false);
}

void putDouble(std::string& out, char marker, double value) {
  std::uint64_t bits;
  std::memcpy(&bits, &value, sizeof bits);
  out.push_back(marker);
  putBigEndian(out, bits, 8);
}

class BinaryWriter {
 public:
  std::string write(const PlistValue& value) {
    refWidth_ = widthFor(countObjects(value));
    add(value);
    std::string out = "bplist00";
    std::vector<std::uint64_t> offsets;
    offsets.reserve(objects_.size());
    for (const std::string& object : objects_) {
      offsets.push_back(out.size());
      out += object;
    }
    const std::uint64_t table = out.size();
    const std::size_t offsetWidth = widthFor(offsets.empty() ? 0 : offsets.back());
    for (std::uint64_t offset : offsets) putBigEndian(out, offset, offsetWidth);
    out.append(6, '\0');
    out.push_back(static_cast<char>(offsetWidth));
    out.push_back(static_cast<char>(refWidth_));
    putBigEndian(out, objects_.size(), 8);
    putBigEndian(out, 0, 8);  // the top object is the first
    putBigEndian(out, table, 8);
    return out;
  }

 private:
  static std::uint64_t countObjects(const PlistValue& value) {
    std::uint64_t n = 1;
    if (const PlistArray* items = value.asArray())
      for (const PlistValue& item : *items) n += countObjects(item);
    if (const PlistDictionary* entries = value.asDictionary())
      for (const auto& [key, item] : *entries)
        if (!item.isNone()) n += 1 + countObjects(item);
    return n;
  }

  std::uint64_t addString(std::string_view text) {
    std::string out;
    bool ascii = true;
    for (char c : text) ascii = ascii && static_cast<unsigned char>(c) < 0x80;
    if (ascii) {
      putMarker(out, 0x5, text.size());
      out += text;
    } else {
      std::u16string units = toUtf16(text);
      putMarker(out, 0x6, units.size());
      for (char16_t unit : units) putBigEndian(out, unit, 2);
    }
    objects_.push_back(std::move(out));
    return objects_.size() - 1;
  }

  std::uint64_t add(const PlistValue& value) {
    std::string out;
    switch (value.kind()) {
      case PlistValue::Kind::None:
        return addString("");
      case PlistValue::Kind::String:
        return addString(*value.asString());
      case PlistValue::Kind::URL:
        return addString(value.asURL()->text);
      case PlistValue::Kind::Boolean:
        out.push_back(value.boolValue() ? '\x09' : '\x08');
        break;
      case PlistValue::Kind::Integer:
        putInteger(out, value.integerValue(), value.isUnsignedInteger());
        break;
      case PlistValue::Kind::Real:
        putDouble(out, '\x23', value.doubleValue());
        break;
      case PlistValue::Kind::Date:
        putDouble(out, '\x33', value.asDate()->secondsSinceReferenceDate);
        break;
      case PlistValue::Kind::Data: {
        const PlistData& data = *value.asData();
        putMarker(out, 0x4, data.size());
        out.append(reinterpret_cast<const char*>(data.data()), data.size());
        break;
      }
      case PlistValue::Kind::Array: {
        std::uint64_t index = objects_.size();
        objects_.emplace_back();
        const PlistArray& items = *value.asArray();
        putMarker(out, 0xA, items.size());
        for (const PlistValue& item : items) putBigEndian(out, add(item), refWidth_);
        objects_[index] = std::move(out);
        return index;
      }
      case PlistValue::Kind::Dictionary: {
        std::uint64_t index = objects_.size();
        objects_.emplace_back();
        std::string keys, values;
        std::uint64_t n = 0;
        for (const auto& [key, item] : *value.asDictionary()) {
          if (item.isNone()) continue;
          ++n;
          putBigEndian(keys, addString(key), refWidth_);
          putBigEndian(values, add(item), refWidth_);
        }
        putMarker(out, 0xD, n);
        objects_[index] = std::move(out) + keys + values;
        return index;
      }
    }
    objects_.push_back(std::move(out));
    return objects_.size() - 1;
  }

  std::size_t refWidth_ = 1;
  std::vector<std::string> objects_;
};

}  // namespace

std::optional<PlistValue> readBinary(std::string_view bytes, DropLog& log) {
  return BinaryReader(bytes, log).read();
}

}  // namespace plist_codec

std::string writeBinaryPropertyList(const PlistValue& value) {
  return plist_codec::BinaryWriter().write(value);
}

}  // namespace quarvel
