#include "datafiles/LookupIndex.h"

#include <climits>
#include <cstdint>
#include <cstring>
#include <new>

#include "common/HugePages.h"
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

namespace {

constexpr std::uint64_t kOnes = 0x0101010101010101ULL, kHighs = 0x8080808080808080ULL;

// The 128-bit product of a and b folded to 64 bits: one multiplication
// spreads every input bit over the whole result.
inline std::uint64_t mix(std::uint64_t a, std::uint64_t b) {
  const unsigned __int128 product = static_cast<unsigned __int128>(a) * b;
  return static_cast<std::uint64_t>(product) ^ static_cast<std::uint64_t>(product >> 64);
}

constexpr std::uint64_t kHashSeed = 0x243F6A8885A308D3ULL;
constexpr std::uint64_t kHashMultiplier = 0x9E3779B97F4A7C15ULL;

// The last step of hashOf, given the state with the last word mixed in.
inline std::uint32_t finishHash(std::uint64_t state) {
  std::uint64_t hash = mix(state, kHashMultiplier);
  hash = mix(hash, 0xD6E8FEB86659FD93ULL);
  return static_cast<std::uint32_t>(hash ^ (hash >> 32));
}

// Each byte of an ASCII word from 'A' to 'Z' gains 0x20.
inline std::uint64_t lowerAsciiWord(std::uint64_t word) {
  const std::uint64_t fromA = word + kOnes * (0x80 - 'A');      // high bit: byte >= 'A'
  const std::uint64_t pastZ = word + kOnes * (0x80 - 'Z' - 1);  // high bit: byte > 'Z'
  return word | (((fromA ^ pastZ) & kHighs) >> 2);
}

// Whether n bytes at a and b are the same, read in eight-byte words at the
// offsets hashOf reads (the last word overlapping), which findLowered has
// just written: each load is served from one store.
inline bool sameBytes(const char* a, const char* b, std::size_t n) {
  if (n < 8) return n == 0 || std::memcmp(a, b, n) == 0;
  std::uint64_t x, y, differ = 0;
  for (std::size_t i = 0; i + 8 < n; i += 8) {
    std::memcpy(&x, a + i, 8);
    std::memcpy(&y, b + i, 8);
    differ |= x ^ y;
  }
  std::memcpy(&x, a + n - 8, 8);
  std::memcpy(&y, b + n - 8, 8);
  return (differ | (x ^ y)) == 0;
}

// Lowers the keys most look-ups take (ASCII, Hangul, CJK) into `out`, which
// has room for text.size() bytes. False when the key holds anything else
// (the text may then be partly written).
bool lowerSimpleKey(std::string_view text, char* out) {
  std::size_t i = 0;
  while (i < text.size()) {
    // Words of ASCII whole, also between characters beyond it.
    if (std::uint64_t word; i + 8 <= text.size()) {
      std::memcpy(&word, text.data() + i, 8);
      if ((word & kHighs) == 0) {
        word = lowerAsciiWord(word);
        std::memcpy(out + i, &word, 8);
        i += 8;
        continue;
      }
    }
    const auto byte = static_cast<unsigned char>(text[i]);
    if (byte < 0x80) {
      out[i++] = static_cast<char>(byte >= 'A' && byte <= 'Z' ? byte + ('a' - 'A') : byte);
      continue;
    }
    if ((byte & 0xF0) != 0xE0 || i + 2 >= text.size()) return false;
    const auto b1 = static_cast<unsigned char>(text[i + 1]);
    const auto b2 = static_cast<unsigned char>(text[i + 2]);
    if ((b1 & 0xC0) != 0x80 || (b2 & 0xC0) != 0x80) return false;
    if (!caseless(((byte & 0x0Fu) << 12) | ((b1 & 0x3Fu) << 6) | (b2 & 0x3Fu))) return false;
    std::memcpy(out + i, text.data() + i, 3);
    i += 3;
  }
  return true;
}

}  // namespace

bool LookupIndex::lowerSimpleHashed(std::string_view key, char* out, std::uint32_t& hashed) {
  if (key.size() >= 8) {
    // An ASCII key is lowered and hashed in one pass, as hashOf would hash
    // the lowered text, each word kept in a register: the hash never waits
    // on the bytes just written.
    // A word beyond ASCII sends the key to the path below at once.
    std::uint64_t hash = kHashSeed ^ key.size();
    std::uint64_t word;
    std::size_t i = 0;
    bool ascii = true;
    for (; ascii && i + 8 < key.size(); i += 8) {
      std::memcpy(&word, key.data() + i, 8);
      ascii = (word & kHighs) == 0;
      word = lowerAsciiWord(word);
      std::memcpy(out + i, &word, 8);
      hash = mix(hash ^ word, kHashMultiplier);
    }
    if (ascii) {
      std::memcpy(&word, key.data() + key.size() - 8, 8);
      if ((word & kHighs) == 0) {
        word = lowerAsciiWord(word);
        std::memcpy(out + key.size() - 8, &word, 8);
        hashed = finishHash(hash ^ word);
        return true;
      }
    }
  }
  // Shorter keys, and those beyond ASCII: lowered first, then hashed.
  if (!lowerSimpleKey(key, out)) return false;
  hashed = hashOf(std::string_view(out, key.size()));
  return true;
}

std::int64_t LookupIndex::findLowered(std::string_view key) const {
  constexpr std::size_t kStackKey = 256;
  if (slots_.empty()) return -1;
  // On the stack unless the key needs Unicode's full rules or is long.
  char lowered[kStackKey];
  if (key.size() <= kStackKey) {
    if (std::uint32_t hash = 0; lowerSimpleHashed(key, lowered, hash))
      return valueAt(slotOf(std::string_view(lowered, key.size()), hash));
  }
  thread_local std::string scratch;
  lowerKeyInto(scratch, key);
  return find(scratch);
}

std::uint32_t LookupIndex::hashOf(std::string_view key) {
  std::uint64_t hash = kHashSeed ^ key.size();
  const char* const bytes = key.data();
  const std::size_t size = key.size();
  std::uint64_t word = 0;
  if (size >= 8) {
    for (std::size_t i = 0; i + 8 < size; i += 8) {
      std::memcpy(&word, bytes + i, 8);
      hash = mix(hash ^ word, kHashMultiplier);
    }
    // The last eight bytes, overlapping the word before when the length is
    // not a multiple of eight: one fixed load rather than a copy of the
    // tail's length, which stalls what follows.
    std::memcpy(&word, bytes + size - 8, 8);
  } else if (size >= 4) {
    std::uint32_t first = 0, last = 0;
    std::memcpy(&first, bytes, 4);
    std::memcpy(&last, bytes + size - 4, 4);
    word = std::uint64_t{first} << 32 | last;
  } else if (size > 0) {
    word = std::uint64_t{static_cast<unsigned char>(bytes[0])} << 16 |
           std::uint64_t{static_cast<unsigned char>(bytes[size / 2])} << 8 |
           static_cast<unsigned char>(bytes[size - 1]);
  }
  return finishHash(hash ^ word);
}

std::size_t LookupIndex::slotOf(std::string_view key, std::uint32_t hash) const {
  const std::size_t mask = slots_.size() - 1;
  for (std::size_t at = hash & mask;; at = (at + 1) & mask) {
    const Slot& slot = slots_[at];
    if (slot.entry == 0) return at;
    if (slot.hash != hash) continue;
    // A hash that matches is almost always the key: its entry's length and
    // bytes are one read away from its value.
    const std::uint32_t* entry = entries_.data() + slot.entry - 1;
    if (entry[1] == key.size() &&
        sameBytes(reinterpret_cast<const char*>(entry + kEntryHead), key.data(), key.size()))
      return at;
  }
}

void LookupIndex::rehash(std::size_t slotCount) {
  const auto old = std::move(slots_);
  slots_.assign(slotCount, Slot{});
  const std::size_t mask = slotCount - 1;
  for (const Slot& slot : old) {
    if (slot.entry == 0) continue;
    std::size_t at = slot.hash & mask;
    while (slots_[at].entry != 0) at = (at + 1) & mask;
    slots_[at] = slot;
  }
}

void LookupIndex::reserve(std::size_t count) {
  // At most four slots in five used: probes stay short, and eight slots
  // share a cache line.
  std::size_t wanted = 16;
  while (wanted / 5 * 4 < count) wanted *= 2;
  if (wanted > slots_.size()) rehash(wanted);
}

void LookupIndex::reserveKeyBytes(std::size_t count, std::size_t bytes) {
  const std::size_t units = count * (kEntryHead + 1) + bytes / 4;
  if (units <= UINT32_MAX - entries_.size()) entries_.reserve(entries_.size() + units);
}

void LookupIndex::clear() {
  entries_.clear();
  slots_.clear();
  size_ = 0;
}

void LookupIndex::set(std::string_view key, std::int64_t index) {
  setHashed(key, hashOf(key), index);
}

void LookupIndex::setHashed(std::string_view key, std::uint32_t hash, std::int64_t index) {
  if (index < 0 || index > INT32_MAX) return;
  if (size_ + 1 > slots_.size() / 5 * 4) reserve(size_ + 1);
  Slot& slot = slots_[slotOf(key, hash)];
  if (slot.entry == 0) {
    const std::size_t units = entryUnits(key.size());
    // Slots name an entry by 1 + its place, in 32 bits.
    if (key.size() > UINT32_MAX || entries_.size() + units > UINT32_MAX) return;
    slot.hash = hash;
    slot.entry = static_cast<std::uint32_t>(entries_.size() + 1);
    entries_.resize(entries_.size() + units);  // the padding after the key is zero
    std::uint32_t* entry = entries_.data() + slot.entry - 1;
    entry[1] = static_cast<std::uint32_t>(key.size());
    if (!key.empty()) std::memcpy(entry + kEntryHead, key.data(), key.size());
    ++size_;
  }
  entries_[slot.entry - 1] = static_cast<std::uint32_t>(index);
}

LookupIndex::Filler::Filler(LookupIndex& index, std::size_t count, std::size_t keyBytes, Case keys)
    : index_(index), keys_(keys) {
  index_.reserve(index_.size_ + count);
  index_.reserveKeyBytes(count, keyBytes);
}

LookupIndex::Filler::Filler(LookupIndex& index, std::size_t count)
    : index_(index), expected_(count) {
  index_.reserve(index_.size_ + count);
}

void LookupIndex::Filler::add(std::string_view key, std::int64_t value) {
  if (expected_ > kSample && added_ <= kSample) {
    if (added_ == kSample) {
      const double share = static_cast<double>(sampledBytes_) *
                           static_cast<double>(expected_ - kSample) / kSample * 1.125;
      if (share < static_cast<double>(UINT32_MAX) * 4)
        index_.reserveKeyBytes(expected_ - entered_,
                               static_cast<std::size_t>(share) + sampledBytes_);
    }
    sampledBytes_ += key.size();
  }
  if (added_ - entered_ == kAhead) enterOldest();
  Pending& pending = ring_[added_ % kAhead];
  if (keys_ == Case::kExact) {
    pending.key = key;
    pending.hash = hashOf(key);
  } else if (key.size() <= kKeyRoom && lowerSimpleHashed(key, pending.bytes, pending.hash)) {
    pending.key = std::string_view(pending.bytes, key.size());
  } else {
    lowerKeyInto(pending.scratch, key);
    pending.key = pending.scratch;
    pending.hash = hashOf(pending.key);
  }
  pending.value = value;
  if (!index_.slots_.empty())
    __builtin_prefetch(&index_.slots_[pending.hash & (index_.slots_.size() - 1)]);
  ++added_;
}

void LookupIndex::Filler::enterOldest() {
  const Pending& pending = ring_[entered_ % kAhead];
  index_.setHashed(pending.key, pending.hash, pending.value);
  ++entered_;
}

void LookupIndex::Filler::finish() {
  while (entered_ < added_) enterOldest();
  // The entry room was sized from a sample of the keys.
  std::vector<std::uint32_t, HugePageAllocator<std::uint32_t>>& entries = index_.entries_;
  releaseUnusedPages(entries.data(), entries.size() * sizeof(std::uint32_t),
                     hugePageBlockRoom(entries.capacity() * sizeof(std::uint32_t)));
}

std::int64_t LookupIndex::find(std::string_view key) const {
  if (slots_.empty()) return -1;
  return valueAt(slotOf(key, hashOf(key)));
}

void indexField(LookupIndex& index, TableMulti& table, std::string_view field) {
  const std::uint64_t fieldIndex = table.getFieldIndex(field);
  const std::vector<RecordPtr>& records = table.m_arrData();
  const auto keyOf = [&](std::size_t row) {
    const RecordPtr& record = records[row];
    if (fieldIndex == Table::kNotFound || !record || fieldIndex >= record->size())
      return std::string_view(Table::kOutOfBounds);
    return (*record)[fieldIndex];
  };
  std::size_t keyBytes = 0;
  for (std::size_t row = 0; row < records.size(); ++row) keyBytes += keyOf(row).size();
  LookupIndex::Filler filler(index, records.size(), keyBytes, LookupIndex::Filler::Case::kExact);
  for (std::size_t row = 0; row < records.size(); ++row)
    filler.add(keyOf(row), static_cast<std::int64_t>(row));
  filler.finish();
}

}  // namespace quarvel
