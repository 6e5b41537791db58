#include "quarvel/datafiles/LookupIndex.h"

#include <functional>

#include "quarvel/common/StringUtil.h"

namespace quarvel {

std::string lowerKey(std::string_view text) {
  std::string out(text);
  for (char& c : out) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= 0x80) return lowercase(text);
    if (byte >= 'A' && byte <= 'Z') c = static_cast<char>(byte + ('a' - 'A'));
  }
  return out;
}

std::size_t LookupIndex::Hash::operator()(std::string_view text) const noexcept {
  return std::hash<std::string_view>{}(text);
}

void LookupIndex::set(std::string key, std::int64_t index) {
  map_.insert_or_assign(std::move(key), index);
}

std::int64_t LookupIndex::find(std::string_view key) const {
  auto it = map_.find(key);
  return it == map_.end() ? -1 : it->second;
}

}  // namespace quarvel
