#include "quarvel/datafiles/MacKorean.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

namespace quarvel {
namespace {

#include "MacKoreanTable.inc"

constexpr char16_t kMultiBase = 0xD800;
constexpr char16_t kMultiEnd = 0xE000;

// Decoding never writes more than 1.5 output bytes per input byte except for
// multi-character codes and the few non-ASCII single bytes; those make room
// for themselves first.
class Utf8Writer {
 public:
  explicit Utf8Writer(std::size_t inputSize) { out_.resize(inputSize + inputSize / 2 + 32); }

  char* at() { return out_.data() + length_; }
  void advance(std::size_t n) { length_ += n; }
  void reserveFor(std::size_t extra, std::size_t remainingInput) {
    const std::size_t needed = length_ + extra + remainingInput + remainingInput / 2 + 32;
    if (needed > out_.size()) out_.resize(std::max(needed, out_.size() * 2));
  }
  std::string finish() {
    out_.resize(length_);
    return std::move(out_);
  }

 private:
  std::string out_;
  std::size_t length_ = 0;
};

inline std::size_t putBmp(char* out, char16_t c) {
  if (c < 0x80) {
    out[0] = static_cast<char>(c);
    return 1;
  }
  if (c < 0x800) {
    out[0] = static_cast<char>(0xC0 | (c >> 6));
    out[1] = static_cast<char>(0x80 | (c & 0x3F));
    return 2;
  }
  out[0] = static_cast<char>(0xE0 | (c >> 12));
  out[1] = static_cast<char>(0x80 | ((c >> 6) & 0x3F));
  out[2] = static_cast<char>(0x80 | (c & 0x3F));
  return 3;
}

// The encoder's index, built once from the decoding tables: every BMP
// character's code (0 = none; below 0x100 a single byte), and the
// multi-character entries grouped by their first character, longest first.
struct EncodeIndex {
  std::vector<std::uint16_t> code = std::vector<std::uint16_t>(0x10000, 0);
  // Sorted by first character, longest first within one first character.
  std::vector<const MacKoreanMulti*> multi;
  // Where each first character's entries begin in `multi` (+1; 0 = none).
  std::vector<std::uint16_t> multiStart = std::vector<std::uint16_t>(0x10000, 0);

  EncodeIndex() {
    for (unsigned b = 0; b < 0x80; ++b)
      if (kMacKoreanAscii[b]) code[b] = static_cast<std::uint16_t>(b);
    for (unsigned b = 0x80; b < 0x100; ++b) {
      const char16_t c = kMacKoreanSingle[b - 0x80];
      if (c != 0 && (c < kMultiBase || c >= kMultiEnd)) code[c] = static_cast<std::uint16_t>(b);
    }
    for (unsigned lead = kMacKoreanFirstLead; lead <= kMacKoreanLastLead; ++lead)
      for (unsigned trail = 0; trail < 0x100; ++trail) {
        const char16_t c = kMacKoreanDouble[(lead - kMacKoreanFirstLead) * 256 + trail];
        if (c != 0 && (c < kMultiBase || c >= kMultiEnd)) code[c] = static_cast<std::uint16_t>(lead << 8 | trail);
      }
    for (unsigned i = 0; i < kMacKoreanEncodeOnlyCount; ++i)
      code[kMacKoreanEncodeOnly[i].character] = kMacKoreanEncodeOnly[i].code;
    for (const MacKoreanMulti& m : kMacKoreanMulti) multi.push_back(&m);
    std::sort(multi.begin(), multi.end(), [](const MacKoreanMulti* a, const MacKoreanMulti* b) {
      const char16_t fa = firstCharacter(a->utf8), fb = firstCharacter(b->utf8);
      return fa != fb ? fa < fb : a->utf8Length > b->utf8Length;
    });
    for (std::size_t i = multi.size(); i-- > 0;)
      multiStart[firstCharacter(multi[i]->utf8)] = static_cast<std::uint16_t>(i + 1);
  }

  bool startsMulti(char32_t c) const { return c <= 0xFFFF && multiStart[c] != 0; }

  // The longest entry that `text` starts with, if any.
  const MacKoreanMulti* longestMulti(char16_t first, std::string_view text) const {
    for (std::size_t i = multiStart[first] - 1u;
         i < multi.size() && firstCharacter(multi[i]->utf8) == first; ++i)
      if (text.starts_with(std::string_view(multi[i]->utf8, multi[i]->utf8Length))) return multi[i];
    return nullptr;
  }

  static char16_t firstCharacter(const char* utf8) {
    const auto* s = reinterpret_cast<const unsigned char*>(utf8);
    if (s[0] < 0x80) return s[0];
    if (s[0] < 0xE0) return static_cast<char16_t>((s[0] & 0x1F) << 6 | (s[1] & 0x3F));
    return static_cast<char16_t>((s[0] & 0x0F) << 12 | (s[1] & 0x3F) << 6 | (s[2] & 0x3F));
  }
};

const EncodeIndex& encodeIndex() {
  static const EncodeIndex* index = new EncodeIndex();
  return *index;
}

// Decodes one UTF-8 character at `pos`; 0xFFFFFFFF for an ill-formed one.
char32_t nextUtf8(std::string_view s, std::size_t& pos) {
  const auto b0 = static_cast<unsigned char>(s[pos]);
  auto cont = [&](std::size_t i) -> int {
    if (pos + i >= s.size()) return -1;
    const auto b = static_cast<unsigned char>(s[pos + i]);
    return (b & 0xC0) == 0x80 ? (b & 0x3F) : -1;
  };
  char32_t c;
  std::size_t n;
  if (b0 < 0x80) {
    ++pos;
    return b0;
  } else if (b0 >= 0xC2 && b0 < 0xE0) {
    int c1 = cont(1);
    if (c1 < 0) return 0xFFFFFFFF;
    c = (b0 & 0x1Fu) << 6 | c1;
    n = 2;
  } else if (b0 >= 0xE0 && b0 < 0xF0) {
    int c1 = cont(1), c2 = c1 < 0 ? -1 : cont(2);
    if (c2 < 0) return 0xFFFFFFFF;
    c = (b0 & 0x0Fu) << 12 | c1 << 6 | c2;
    if (c < 0x800 || (c >= 0xD800 && c < 0xE000)) return 0xFFFFFFFF;
    n = 3;
  } else if (b0 >= 0xF0 && b0 < 0xF5) {
    int c1 = cont(1), c2 = c1 < 0 ? -1 : cont(2), c3 = c2 < 0 ? -1 : cont(3);
    if (c3 < 0) return 0xFFFFFFFF;
    c = (b0 & 0x07u) << 18 | c1 << 12 | c2 << 6 | c3;
    if (c < 0x10000 || c > 0x10FFFF) return 0xFFFFFFFF;
    n = 4;
  } else {
    return 0xFFFFFFFF;
  }
  pos += n;
  return c;
}

}  // namespace

std::optional<std::string> MacKorean::decode(std::string_view bytes) {
  const auto* in = reinterpret_cast<const unsigned char*>(bytes.data());
  const std::size_t n = bytes.size();
  Utf8Writer writer(n);
  std::size_t i = 0;
  while (i < n) {
    const unsigned b = in[i];
    if (b < 0x80) {
      if (!kMacKoreanAscii[b]) return std::nullopt;
      *writer.at() = static_cast<char>(b);
      writer.advance(1);
      ++i;
      continue;
    }
    char16_t c = kMacKoreanSingle[b - 0x80];
    std::size_t used = 1;
    if (c == 0) {
      if (b < kMacKoreanFirstLead || b > kMacKoreanLastLead || i + 1 >= n) return std::nullopt;
      c = kMacKoreanDouble[(b - kMacKoreanFirstLead) * 256 + in[i + 1]];
      if (c == 0) return std::nullopt;
      used = 2;
    }
    i += used;
    if (c >= kMultiBase && c < kMultiEnd) {
      const MacKoreanMulti& m = kMacKoreanMulti[c - kMultiBase];
      writer.reserveFor(m.utf8Length, n - i);
      std::memcpy(writer.at(), m.utf8, m.utf8Length);
      writer.advance(m.utf8Length);
    } else {
      if (used == 1) writer.reserveFor(3, n - i);
      writer.advance(putBmp(writer.at(), c));
    }
  }
  return writer.finish();
}

std::optional<std::string> MacKorean::encode(std::string_view utf8, EncodeError* error) {
  const EncodeIndex& index = encodeIndex();
  std::string out;
  out.reserve(utf8.size());
  std::size_t pos = 0;
  while (pos < utf8.size()) {
    const auto b = static_cast<unsigned char>(utf8[pos]);
    if (b < 0x80 && kMacKoreanAscii[b] && !index.startsMulti(b)) {
      out += static_cast<char>(b);
      ++pos;
      continue;
    }
    const std::size_t start = pos;
    const char32_t c = nextUtf8(utf8, pos);
    auto fail = [&](char32_t bad) {
      if (error) *error = EncodeError{start, bad};
      return std::nullopt;
    };
    if (c == 0xFFFFFFFF) return fail(U'\uFFFD');
    if (index.startsMulti(c)) {
      if (const MacKoreanMulti* match = index.longestMulti(static_cast<char16_t>(c), utf8.substr(start))) {
        out.append(reinterpret_cast<const char*>(match->bytes), match->byteCount);
        pos = start + match->utf8Length;
        continue;
      }
    }
    const std::uint16_t code = c <= 0xFFFF ? index.code[c] : 0;
    if (code == 0 && c != 0) return fail(c);
    if (code < 0x100) {
      out += static_cast<char>(code);
    } else {
      out += static_cast<char>(code >> 8);
      out += static_cast<char>(code & 0xFF);
    }
  }
  return out;
}

}  // namespace quarvel
