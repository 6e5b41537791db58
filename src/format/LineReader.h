#pragma once
// The two steps of the data-file reader behind CommonLib::Decrypt, exposed
// for the benchmarks, the fuzzer and anyone holding a file already in
// memory.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "format/DataFileFormat.h"

namespace quarvel::datafile {

// Deciphers in place: reverses the buffer, then XORs byte i with the key's
// byte i & 15. The exact inverse of CommonLib::Encrypt.
void decipher(unsigned char* buffer, std::uint32_t size);

// Appends the lines of deciphered text to `lines`, decoded from Mac Korean:
// - LF, or CR LF, ends a line; a line that does not decode is dropped;
// - a CR followed by anything else is skipped together with that byte;
// - a zero byte, or the end of the text, stops the scan, and the bytes
//   since the last line end never become a line (a CR as the very last
//   byte included: the scan stops at the end instead of stepping past it);
// - a line longer than kMaxLineBytes bytes (DataFileFormat.h) is dropped, and logged.
void splitLines(const unsigned char* text, std::size_t size, std::vector<std::string>& lines);

}  // namespace quarvel::datafile
