#pragma once
// The steps of the data-file reader behind CommonLib::Decrypt, exposed for
// `quarvel check`, the benchmarks, the fuzzer and anyone holding a file
// already in memory.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "format/DataFileFormat.h"

namespace quarvel::datafile {

// Why the reader will not read the file at `path`, asked before anything is
// read: what CommonLib::Decrypt, the data-file classes and the tool refuse.
enum class ReadRefusal {
  kNone,
  kMissing,         // nothing there, or it cannot be looked at
  kFolder,          // a folder
  kNotRegularFile,  // a pipe, socket or device, which could block or never end
  kTooLarge,        // more than UINT32_MAX bytes: the cipher counts in 32 bits
  kEmpty,           // no bytes: there is nothing to decipher
};
ReadRefusal readRefusal(const std::string& path);
// A few words for a person: "no such file", "is a folder", ...
std::string_view describe(ReadRefusal refusal);

// Deciphers in place: reverses the buffer, then XORs byte i with the key's
// byte i & 15. The exact inverse of CommonLib::Encrypt.
void decipher(unsigned char* buffer, std::uint32_t size);

// What the line scan meets in deciphered text. The reader's rules:
// - LF, or CR LF, ends a line;
// - a CR followed by anything else is skipped together with that byte;
// - a zero byte, or the end of the text, stops the scan, and the bytes
//   since the last line end never become a line (a CR as the very last
//   byte included: the scan stops at the end instead of stepping past it).
class LineScan {
 public:
  virtual ~LineScan() = default;
  // A whole line, `number` counting from 1, as stored (Mac Korean), of any
  // length; the view lasts until the next call.
  virtual void line(std::size_t number, std::string_view bytes) = 0;
  // The irregularities the reader passes over without a word.
  virtual void loneCarriageReturn(std::size_t /*number*/) {}
  virtual void zeroByte(std::size_t /*number*/, std::size_t /*offset*/) {}
  virtual void unterminatedLine(std::size_t /*number*/) {}
};
void scanLines(const unsigned char* text, std::size_t size, LineScan& scan);

// Appends the lines of deciphered text to `lines`, decoded from Mac Korean,
// by scanLines' rules. A line that does not decode is dropped; a line
// longer than kMaxLineBytes bytes is dropped, and logged.
void splitLines(const unsigned char* text, std::size_t size, std::vector<std::string>& lines);

// Decoded lines kept in one buffer, or two for a file read in halves: each
// line is a view of `*text` or, after the front half's lines, of `*back`;
// both stay where they are when the whole is moved.
struct DecodedLines {
  std::unique_ptr<std::string> text;
  std::unique_ptr<std::string> back;  // the back half's text, when read in two
  std::vector<std::string_view> lines;
  // Where in `lines` the lines starting with '#' are, as tag lines do, in
  // order: noted as the lines were found, while their bytes were in the
  // caches, so that a search for tags need not visit every line. Nothing
  // when the text was read line by line; then every line is to be looked at.
  std::optional<std::vector<std::size_t>> hashLines;
};
// The same lines into `out` (replacing what it held), with the same logging.
// A text the reader passes over without a word (no lone CR, no line too
// long, no line that does not decode) is decoded whole, in one call, and
// split in place; any other goes line by line.
void splitLines(const unsigned char* text, std::size_t size, DecodedLines& out);

// What CommonLib::Decrypt does with an open stream (read it whole, decipher
// it, split and decode its lines, log as it logs), into `out`. False, with
// `out` empty, when the stream's size cannot be learnt, is 0 or beyond 32
// bits, or there is no memory for it.
bool readLines(std::FILE* stream, DecodedLines& out);

// What readLines makes of the `size` bytes of the regular file open as
// `fd`, without its log lines but the size line, for a text it reads
// without a word; false, with `out` untouched, for any other text or a read
// that comes up short (readLines then reads the file whole and says why).
// readLines takes this way unless its debug lines are wanted. A file of
// `twoThreadsFrom` bytes or more is read in two halves on two threads.
// Below the default, what the halves saved a process's first read of a
// list (10 to 20 MB) was within the machine's noise, while the second
// thread's CPU is spent all the same; at 41 MB they save about 10 ms.
constexpr std::size_t kTwoThreadsFrom = std::size_t{16} << 20;
bool readLinesByBlocks(int fd, std::size_t size, DecodedLines& out,
                       std::size_t twoThreadsFrom = kTwoThreadsFrom);

}  // namespace quarvel::datafile
