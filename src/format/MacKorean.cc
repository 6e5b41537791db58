#include "format/MacKorean.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <cstring>
#include <vector>

#include "common/HugePages.h"

namespace quarvel {
namespace {

#include "MacKoreanTable.inc"

constexpr char16_t kMultiBase = 0xD800;
constexpr char16_t kMultiEnd = 0xE000;

// Input is decoded in slices of kSliceBytes. A slice may run up to 9 bytes
// past its end (a window, or a code across the boundary), and no code
// writes more than 7.5 bytes per input byte (five characters from two
// bytes), plus a 4-byte step store past the last character.
constexpr std::size_t kSliceBytes = 2048;
constexpr std::size_t kChunkBytes = (kSliceBytes + 9) * 15 / 2 + 16;

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

// A decoding step: the UTF-8 bytes of one character in the first three
// bytes (in memory order) and their count in the fourth; 0 when the code
// needs the careful path (no mapping, a single non-ASCII byte, several
// characters). A step is stored whole and the output moves on by its count.
constexpr std::size_t outputLength(std::uint32_t step) {
  return std::endian::native == std::endian::little ? step >> 24 : step & 0xFF;
}

std::uint32_t makeStep(char16_t c) {
  unsigned char bytes[4] = {};
  bytes[3] = static_cast<unsigned char>(putBmp(reinterpret_cast<char*>(bytes), c));
  std::uint32_t step;
  std::memcpy(&step, bytes, 4);
  return step;
}

struct DecodeSteps {
  // Indexed by byte << 8 | next byte, the next byte taken as 0 after an
  // ASCII byte (see stepAt).
  std::vector<std::uint32_t> step = std::vector<std::uint32_t>(0x100 * 0x100, 0);

  DecodeSteps() {
    for (unsigned b = 0; b < 0x80; ++b)
      if (kMacKoreanAscii[b]) step[b << 8] = makeStep(static_cast<char16_t>(b));
    for (unsigned b = kMacKoreanFirstLead; b <= kMacKoreanLastLead; ++b)
      for (unsigned trail = 0; trail < 0x100; ++trail) {
        const char16_t c = kMacKoreanDouble[(b - kMacKoreanFirstLead) * 256 + trail];
        if (c != 0 && (c < kMultiBase || c >= kMultiEnd)) step[b << 8 | trail] = makeStep(c);
      }
  }
};

// Where the codes of an eight-byte window start, given the window's high
// bits (bit i for byte i): up to eight offsets, their count, and the bytes
// the window's codes take (9 when the last one runs past it).
struct Window {
  std::uint8_t starts[8];
  std::uint8_t count;
  std::uint8_t consumed;
};

constexpr std::array<Window, 256> makeWindows() {
  std::array<Window, 256> windows{};
  for (unsigned highBits = 0; highBits < 256; ++highBits) {
    Window w{};
    unsigned at = 0;
    while (at < 8) {
      w.starts[w.count++] = static_cast<std::uint8_t>(at);
      at += (highBits >> at & 1) ? 2 : 1;
    }
    w.consumed = static_cast<std::uint8_t>(at);
    windows[highBits] = w;
  }
  return windows;
}
constexpr std::array<Window, 256> kWindows = makeWindows();

const DecodeSteps& decodeSteps() {
  static const DecodeSteps* steps = new DecodeSteps();
  return *steps;
}

// The step of the code at `p` (p[1] must be readable), whether it is ASCII
// or a two-byte code. The next byte is masked out after an ASCII byte rather
// than branched on, as text mixing ASCII and Korean defeats branch
// prediction.
inline std::uint32_t stepAt(const std::uint32_t* steps, const unsigned char* p) {
  const unsigned b = p[0];
  return steps[b << 8 | (p[1] & (0u - (b >> 7)))];
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
        if (c != 0 && (c < kMultiBase || c >= kMultiEnd))
          code[c] = static_cast<std::uint16_t>(lead << 8 | trail);
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

// Whether all eight bytes of `word` are ASCII that reads as itself in both
// directions: no high bit, and no DEL (0x7F), the one ASCII byte Mac Korean
// leaves unmapped.
inline bool plainAscii(std::uint64_t word) {
  constexpr std::uint64_t kOnes = 0x0101010101010101ULL, kHighs = 0x8080808080808080ULL;
  const std::uint64_t del = word ^ (kOnes * 0x7F);  // a zero byte where DEL was
  return ((word | ((del - kOnes) & ~del)) & kHighs) == 0;
}

// The length of the run of plain ASCII bytes at `p`, at most `size`: whole
// words first, then byte by byte.
inline std::size_t plainAsciiRun(const unsigned char* p, std::size_t size) {
  std::size_t n = 0;
  for (std::uint64_t word; n + 8 <= size; n += 8) {
    std::memcpy(&word, p + n, 8);
    if (!plainAscii(word)) break;
  }
  while (n < size && p[n] < 0x7F) ++n;
  return n;
}

}  // namespace

std::optional<std::string> MacKorean::decode(std::string_view bytes) {
  std::string text;
  text.reserve(bytes.size() + bytes.size() / 2);
  adviseHugePages(text.data(), text.capacity());
  if (!decodeAppend(bytes, text)) return std::nullopt;
  return text;
}

bool MacKorean::decodeAppend(std::string_view bytes, std::string& text) {
  const std::uint32_t* const steps = decodeSteps().step.data();
  const auto* in = reinterpret_cast<const unsigned char*>(bytes.data());
  const auto* const inEnd = in + bytes.size();
  // The text is decoded a slice at a time into a chunk on the stack, then
  // appended: the result is never zero-filled first, and the chunk always
  // has room, however much a slice's codes write.
  char chunk[kChunkBytes];
  while (in < inEnd) {
    const auto* const sliceEnd =
        in + std::min<std::size_t>(kSliceBytes, static_cast<std::size_t>(inEnd - in));
    char* out = chunk;
    while (in < sliceEnd) {
      if (inEnd - in >= 16) {
        // Runs of ASCII, most of a real list, are copied a word at a time.
        std::uint64_t word;
        std::memcpy(&word, in, 8);
        if (plainAscii(word)) {
          std::memcpy(out, in, 8);
          out += 8;
          in += 8;
          continue;
        }
      }
      if (std::endian::native == std::endian::little && inEnd - in >= 16) {
        // Eight bytes at a time: their high bits alone say where each code
        // starts (a byte from 0x80 up starts a two-byte code on this path),
        // so one table read per window replaces a chain of dependent reads,
        // and the codes inside are looked up independently. Anything the
        // steps cannot do sends the window to the careful path below.
        std::uint64_t word;
        std::memcpy(&word, in, 8);
        const unsigned highBits =
            (((word >> 7) & 0x0101010101010101ULL) * 0x0102040810204080ULL) >> 56;
        const Window& window = kWindows[highBits];
        char* const windowOut = out;
        unsigned j = 0;
        for (; j < window.count; ++j) {
          const std::uint32_t step = stepAt(steps, in + window.starts[j]);
          if (step == 0) break;
          std::memcpy(out, &step, 4);
          out += outputLength(step);
        }
        if (j == window.count) {
          in += window.consumed;
          continue;
        }
        out = windowOut;
      }
      // One code by its step.
      if (in + 1 < inEnd) {
        if (const std::uint32_t step = stepAt(steps, in); step != 0) {
          std::memcpy(out, &step, 4);
          out += outputLength(step);
          in += 1 + (*in >> 7);
          continue;
        }
      }
      // Everything else, one code at a time.
      const unsigned b = *in;
      unsigned c;
      if (b < 0x80) {
        if (!kMacKoreanAscii[b]) return false;
        c = b;
        in += 1;
      } else {
        if (b - kMacKoreanFirstLead <= kMacKoreanLastLead - kMacKoreanFirstLead) {
          c = in + 1 < inEnd ? kMacKoreanDouble[(b - kMacKoreanFirstLead) * 256 + in[1]] : 0;
          in += 2;
        } else {
          c = kMacKoreanSingle[b - 0x80];
          in += 1;
        }
        if (c == 0) return false;
      }
      if (c >= kMultiBase && c < kMultiEnd) {
        const MacKoreanMulti& m = kMacKoreanMulti[c - kMultiBase];
        std::memcpy(out, m.utf8, m.utf8Length);
        out += m.utf8Length;
      } else {
        out += putBmp(out, static_cast<char16_t>(c));
      }
    }
    text.append(chunk, static_cast<std::size_t>(out - chunk));
  }
  return true;
}

std::optional<std::size_t> MacKorean::encodeInto(std::string_view utf8, char* const out,
                                                 EncodeError* error) {
  const EncodeIndex& index = encodeIndex();
  char* put = out;
  std::size_t pos = 0;
  const auto* const bytes = reinterpret_cast<const unsigned char*>(utf8.data());
  while (pos < utf8.size()) {
    // A run of ASCII goes across whole. Some ASCII characters begin one of
    // Apple's multi-character codes, but every such code goes on with a
    // character beyond ASCII, so only the run's last byte, when a non-ASCII
    // character follows it, needs the careful path.
    if (std::size_t run = plainAsciiRun(bytes + pos, utf8.size() - pos); run > 0) {
      if (pos + run < utf8.size() && index.startsMulti(bytes[pos + run - 1])) --run;
      std::memcpy(put, utf8.data() + pos, run);
      put += run;
      pos += run;
      if (pos == utf8.size()) break;
    }
    // Here the character is DEL, beyond ASCII, or ASCII that may begin a
    // multi-character code.
    const std::size_t start = pos;
    const char32_t c = nextUtf8(utf8, pos);
    auto fail = [&](char32_t bad) {
      if (error) *error = EncodeError{start, bad};
      return std::nullopt;
    };
    if (c == 0xFFFFFFFF) return fail(U'\uFFFD');
    if (index.startsMulti(c)) {
      if (const MacKoreanMulti* match =
              index.longestMulti(static_cast<char16_t>(c), utf8.substr(start))) {
        std::memcpy(put, match->bytes, match->byteCount);
        put += match->byteCount;
        pos = start + match->utf8Length;
        continue;
      }
    }
    const std::uint16_t code = c <= 0xFFFF ? index.code[c] : 0;
    if (code == 0 && c != 0) return fail(c);
    if (code < 0x100) {
      *put++ = static_cast<char>(code);
    } else {
      *put++ = static_cast<char>(code >> 8);
      *put++ = static_cast<char>(code & 0xFF);
    }
  }
  return static_cast<std::size_t>(put - out);
}

std::optional<std::size_t> MacKorean::encodePlainInto(std::string_view utf8, char* const out,
                                                      bool (*keep)(char32_t)) {
  const EncodeIndex& index = encodeIndex();
  const auto* const bytes = reinterpret_cast<const unsigned char*>(utf8.data());
  char* put = out;
  std::size_t pos = 0;
  while (pos < utf8.size()) {
    if (const std::size_t run = plainAsciiRun(bytes + pos, utf8.size() - pos); run > 0) {
      std::memcpy(put, bytes + pos, run);
      put += run;
      pos += run;
      if (pos == utf8.size()) break;
      // A character beyond ASCII may finish a code begun by the byte before.
      if (index.startsMulti(bytes[pos - 1]) &&
          index.longestMulti(bytes[pos - 1], utf8.substr(pos - 1)) != nullptr)
        return std::nullopt;
    }
    const std::size_t start = pos;
    const char32_t c = nextUtf8(utf8, pos);
    if (c > 0xFFFF) return std::nullopt;  // DEL and bad UTF-8 go on below
    // A character that begins one of the multi-character codes stands for
    // itself unless the text goes on as that code does.
    if (index.startsMulti(c) &&
        index.longestMulti(static_cast<char16_t>(c), utf8.substr(start)) != nullptr)
      return std::nullopt;
    const std::uint16_t code = index.code[c];
    if (code < 0x100 || !keep(c)) return std::nullopt;
    put[0] = static_cast<char>(code >> 8);
    put[1] = static_cast<char>(code & 0xFF);
    put += 2;
  }
  return static_cast<std::size_t>(put - out);
}

std::optional<std::string> MacKorean::encode(std::string_view utf8, EncodeError* error) {
  std::string out(utf8.size(), '\0');
  const std::optional<std::size_t> written = encodeInto(utf8, out.data(), error);
  if (!written) return std::nullopt;
  out.resize(*written);
  return out;
}

}  // namespace quarvel
