// The data-file cipher and the reader that turns an enciphered file into
// lines (CommonLib::Encrypt and both CommonLib::Decrypt).
//
// The cipher XORs byte i with key[i & 15] and reverses the buffer; the
// reader reverses, then XORs. Both run over 16-byte blocks taken from the
// two ends at once, as byte-swapped 64-bit words, so each byte is loaded and
// stored once.

#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <system_error>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "common/HugePages.h"
#include "common/Log.h"
#include "common/StringUtil.h"
#include "format/LineReader.h"
#include "format/MacKorean.h"
#include "quarvel/CommonLib.h"

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

void scanLines(const unsigned char* text, std::size_t size, LineScan& scan) {
  // A line is a run of bytes between line ends unless a lone CR cut a piece
  // out of it; only then are its pieces gathered in `pieced`.
  std::string pieced;
  bool isPieced = false;
  std::size_t number = 1;
  std::size_t start = 0;
  std::size_t i = 0;
  auto endLine = [&](std::size_t end) {
    const std::string_view tail(reinterpret_cast<const char*>(text) + start, end - start);
    if (isPieced) {
      pieced.append(tail);
      scan.line(number, pieced);
      pieced.clear();
      isPieced = false;
    } else {
      scan.line(number, tail);
    }
    ++number;
  };
  while (i < size) {
    const unsigned char* stop =
        static_cast<const unsigned char*>(std::memchr(text + i, '\n', size - i));
    const std::size_t limit = stop ? static_cast<std::size_t>(stop - text) : size;
    // Within [i, limit) only a CR or a zero byte interrupts the line.
    for (; i < limit; ++i) {
      const unsigned char c = text[i];
      if (c == 0) {
        scan.zeroByte(number, i);
        if (!pieced.empty() || i > start) scan.unterminatedLine(number);
        return;
      }
      if (c != '\r') continue;
      if (i + 1 == limit && stop != nullptr) break;  // CR LF
      scan.loneCarriageReturn(number);
      pieced.append(reinterpret_cast<const char*>(text) + start, i - start);
      isPieced = true;
      i += 1;  // the loop's ++i steps over the swallowed byte
      start = std::min(i + 1, size);
    }
    if (i >= size) break;
    if (text[i] == '\r') {  // CR LF
      endLine(i);
      i += 2;
    } else {  // LF
      endLine(i);
      i += 1;
    }
    start = i;
  }
  if (!pieced.empty() || start < size) scan.unterminatedLine(number);
}

namespace {

// The reader's own scan: decodes each line, drops overlong and undecodable ones.
class DecodingScan : public LineScan {
 public:
  explicit DecodingScan(std::vector<std::string>& lines) : lines_(lines) {}
  void line(std::size_t number, std::string_view bytes) override {
    if (bytes.size() > kMaxLineBytes) {
      logf("ERROR : line %zu is longer than %zu bytes and was dropped", number, kMaxLineBytes);
    } else if (std::optional<std::string> decoded = MacKorean::decode(bytes)) {
      lines_.push_back(std::move(*decoded));
    }
  }

 private:
  std::vector<std::string>& lines_;
};

}  // namespace

void splitLines(const unsigned char* text, std::size_t size, std::vector<std::string>& lines) {
  DecodingScan scan(lines);
  scanLines(text, size, scan);
}

namespace {

// The first LF, CR or zero byte of text[from, size), or size.
std::size_t nextLineStop(const unsigned char* text, std::size_t from, std::size_t size) {
  std::size_t i = from;
#if defined(__SSE2__)
  const __m128i lf = _mm_set1_epi8('\n'), cr = _mm_set1_epi8('\r'), zero = _mm_setzero_si128();
  for (; i + 16 <= size; i += 16) {
    const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text + i));
    const __m128i stops =
        _mm_or_si128(_mm_or_si128(_mm_cmpeq_epi8(bytes, lf), _mm_cmpeq_epi8(bytes, cr)),
                     _mm_cmpeq_epi8(bytes, zero));
    if (const int mask = _mm_movemask_epi8(stops); mask != 0)
      return i + static_cast<std::size_t>(std::countr_zero(static_cast<unsigned>(mask)));
  }
#endif
  for (; i < size; ++i)
    if (text[i] == '\n' || text[i] == '\r' || text[i] == 0) return i;
  return size;
}

// The lines of decoded UTF-8 text[0, size), which ends in an LF, appended
// to `lines`: a view per LF-ended line, its CR before the LF left out. The
// index in `lines` of each line starting with '#' goes to `hashLines`.
void appendLineViews(const char* text, std::size_t size, std::vector<std::string_view>& lines,
                     std::vector<std::size_t>& hashLines) {
  for (std::size_t from = 0; from < size;) {
    const auto at = static_cast<std::size_t>(
        static_cast<const char*>(std::memchr(text + from, '\n', size - from)) - text);
    std::size_t bytes = at - from;
    if (bytes > 0 && text[at - 1] == '\r') --bytes;
    if (bytes > 0 && text[from] == '#') hashLines.push_back(lines.size());
    lines.emplace_back(text + from, bytes);
    from = at + 1;
  }
}

// The walk splitWhole takes over text[0, size): one pass, stopping only at
// an LF, a CR or a zero byte (three passes, for the zero byte, the LFs and
// the CRs, had cost a large list's open as much as deciphering it).
struct LineWalk {
  std::size_t end = 0;    // where the last whole line ends, its LF included
  std::size_t lines = 0;  // whole lines before `end`
  bool zero = false;      // a zero byte ended the text
};
// Nothing when the text needs the careful path: a lone CR in a whole line,
// a CR just before a zero byte, or a line longer than kMaxLineBytes.
std::optional<LineWalk> walkLines(const unsigned char* text, std::size_t size) {
  const char* const begin = reinterpret_cast<const char*>(text);
  LineWalk walk;
  bool loneCr = false;  // the line being read holds a CR not before an LF
  for (std::size_t i = nextLineStop(text, 0, size); i < size; i = nextLineStop(text, i, size)) {
    if (begin[i] == 0) {
      walk.zero = true;
      break;
    }
    if (begin[i] == '\r') {
      if (i + 1 < size && begin[i + 1] == '\n') {
        ++i;  // CR LF: the LF ends the line
        continue;
      }
      // A CR just before the zero byte swallows it, and the text goes on.
      if (i + 1 < size && begin[i + 1] == 0) return std::nullopt;
      loneCr = true;  // harmless only if no LF follows: then no line holds it
      ++i;
      continue;
    }
    std::size_t bytes = i - walk.end;
    if (bytes > 0 && begin[i - 1] == '\r') --bytes;
    if (loneCr || bytes > kMaxLineBytes) return std::nullopt;
    ++walk.lines;
    walk.end = ++i;
  }
  return walk;
}

// The lines of a text the scan passes over without a word, decoded whole
// and split in place; false, with `out` untouched, for any other text. Such
// a text ends at its first zero byte, every CR in it comes just before an
// LF and no line holds more than kMaxLineBytes bytes. Then its lines are
// the same before and after decoding: ASCII, CR and LF included, decodes to
// itself, no code's second byte is a CR or LF, and no code decodes to one.
// So, when the lines before the last LF decode as one text, splitting the
// result at its line ends gives each line decoded, as the scan would.
bool splitWhole(const unsigned char* text, std::size_t size, DecodedLines& out) {
  const std::optional<LineWalk> walk = walkLines(text, size);
  if (!walk) return false;
  std::optional<std::string> decoded =
      MacKorean::decode(std::string_view(reinterpret_cast<const char*>(text), walk->end));
  if (!decoded) return false;
  out.text = std::make_unique<std::string>(std::move(*decoded));
  out.lines.clear();
  out.lines.reserve(walk->lines);
  out.hashLines.emplace();
  appendLineViews(out.text->data(), out.text->size(), out.lines, *out.hashLines);
  return true;
}

// Deciphers the file's bytes [size - at - count, size - at), already in
// `in`, into plain text [at, at + count) in `out`: the cipher reversed the
// whole file, so the plain text's front comes from the file's end.
void decipherBlock(const unsigned char* in, std::size_t count, std::size_t at, unsigned char* out) {
  std::size_t j = 0;
  for (; j + 8 <= count; j += 8) store(out + j, reversed(load(in + count - 8 - j)) ^ keyAt(at + j));
  for (; j < count; ++j) out[j] = static_cast<unsigned char>(in[count - 1 - j] ^ keyByte(at + j));
}

}  // namespace

namespace {

// The file's plain text [from, to) read a block at a time from the file's
// end, each block deciphered, checked and decoded while it is in the
// caches, and appended to `text`: false for a text the whole-file reader
// must take. `from` starts a line; `to` ends one, or is the file's end.
struct DecodedRange {
  std::size_t lines = 0;  // lines ended
  bool zero = false;      // a zero byte ended the text
};
bool decodeRange(int fd, std::size_t size, std::size_t from, std::size_t to, std::string& text,
                 DecodedRange& range) {
  // Room for a range of ASCII in huge pages; the rest, there for Hangul's
  // longer UTF-8, is touched only if needed, and whatever of it a huge page
  // brought in is handed back at the end (the terminator kept).
  const std::size_t plainBytes = to - from;
  text.reserve(plainBytes + plainBytes / 2);
  adviseHugePages(text.data(), plainBytes);
  struct Trim {
    std::string& text;
    ~Trim() { releaseUnusedPages(text.data(), text.size() + 1, text.capacity() + 1); }
  } trim{text};
  constexpr std::size_t kBlock = std::size_t{256} << 10;
  // A block follows the unfinished line the one before left, which
  // splitWhole's limits keep short: kMaxLineBytes and its CR.
  constexpr std::size_t kCarry = kMaxLineBytes + 1;
  std::unique_ptr<unsigned char[]> cipher(new (std::nothrow) unsigned char[kBlock]);
  std::unique_ptr<unsigned char[]> plain(new (std::nothrow) unsigned char[kCarry + kBlock]);
  if (!cipher || !plain) return false;
  std::size_t carry = 0;  // bytes of the unfinished line at the front of `plain`
  for (std::size_t at = from; at < to;) {
    const std::size_t block = std::min(kBlock, to - at);
    for (std::size_t got = 0; got < block;) {
      const ssize_t n =
          ::pread(fd, cipher.get() + got, block - got, static_cast<off_t>(size - at - block + got));
      if (n <= 0) return false;
      got += static_cast<std::size_t>(n);
    }
    decipherBlock(cipher.get(), block, at, plain.get() + carry);
    at += block;
    const std::size_t length = carry + block;
    // The unfinished line is walked again with the next block, which says
    // what follows a CR at its end.
    const std::optional<LineWalk> walk = walkLines(plain.get(), length);
    if (!walk) return false;
    const std::string_view whole(reinterpret_cast<const char*>(plain.get()), walk->end);
    if (!MacKorean::decodeAppend(whole, text)) return false;
    range.lines += walk->lines;
    if (walk->zero) {
      range.zero = true;
      break;
    }
    if (at == to) break;
    carry = length - walk->end;
    if (carry > kCarry) return false;  // a line too long: dropped and logged the other way
    std::memmove(plain.get(), plain.get() + walk->end, carry);
  }
  return true;
}

// Where a large file's text is cut in two for decodeRange on two threads:
// just past the first LF from the middle on, or 0 when there is none near
// it. A zero byte before it needs no care: the front half ends there.
std::size_t middleLineStart(int fd, std::size_t size) {
  constexpr std::size_t kLook = kMaxLineBytes + 2;
  const std::size_t middle = size / 2;
  const std::size_t count = std::min(kLook, size - middle);
  unsigned char cipher[kLook], plain[kLook];
  if (::pread(fd, cipher, count, static_cast<off_t>(size - middle - count)) !=
      static_cast<ssize_t>(count))
    return 0;
  decipherBlock(cipher, count, middle, plain);
  const auto* lf = static_cast<const unsigned char*>(std::memchr(plain, '\n', count));
  if (lf == nullptr) return 0;
  const std::size_t cut = middle + static_cast<std::size_t>(lf - plain) + 1;
  return cut < size ? cut : 0;
}

}  // namespace

// The enciphered file never lies in memory whole, and its bytes pass
// through memory once instead of five times. A large file's second half
// is decoded on a second thread into a text of its own, which its lines
// view: no line crosses the cut, so the lines are the same. Each thread
// finds its own half's lines.
bool readLinesByBlocks(int fd, std::size_t size, DecodedLines& out, std::size_t twoThreadsFrom) {
  auto text = std::make_unique<std::string>();
  const std::size_t cut = size >= twoThreadsFrom ? middleLineStart(fd, size) : 0;
  DecodedRange front, back;
  std::unique_ptr<std::string> backText;
  std::vector<std::string_view> backLines;
  std::vector<std::size_t> backHashLines;
  std::future<bool> backDone;
  if (cut != 0) {
    try {
      backDone = std::async(std::launch::async, [&] {
        backText = std::make_unique<std::string>();
        if (!decodeRange(fd, size, cut, size, *backText, back)) return false;
        backLines.reserve(back.lines);
        appendLineViews(backText->data(), backText->size(), backLines, backHashLines);
        return true;
      });
    } catch (const std::system_error&) {
      // No thread to be had: one thread reads it all.
    }
  }
  const bool split = backDone.valid();
  const bool frontRead = decodeRange(fd, size, 0, split ? cut : size, *text, front);
  std::vector<std::string_view> lines;
  std::vector<std::size_t> hashLines;
  if (frontRead) {
    lines.reserve(front.lines + (split ? front.lines + front.lines / 8 : 0));
    appendLineViews(text->data(), text->size(), lines, hashLines);
  }
  // The back half counts only when the front ran to the cut.
  const bool backRead = split && backDone.get();
  if (!frontRead || (split && !front.zero && !backRead)) return false;
  logf("%zd ?= %d", static_cast<ssize_t>(size), static_cast<int>(size));
  if (split && !front.zero) {
    for (const std::size_t line : backHashLines) hashLines.push_back(lines.size() + line);
    lines.insert(lines.end(), backLines.begin(), backLines.end());
    out.back = std::move(backText);
  }
  out.text = std::move(text);
  out.lines = std::move(lines);
  out.hashLines = std::move(hashLines);
  return true;
}

void splitLines(const unsigned char* text, std::size_t size, DecodedLines& out) {
  if (splitWhole(text, size, out)) return;
  std::vector<std::string> lines;
  splitLines(text, size, lines);
  std::size_t total = 0;
  for (const std::string& line : lines) total += line.size();
  out.text = std::make_unique<std::string>();
  out.text->reserve(total);
  for (const std::string& line : lines) *out.text += line;
  out.hashLines.reset();
  out.lines.clear();
  out.lines.reserve(lines.size());
  std::size_t at = 0;
  for (const std::string& line : lines) {
    out.lines.emplace_back(out.text->data() + at, line.size());
    at += line.size();
  }
}

ReadRefusal readRefusal(const std::string& path) {
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0) return ReadRefusal::kMissing;
  if (S_ISDIR(info.st_mode)) return ReadRefusal::kFolder;
  if (!S_ISREG(info.st_mode)) return ReadRefusal::kNotRegularFile;
  if (static_cast<std::uint64_t>(info.st_size) > kMaxFileBytes) return ReadRefusal::kTooLarge;
  if (info.st_size == 0) return ReadRefusal::kEmpty;
  return ReadRefusal::kNone;
}

std::string_view describe(ReadRefusal refusal) {
  switch (refusal) {
    case ReadRefusal::kNone:
      return "readable";
    case ReadRefusal::kMissing:
      return "no such file";
    case ReadRefusal::kFolder:
      return "is a folder";
    case ReadRefusal::kNotRegularFile:
      return "not a regular file";
    case ReadRefusal::kTooLarge:
      return "larger than the 4 GiB a data file can hold";
    case ReadRefusal::kEmpty:
      return "empty data file";
  }
  return "unreadable";
}

}  // namespace datafile

bool CommonLib::Encrypt(unsigned char* buffer, std::uint32_t size) {
  if (size > 0) reverseXor<true>(buffer, size);
  return true;
}

bool datafile::readLines(std::FILE* targetFile, DecodedLines& out) {
  out = DecodedLines();
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
  // The whole text logged at debug priority needs the whole file at hand.
  if (!debugLinesWanted() && readLinesByBlocks(::fileno(targetFile), size, out)) return true;

  // One zero byte more than the file, so the text always ends in a zero.
  std::unique_ptr<unsigned char, FreeDeleter> buffer(
      static_cast<unsigned char*>(std::calloc(std::size_t{size} + 1, 1)));
  if (!buffer) {
    logf("ERROR : no memory for a file of %u bytes", size);
    return false;
  }
  adviseHugePages(buffer.get(), std::size_t{size} + 1);
  const std::size_t got = std::fread(buffer.get(), 1, size, targetFile);
  logf("%zd ?= %d", static_cast<ssize_t>(got), static_cast<int>(size));
  const auto* text = reinterpret_cast<const char*>(buffer.get());
  if (got < size) {
    // A short read is not a failure: the raw bytes are split as they are.
    logf("ERROR : %s", text);
  } else {
    decipher(buffer.get(), size);
  }
  // The whole text as UTF-8; Mac Korean text usually is not, and then only
  // "(null)" is shown, as the original platform does. Measuring and
  // checking the whole file costs as much as deciphering it, so only when
  // the line is wanted.
  if (debugLinesWanted()) {
    const std::string_view whole(text, std::strlen(text));
    logDebugf("%s", whole.size() <= INT_MAX && isValidUtf8(whole) ? text : "(null)");
  }
  // The enciphered bytes go as soon as the lines are decoded, before the
  // caller builds anything from them.
  DecodedLines decoded;
  datafile::splitLines(buffer.get(), size, decoded);
  buffer.reset();
  out = std::move(decoded);
  return true;
}

bool CommonLib::Decrypt(std::vector<std::string>& lines, std::FILE* targetFile) {
  datafile::DecodedLines decoded;
  if (!datafile::readLines(targetFile, decoded)) return false;
  lines.reserve(lines.size() + decoded.lines.size());
  for (std::string_view line : decoded.lines) lines.emplace_back(line);
  return true;
}

bool CommonLib::Decrypt(std::vector<std::string>& lines, const std::string& targetFilePath) {
  // A folder opens as a stream of unknown size, a pipe may never end.
  const datafile::ReadRefusal refusal = datafile::readRefusal(targetFilePath);
  if (refusal == datafile::ReadRefusal::kFolder ||
      refusal == datafile::ReadRefusal::kNotRegularFile) {
    logf("ERROR : %s is not a regular file", targetFilePath.c_str());
    return false;
  }
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
