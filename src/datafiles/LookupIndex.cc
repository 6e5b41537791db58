#include "datafiles/LookupIndex.h"

#include <climits>
#include <cstdint>
#include <cstring>
#include <functional>

#include "common/StringUtil.h"

namespace quarvel {

namespace {

// Characters without case mappings that keys often hold (Hangul, CJK
// ideographs and punctuation): lower-casing leaves them and their
// neighbours alone, so a key made only of these and ASCII needs no ICU.
bool caseless(char32_t c) {
  return (c >= 0xAC00 && c <= 0xD7A3) || (c >= 0x1100 && c <= 0x11FF) ||
         (c >= 0x3130 && c <= 0x318F) || (c >= 0x4E00 && c <= 0x9FFF) ||
         (c >= 0x3000 && c <= 0x303F);
}

}  // namespace

void lowerKeyInto(std::string& out, std::string_view text) {
  out.assign(text);
  std::size_t i = 0;
  // Words of ASCII are lower-cased eight bytes at a time: each byte from
  // 'A' to 'Z' gains 0x20. A word with a byte beyond ASCII goes on below.
  constexpr std::uint64_t kOnes = 0x0101010101010101ULL, kHighs = 0x8080808080808080ULL;
  for (std::uint64_t word; i + 8 <= out.size(); i += 8) {
    std::memcpy(&word, out.data() + i, 8);
    if (word & kHighs) break;
    const std::uint64_t fromA = word + kOnes * (0x80 - 'A');      // high bit: byte >= 'A'
    const std::uint64_t pastZ = word + kOnes * (0x80 - 'Z' - 1);  // high bit: byte > 'Z'
    word |= ((fromA ^ pastZ) & kHighs) >> 2;
    std::memcpy(out.data() + i, &word, 8);
  }
  while (i < out.size()) {
    const auto byte = static_cast<unsigned char>(out[i]);
    if (byte < 0x80) {
      if (byte >= 'A' && byte <= 'Z') out[i] = static_cast<char>(byte + ('a' - 'A'));
      ++i;
      continue;
    }
    if ((byte & 0xF0) == 0xE0 && i + 2 < out.size()) {
      const auto b1 = static_cast<unsigned char>(out[i + 1]);
      const auto b2 = static_cast<unsigned char>(out[i + 2]);
      if ((b1 & 0xC0) == 0x80 && (b2 & 0xC0) == 0x80) {
        const char32_t c = ((byte & 0x0Fu) << 12) | ((b1 & 0x3Fu) << 6) | (b2 & 0x3Fu);
        if (caseless(c)) {
          i += 3;
          continue;
        }
      }
    }
    out = lowercase(text);
    return;
  }
}

std::string lowerRecordKey(std::string_view company, std::string_view product,
                           std::string_view version, std::string_view originalFile) {
  std::string key;
  key.reserve(company.size() + product.size() + version.size() + originalFile.size() + 3);
  key.append(company).append("\t").append(product).append("\t");
  key.append(version).append("\t").append(originalFile);
  return lowerKey(key);
}

std::string lowerKey(std::string_view text) {
  std::string out;
  lowerKeyInto(out, text);
  return out;
}

std::int64_t LookupIndex::findLowered(std::string_view key) const {
  thread_local std::string scratch;
  lowerKeyInto(scratch, key);
  return find(scratch);
}

std::uint32_t LookupIndex::hashOf(std::string_view key) {
  const std::uint64_t hash = std::hash<std::string_view>{}(key);
  return static_cast<std::uint32_t>(hash ^ (hash >> 32));
}

std::size_t LookupIndex::slotOf(std::string_view key, std::uint32_t hash) const {
  const std::size_t mask = slots_.size() - 1;
  for (std::size_t at = hash & mask;; at = (at + 1) & mask) {
    const Slot& slot = slots_[at];
    if (slot.value < 0) return at;
    if (slot.hash == hash && slot.length == key.size() &&
        std::string_view(keys_).substr(slot.offset, slot.length) == key)
      return at;
  }
}

void LookupIndex::rehash(std::size_t slotCount) {
  std::vector<Slot> old = std::move(slots_);
  slots_.assign(slotCount, Slot{});
  const std::size_t mask = slotCount - 1;
  for (const Slot& slot : old) {
    if (slot.value < 0) continue;
    std::size_t at = slot.hash & mask;
    while (slots_[at].value >= 0) at = (at + 1) & mask;
    slots_[at] = slot;
  }
}

void LookupIndex::reserve(std::size_t count) {
  std::size_t wanted = 16;
  while (wanted < 2 * count) wanted *= 2;
  if (wanted > slots_.size()) rehash(wanted);
}

void LookupIndex::clear() {
  keys_.clear();
  slots_.clear();
  size_ = 0;
}

void LookupIndex::set(std::string_view key, std::int64_t index) {
  setHashed(key, hashOf(key), index);
}

void LookupIndex::setHashed(std::string_view key, std::uint32_t hash, std::int64_t index) {
  if (index < 0 || index > INT32_MAX) return;
  if (2 * (size_ + 1) > slots_.size()) reserve(size_ + 1);
  Slot& slot = slots_[slotOf(key, hash)];
  if (slot.value < 0 && keys_.size() + key.size() > UINT32_MAX) return;
  if (slot.value < 0) {
    slot.hash = hash;
    slot.offset = static_cast<std::uint32_t>(keys_.size());
    slot.length = static_cast<std::uint32_t>(key.size());
    keys_.append(key);
    ++size_;
  }
  slot.value = static_cast<std::int32_t>(index);
}

std::int64_t LookupIndex::find(std::string_view key) const {
  if (slots_.empty()) return -1;
  return slots_[slotOf(key, hashOf(key))].value;
}

void indexField(LookupIndex& index, TableMulti& table, std::string_view field) {
  const std::uint64_t fieldIndex = table.getFieldIndex(field);
  const std::vector<RecordPtr>& records = table.m_arrData();
  index.setRows(0, records.size(), [&](std::int64_t row, std::string&) {
    const RecordPtr& record = records[static_cast<std::size_t>(row)];
    if (fieldIndex == Table::kNotFound || !record || fieldIndex >= record->size())
      return std::string_view(Table::kOutOfBounds);
    return (*record)[fieldIndex];
  });
}

}  // namespace quarvel
