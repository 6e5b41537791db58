#pragma once
// The look-up indexes of the data-file classes: key text -> record index.
// Keys are held as given; callers lower-case both sides where the look-up is
// case-blind (lowerKey). On a repeated key the last record entered wins.

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>

namespace quarvel {

// Full Unicode lower-casing (the same answer as quarvel::lowercase), with a
// fast path for plain ASCII keys.
std::string lowerKey(std::string_view text);

class LookupIndex {
 public:
  // Enters `key` -> `index`, replacing an earlier entry of the same key.
  void set(std::string key, std::int64_t index);
  // The index entered under `key`, or -1.
  std::int64_t find(std::string_view key) const;
  bool empty() const { return map_.empty(); }
  std::size_t size() const { return map_.size(); }
  void reserve(std::size_t count) { map_.reserve(count); }
  void clear() { map_.clear(); }

 private:
  struct Hash {
    using is_transparent = void;
    std::size_t operator()(std::string_view text) const noexcept;
  };
  std::unordered_map<std::string, std::int64_t, Hash, std::equal_to<>> map_;
};

}  // namespace quarvel
