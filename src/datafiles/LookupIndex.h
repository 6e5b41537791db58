#pragma once
/// @file
/// The look-up indexes of the data-file classes: key text -> record index.
/// Keys are held as given; callers lower-case both sides where the look-up is
/// case-blind (lowerKey). On a repeated key the last record entered wins.
///
/// An open-addressing table of 8-byte slots (the key's hash and where its
/// entry starts; at most four in five used) over one buffer of entries (the
/// value, the length and the key's bytes, in the order entered). A look-up
/// allocates nothing. The slots are small enough to stay in the caches for
/// lists of a few hundred thousand keys, so a hit reads one cache line
/// beyond them (the entry: value and key together) and a miss usually none.
/// Entries are addressed in 4-byte units through 32 bits: keys beyond
/// 16 GiB of entries in all are not entered.

#include <array>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "common/HugePages.h"
#include "quarvel/TableMulti.h"

namespace quarvel {

/// Full Unicode lower-casing (the same answer as quarvel::lowercase), with a
/// fast path for keys of ASCII, Hangul and CJK characters.
std::string lowerKey(std::string_view text);
/// The same into `out`, reusing its storage.
void lowerKeyInto(std::string& out, std::string_view text);
/// The lower-cased key "COMPANY\tPRODUCT\tVERSION\tORIGINAL_FILE" of a record:
/// the check list's property key and the filter list's filter key.
std::string lowerRecordKey(std::string_view company, std::string_view product,
                           std::string_view version, std::string_view originalFile);

/// Each index and each filler has cache lines of its own: a large check
/// list fills two indexes at once on two threads, and an index's counters,
/// changed at every key, must not share a line with the other's.
class alignas(64) LookupIndex {
 public:
  class Filler;

  /// Enters `key` -> `index` (0 <= index <= INT32_MAX), replacing an earlier
  /// entry of the same key.
  void set(std::string_view key, std::int64_t index);
  /// The index entered under `key`, or -1.
  std::int64_t find(std::string_view key) const;
  /// find(lowerKey(key)) without allocating, in an index whose keys were
  /// all entered lowered (lowerKey, or a case-blind filler).
  std::int64_t findLowered(std::string_view key) const;
  bool empty() const { return size_ == 0; }
  std::size_t size() const { return size_; }
  /// Makes room for `count` keys without regrowing.
  void reserve(std::size_t count);
  /// Makes room for `count` more keys of `bytes` bytes in all: the entry
  /// buffer then grows once, leaving no smaller buffers behind in the heap.
  void reserveKeyBytes(std::size_t count, std::size_t bytes);
  void clear();

 private:
  struct Slot {
    std::uint32_t hash = 0;   ///< places the slot and screens comparisons
    std::uint32_t entry = 0;  ///< 1 + the entry's place in entries_; 0: free
  };
  /// An entry is its value, its key's length and its key's bytes, in
  /// 4-byte units of entries_: each one starts aligned.
  static constexpr std::size_t kEntryHead = 2;
  static constexpr std::size_t entryUnits(std::size_t keyLength) {
    return kEntryHead + (keyLength + 3) / 4;
  }
  static std::uint32_t hashOf(std::string_view key);
  /// Lowers a key of ASCII, Hangul and CJK characters into `out` (room for
  /// key.size() bytes) and sets `hash` to hashOf of the lowered key; false
  /// for any other key (`out` may then be partly written). No optional
  /// returned through memory: its two stores and one load stalled the load.
  static bool lowerSimpleHashed(std::string_view key, char* out, std::uint32_t& hash);
  /// findLowered for the keys its vector steps leave: other lengths, and
  /// characters with case. Kept apart, so that the common way saves no
  /// registers it does not use.
  [[gnu::noinline]] std::int64_t findLoweredSlowly(std::string_view key) const;
  /// Whether the entry `entry` (1 + its place in entries_) is `key`'s.
  bool holds(std::uint32_t entry, std::string_view key) const;
  /// The value entered under `key`, hashed to `hash`, or -1.
  std::int64_t valueOf(std::string_view key, std::uint32_t hash) const;
  /// The slot holding `key`, or the free slot ending its probe.
  std::size_t slotOf(std::string_view key, std::uint32_t hash) const;
  void setHashed(std::string_view key, std::uint32_t hash, std::int64_t index);
  void rehash(std::size_t slotCount);

  /// Entries in units of 4 bytes, so each head is aligned.
  /// Grown without zeroing: an entry is written whole as it is appended.
  std::vector<std::uint32_t, UninitializedHugePageAllocator<std::uint32_t>> entries_;
  std::vector<Slot, HugePageAllocator<Slot>> slots_;  ///< a power of two in size, or empty
  std::size_t size_ = 0;
};

/// Enters keys into an index one at a time as a caller meets them:
/// add(key, value) is set(lowerKey(key), value) when case-blind, or
/// set(key, value) when exact, done a few keys later, so that the key's
/// slot is fetched while the next keys are lowered and hashed. An exact key
/// is not copied: its text must outlive finish(). finish() enters what is
/// still pending; a filler left without it (an exception on the way) drops
/// those keys rather than risk a throw from its destructor. The index is not
/// to be used before then.
class alignas(64) LookupIndex::Filler {
 public:
  enum class Case { kBlind, kExact };
  /// Makes room in `index` for `count` more keys of `keyBytes` bytes in
  /// all (should lowering lengthen them, the entry buffer grows).
  Filler(LookupIndex& index, std::size_t count, std::size_t keyBytes, Case keys);
  /// Case-blind keys whose length is not known before: the entry buffer
  /// is sized once from the first keys (kSample of them), an eighth more
  /// than their share of `count`. A bound as loose as the file's size left
  /// the unused room of both indexes resident in the benchmark's process.
  Filler(LookupIndex& index, std::size_t count);
  ~Filler() = default;
  Filler(const Filler&) = delete;
  Filler& operator=(const Filler&) = delete;
  void add(std::string_view key, std::int64_t value);
  void finish();

 private:
  static constexpr std::size_t kAhead = 16;
  static constexpr std::size_t kSample = 1024;
  /// Keys up to this long are lowered into the ring itself.
  static constexpr std::size_t kKeyRoom = 128;
  struct Pending {
    std::string_view key;  ///< lowered into `bytes` or `scratch`, or the caller's
    std::int64_t value = 0;
    std::uint32_t hash = 0;
    std::string scratch;
    char bytes[kKeyRoom];
  };
  void enterOldest();

  LookupIndex& index_;
  const Case keys_ = Case::kBlind;
  std::array<Pending, kAhead> ring_;
  std::size_t added_ = 0;
  std::size_t entered_ = 0;
  std::size_t expected_ = 0;  ///< keys to come when their lengths are sampled; else 0
  std::size_t sampledBytes_ = 0;
};

/// Enters into `index`, case-blind, the key of every record of `table`
/// from row `first` on: keyOf(record) answers the key's text.
template <typename KeyOf>
void indexLowered(LookupIndex& index, const TableMulti& table, std::int64_t first, KeyOf&& keyOf) {
  const std::vector<RecordPtr>& records = table.m_arrData();
  // Lowering keeps the length of nearly every key.
  std::size_t keyBytes = 0;
  for (std::size_t row = static_cast<std::size_t>(first); row < records.size(); ++row)
    keyBytes += keyOf(*records[row]).size();
  LookupIndex::Filler filler(index, records.size() - static_cast<std::size_t>(first), keyBytes,
                             LookupIndex::Filler::Case::kBlind);
  for (std::size_t row = static_cast<std::size_t>(first); row < records.size(); ++row)
    filler.add(keyOf(*records[row]), static_cast<std::int64_t>(row));
  filler.finish();
}

/// Enters into `index`, exactly, every record's value of `field` as
/// select(row, field) answers it (kOutOfBounds for a record without one).
void indexField(LookupIndex& index, TableMulti& table, std::string_view field);

}  // namespace quarvel
