// The data-file cipher and the reader that turns an enciphered file into
// lines (CommonLib::Encrypt and both CommonLib::Decrypt).
//
// The cipher XORs byte i with key[i & 15] and reverses the buffer; the
// reader reverses, then XORs. Both run over 16-byte blocks taken from the
// two ends at once, as byte-swapped 64-bit words, so each byte is loaded and
// stored once.

#include <sys/types.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "quarvel/CommonLib.h"
#include "common/Log.h"
#include "common/StringUtil.h"
#include "format/LineReader.h"
#include "format/MacKorean.h"

namespace quarvel {
namespace {

// The key twice over, so that the 8 key bytes for any position p start at
// kKeyTwice + (p & 15).
constexpr unsigned char kKeyTwice[32] = {'L', 'u', 'm', 'b', 'e', 'r', 'g', 'a', 'n', '3', '_',
                                         'V', 'x', 'o', 'k', '!', 'L', 'u', 'm', 'b', 'e', 'r',
                                         'g', 'a', 'n', '3', '_', 'V', 'x', 'o', 'k', '!'};
static_assert(sizeof CommonLib::kKey == 16);

inline std::uint64_t load(const unsigned char* p) {
  std::uint64_t v;
  std::memcpy(&v, p, sizeof v);
  return v;
}
inline void store(unsigned char* p, std::uint64_t v) { std::memcpy(p, &v, sizeof v); }
// Reverses the order of the word's bytes in memory, whatever the byte order.
inline std::uint64_t reversed(std::uint64_t v) { return __builtin_bswap64(v); }
inline std::uint64_t keyAt(std::size_t position) { return load(kKeyTwice + (position & 15)); }
inline unsigned char keyByte(std::size_t position) { return kKeyTwice[position & 15]; }

// out[p] = in[n-1-p] XOR key(p) when the key follows the output position
// (deciphering), key(n-1-p) when it follows the input position
// (enciphering).
template <bool kKeyFollowsInput>
void reverseXor(unsigned char* b, std::size_t n) {
  // 16-byte blocks from both ends while they do not overlap. Front blocks
  // start at multiples of 16 and back blocks at n - 16 - lo, so the key
  // words of both are the same on every round.
  const std::uint64_t keyFront0 = keyAt(0), keyFront1 = keyAt(8);
  const std::uint64_t keyBack0 = keyAt(n), keyBack1 = keyAt(n + 8);
  std::size_t lo = 0;
  for (; lo + 32 <= n - lo; lo += 16) {
    unsigned char* front = b + lo;
    unsigned char* back = b + (n - 16 - lo);
    const std::uint64_t f0 = load(front), f1 = load(front + 8);
    const std::uint64_t b0 = load(back), b1 = load(back + 8);
    if constexpr (kKeyFollowsInput) {
      store(front, reversed(b1 ^ keyBack1));
      store(front + 8, reversed(b0 ^ keyBack0));
      store(back, reversed(f1 ^ keyFront1));
      store(back + 8, reversed(f0 ^ keyFront0));
    } else {
      store(front, reversed(b1) ^ keyFront0);
      store(front + 8, reversed(b0) ^ keyFront1);
      store(back, reversed(f1) ^ keyBack0);
      store(back + 8, reversed(f0) ^ keyBack1);
    }
  }
  // The middle, byte pairs; an odd middle byte stays in place.
  for (std::size_t k = lo; k < n - 1 - k; ++k) {
    const std::size_t m = n - 1 - k;
    const unsigned char x = b[k], y = b[m];
    b[k] = static_cast<unsigned char>(y ^ keyByte(kKeyFollowsInput ? m : k));
    b[m] = static_cast<unsigned char>(x ^ keyByte(kKeyFollowsInput ? k : m));
  }
  if (n % 2 == 1) b[n / 2] ^= keyByte(n / 2);
}

struct FreeDeleter {
  void operator()(unsigned char* p) const { std::free(p); }
};

}  // namespace

namespace datafile {

void decipher(unsigned char* buffer, std::uint32_t size) {
  if (size > 0) reverseXor<false>(buffer, size);
}

void splitLines(const unsigned char* text, std::size_t size, std::vector<std::string>& lines) {
  char line[kMaxLineBytes + 1] = {};
  std::size_t length = 0;
  bool overlong = false;
  std::size_t lineNumber = 1;
  auto endLine = [&] {
    if (overlong) {
      logf("ERROR : line %zu is longer than %zu bytes and was dropped", lineNumber,
           kMaxLineBytes);
    } else if (std::optional<std::string> decoded =
                   MacKorean::decode(std::string_view(line, length))) {
      lines.push_back(std::move(*decoded));
    }
    std::memset(line, 0, length);
    length = 0;
    overlong = false;
    ++lineNumber;
  };
  for (std::size_t i = 0; i < size;) {
    const unsigned char c = text[i];
    if (c == 0) break;
    if (c == '\n') {
      endLine();
      ++i;
    } else if (c == '\r') {
      if (i + 1 < size && text[i + 1] == '\n') endLine();
      i += 2;  // CR LF, or a CR and whatever follows it
    } else {
      if (length < kMaxLineBytes)
        line[length++] = static_cast<char>(c);
      else
        overlong = true;
      ++i;
    }
  }
}

}  // namespace datafile

bool CommonLib::Encrypt(unsigned char* buffer, std::uint32_t size) {
  if (size > 0) reverseXor<true>(buffer, size);
  return true;
}

bool CommonLib::Decrypt(std::vector<std::string>& lines, std::FILE* targetFile) {
  if (!targetFile) return false;
  if (std::fseek(targetFile, 0, SEEK_END) != 0) {
    logf("ERROR! code=%d", errno);
    return false;
  }
  const long end = std::ftell(targetFile);
  std::rewind(targetFile);
  if (end < 0) {
    logf("ERROR! code=%d", errno);
    return false;
  }
  // Sizes are 32-bit: a larger file is refused rather than read with a
  // wrapped size.
  if (static_cast<unsigned long>(end) > UINT32_MAX) {
    logf("ERROR : file of %ld bytes is too large to read", end);
    return false;
  }
  const auto size = static_cast<std::uint32_t>(end);
  if (size == 0) return false;

  // One zero byte more than the file, so the text always ends in a zero.
  std::unique_ptr<unsigned char, FreeDeleter> buffer(
      static_cast<unsigned char*>(std::calloc(std::size_t{size} + 1, 1)));
  if (!buffer) {
    logf("ERROR : no memory for a file of %u bytes", size);
    return false;
  }
  const std::size_t got = std::fread(buffer.get(), 1, size, targetFile);
  logf("%zd ?= %d", static_cast<ssize_t>(got), static_cast<int>(size));
  const auto* text = reinterpret_cast<const char*>(buffer.get());
  if (got < size) {
    // A short read is not a failure: the raw bytes are split as they are.
    logf("ERROR : %s", text);
  } else {
    datafile::decipher(buffer.get(), size);
  }
  // The whole text as UTF-8; Mac Korean text usually is not, and then only
  // "(null)" is shown, as the original platform does.
  const std::string_view whole(text, std::strlen(text));
  logDebugf("%s", whole.size() <= INT_MAX && isValidUtf8(whole) ? text : "(null)");
  datafile::splitLines(buffer.get(), size, lines);
  return true;
}

bool CommonLib::Decrypt(std::vector<std::string>& lines, const std::string& targetFilePath) {
  std::FILE* file = std::fopen(targetFilePath.c_str(), "rb");
  if (!file) return false;
  if (int error = std::ferror(file)) {
    logf("ERROR! code=%d", error);
    std::fclose(file);
    return false;
  }
  const bool ok = Decrypt(lines, file);
  std::fclose(file);
  return ok;
}

}  // namespace quarvel
