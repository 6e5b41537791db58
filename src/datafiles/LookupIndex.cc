#include "datafiles/LookupIndex.h"

#include <climits>
#include <cstdint>
#include <cstring>
#include <new>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

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

// Whether n bytes at a and b are the same, read at the offsets hashOf
// reads (the last word or chunk overlapping the one before), which
// findLowered has just written: each load is served from one store.
inline bool sameBytes(const char* a, const char* b, std::size_t n) {
  if (n < 8) return n == 0 || std::memcmp(a, b, n) == 0;
#if defined(__SSE2__)
  if (n >= 16) {
    const auto load = [](const char* at) {
      return _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
    };
    __m128i differ = _mm_xor_si128(load(a + n - 16), load(b + n - 16));
    for (std::size_t i = 0; i + 16 < n; i += 16)
      differ = _mm_or_si128(differ, _mm_xor_si128(load(a + i), load(b + i)));
    return _mm_movemask_epi8(_mm_cmpeq_epi8(differ, _mm_setzero_si128())) == 0xFFFF;
  }
#endif
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

// Keys of 16 bytes or more are hashed 16 bytes a step, the last step
// overlapping the one before, in two 64-bit lanes: each lane's halves, each
// xored with a constant of the step, are multiplied, and the product and
// the other lane's bytes are added to the lane's sum. No step waits on the
// one before, and on x86-64 a step is a few vector instructions, the same
// ones that lower its bytes. Few instructions matter more than they seem: a
// look-up waits on memory, and the fewer instructions each takes, the more
// of the look-ups after it the processor reads ahead, their misses
// overlapping. Steps past the fourth reuse the first four constants.
constexpr std::uint64_t kStepKeys[8] = {
    0xA0761D6478BD642FULL, 0xE7037ED1A0B428DBULL, 0x8EBC6AF09C88C6E3ULL, 0x589965CC75374CC3ULL,
    0x1D8E4E27C47D124FULL, 0xB7E151628AED2A6BULL, 0x452821E638D01377ULL, 0xBE5466CF34E90C6CULL};

// The two lanes' sums folded into the hash of a key of `size` bytes: the
// first multiplication joins them, the second spreads every bit.
inline std::uint32_t finishSteps(std::uint64_t first, std::uint64_t second, std::size_t size) {
  const std::uint64_t hash =
      mix(mix(first ^ kHashSeed ^ size, second ^ kHashMultiplier), 0xD6E8FEB86659FD93ULL);
  return static_cast<std::uint32_t>(hash ^ (hash >> 32));
}

// The sums lowerAndHashSteps keeps, word by word: hashOf's way, on any
// processor.
std::uint32_t hashSteps(const char* bytes, std::size_t size) {
  std::uint64_t sums[2] = {0, 0};
  const auto take = [&](std::size_t at, std::size_t step) {
    std::uint64_t lanes[2];
    std::memcpy(lanes, bytes + at, 16);
    for (std::size_t lane = 0; lane < 2; ++lane) {
      const std::uint64_t x = lanes[lane] ^ kStepKeys[2 * (step & 3) + lane];
      sums[lane] += (x & 0xFFFFFFFFu) * (x >> 32) + lanes[1 - lane];
    }
  };
  std::size_t step = 0;
  for (std::size_t at = 0; at + 16 < size; at += 16) take(at, step++);
  take(size - 16, step);
  return finishSteps(sums[0], sums[1], size);
}

#if defined(__SSE2__)
// Lowers the ASCII letters of a key of 16 to 64 bytes into `out`, at the
// offsets hashSteps reads, and hashes the lowered bytes as it does. Answers
// whether the key holds bytes beyond ASCII, whose characters are then still
// to be checked.
// Inlined into both callers: the call and the hash returned through
// memory were a tenth of a look-up's instructions.
[[gnu::always_inline]] inline bool lowerAndHashSteps(std::string_view key, char* out,
                                                     std::uint32_t& hashed) {
  const auto byte = [](int value) { return _mm_set1_epi8(static_cast<char>(value)); };
  // A byte plus 0x80 - 'A' is below -128 + 26, signed, just when it is a
  // capital letter: bytes beyond ASCII and below 'A' land above.
  const __m128i toA = byte(0x80 - 'A'), pastZ = byte(-128 + 26), caseBit = byte(0x20);
  __m128i sums = _mm_setzero_si128();
  int high = 0;
  const auto* keys = reinterpret_cast<const __m128i*>(kStepKeys);
  const auto take = [&](std::size_t at, const __m128i* stepKey) {
    const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(key.data() + at));
    const __m128i upper = _mm_cmpgt_epi8(pastZ, _mm_add_epi8(bytes, toA));
    const __m128i lowered = _mm_or_si128(bytes, _mm_and_si128(upper, caseBit));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + at), lowered);
    high |= _mm_movemask_epi8(bytes);
    const __m128i x = _mm_xor_si128(lowered, _mm_loadu_si128(stepKey));
    sums = _mm_add_epi64(sums, _mm_mul_epu32(x, _mm_shuffle_epi32(x, _MM_SHUFFLE(2, 3, 0, 1))));
    sums = _mm_add_epi64(sums, _mm_shuffle_epi32(lowered, _MM_SHUFFLE(1, 0, 3, 2)));
  };
  // At most four steps, each with its own constant, the last one ending
  // with the key.
  const std::size_t size = key.size();
  if (size > 16) {
    take(0, keys);
    if (size > 32) {
      take(16, keys + 1);
      if (size > 48) take(32, keys + 2);
    }
  }
  take(size - 16, keys + (size - 1) / 16);
  const auto first = static_cast<std::uint64_t>(_mm_cvtsi128_si64(sums));
  const auto second = static_cast<std::uint64_t>(_mm_cvtsi128_si64(_mm_unpackhi_epi64(sums, sums)));
  hashed = finishSteps(first, second, size);
  return high != 0;
}
#endif

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

// Whether every character of `text` beyond ASCII is one lowerSimpleKey
// leaves alone: it accepts the same texts, and writes nothing.
bool caselessBeyondAscii(std::string_view text) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
  const std::size_t size = text.size();
  for (std::size_t i = 0; i < size;) {
    if (bytes[i] < 0x80) {
      // Straight to the next byte beyond ASCII, a word at a time.
      std::uint64_t word;
      if (i + 8 > size) {
        ++i;
        continue;
      }
      std::memcpy(&word, bytes + i, 8);
      i += (word & kHighs) == 0 ? 8 : static_cast<std::size_t>(__builtin_ctzll(word & kHighs)) / 8;
      continue;
    }
    if (i + 2 >= size) return false;
    // The three bytes in order in one word: a Hangul syllable (U+AC00 to
    // U+D7A3, most characters of real keys beyond ASCII) is one range of
    // it once the continuation bytes are seen to be such.
    std::uint32_t code;
    if (i + 4 <= size) {
      std::memcpy(&code, bytes + i, 4);
      code = __builtin_bswap32(code) >> 8;
    } else {
      code = std::uint32_t{bytes[i]} << 16 | std::uint32_t{bytes[i + 1]} << 8 | bytes[i + 2];
    }
    if ((code & 0xF0C0C0) != 0xE08080) return false;  // lead 1110xxxx, two of 10xxxxxx
    if (code - 0xEAB080 > 0xED9EA3 - 0xEAB080 &&
        !caseless((code >> 4 & 0xF000) | (code >> 2 & 0x0FC0) | (code & 0x3F)))
      return false;
    i += 3;
  }
  return true;
}

}  // namespace

bool LookupIndex::lowerSimpleHashed(std::string_view key, char* out, std::uint32_t& hashed) {
#if defined(__SSE2__)
  if (key.size() >= 16 && key.size() <= 64) {
    // Characters beyond ASCII were copied as they are, which is right when
    // they have no case.
    return !lowerAndHashSteps(key, out, hashed) || caselessBeyondAscii(key);
  }
#endif
  if (key.size() >= 8 && key.size() < 16) {
    // An ASCII key is lowered and hashed in one pass, as hashOf would hash
    // the lowered text, each word kept in a register: the hash never waits
    // on the bytes just written.
    std::uint64_t word;
    std::memcpy(&word, key.data(), 8);
    std::uint64_t last;
    std::memcpy(&last, key.data() + key.size() - 8, 8);
    if (((word | last) & kHighs) == 0) {
      word = lowerAsciiWord(word);
      last = lowerAsciiWord(last);
      std::memcpy(out, &word, 8);
      std::memcpy(out + key.size() - 8, &last, 8);
      std::uint64_t hash = kHashSeed ^ key.size();
      if (key.size() > 8) hash = mix(hash ^ word, kHashMultiplier);
      hashed = finishHash(hash ^ last);
      return true;
    }
  }
  // Other lengths, and keys beyond ASCII: lowered first, then hashed.
  if (!lowerSimpleKey(key, out)) return false;
  hashed = hashOf(std::string_view(out, key.size()));
  return true;
}

std::int64_t LookupIndex::findLowered(std::string_view key) const {
  if (slots_.empty()) return -1;
#if defined(__SSE2__)
  if (key.size() >= 16 && key.size() <= 64) {
    // Looked up with its ASCII letters lowered and the rest as it is. A hit
    // is the answer even when the rest has case: the keys here were all
    // entered lowered, so the one met is its own lower case, and lowering
    // the given key whole comes to the same as lowering these bytes. Only
    // a miss waits for the characters beyond ASCII to be checked; a key
    // with case among them takes the full rule.
    char lowered[64];
    std::uint32_t hash = 0;
    const bool beyondAscii = lowerAndHashSteps(key, lowered, hash);
    const std::int64_t found = valueOf(std::string_view(lowered, key.size()), hash);
    if (found >= 0 || !beyondAscii || caselessBeyondAscii(key)) return found;
  }
#endif
  return findLoweredSlowly(key);
}

std::int64_t LookupIndex::findLoweredSlowly(std::string_view key) const {
  // On the stack unless the key needs Unicode's full rules or is long.
  constexpr std::size_t kStackKey = 256;
  char lowered[kStackKey];
  if (key.size() <= kStackKey) {
    if (std::uint32_t hash = 0; lowerSimpleHashed(key, lowered, hash))
      return valueOf(std::string_view(lowered, key.size()), hash);
  }
  thread_local std::string scratch;
  lowerKeyInto(scratch, key);
  return find(scratch);
}

std::uint32_t LookupIndex::hashOf(std::string_view key) {
  const char* const bytes = key.data();
  const std::size_t size = key.size();
  if (size >= 16) return hashSteps(bytes, size);
  std::uint64_t hash = kHashSeed ^ size;
  std::uint64_t word = 0;
  if (size >= 8) {
    // The first eight bytes and the last eight, overlapping when the length
    // is under 16: two fixed loads rather than a copy of the tail's length,
    // which stalls what follows.
    if (size > 8) {
      std::memcpy(&word, bytes, 8);
      hash = mix(hash ^ word, kHashMultiplier);
    }
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

// A hash that matches is almost always the key: its entry's length and
// bytes are one read away from its value.
[[gnu::always_inline]] inline bool LookupIndex::holds(std::uint32_t entry,
                                                      std::string_view key) const {
  const std::uint32_t* head = entries_.data() + entry - 1;
  return head[1] == key.size() &&
         sameBytes(reinterpret_cast<const char*>(head + kEntryHead), key.data(), key.size());
}

// Inlined into each look-up and each entering: left to itself, the
// compiler kept one copy out of line, 30 instructions more a property
// look-up.
[[gnu::always_inline]] inline std::size_t LookupIndex::slotOf(std::string_view key,
                                                              std::uint32_t hash) const {
  const std::size_t mask = slots_.size() - 1;
  for (std::size_t at = hash & mask;; at = (at + 1) & mask) {
    const Slot& slot = slots_[at];
    if (slot.entry == 0) return at;
    if (slot.hash != hash) continue;
    if (holds(slot.entry, key)) return at;
  }
}

[[gnu::always_inline]] inline std::int64_t LookupIndex::valueOf(std::string_view key,
                                                                std::uint32_t hash) const {
  const std::uint32_t entry = slots_[slotOf(key, hash)].entry;
  return entry == 0 ? -1 : static_cast<std::int32_t>(entries_[entry - 1]);
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
    entries_.resize(entries_.size() + units);
    std::uint32_t* entry = entries_.data() + slot.entry - 1;
    entry[1] = static_cast<std::uint32_t>(key.size());
    entry[units - 1] = 0;  // the padding after the key, should there be any
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
  auto& entries = index_.entries_;
  releaseUnusedPages(entries.data(), entries.size() * sizeof(std::uint32_t),
                     hugePageBlockRoom(entries.capacity() * sizeof(std::uint32_t)));
}

std::int64_t LookupIndex::find(std::string_view key) const {
  if (slots_.empty()) return -1;
  return valueOf(key, hashOf(key));
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
