#pragma once
// The work behind `quarvel decrypt` and `quarvel encrypt`.

#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>

namespace quarvel::cli {

// Prints the lines the data-file reader keeps from the enciphered file at
// `path`, as UTF-8, one per line. Answers the exit status: 0, or 1 (with a
// message on `err`) when the file is missing, empty or unreadable.
// `label` names the file in messages (default: `path`; "-" for standard input).
int runDecrypt(const std::string& path, std::ostream& out, std::ostream& err,
               const std::string& label = {});

// Where a text cannot become a data file, 1-based; column counts characters.
struct TextProblem {
  std::size_t line = 0;
  std::size_t column = 0;
  std::string reason;  // e.g. "U+00E9 has no Mac Korean form"
};

// UTF-8 text with LF or CR LF line ends (a last line without one gets one;
// a leading byte-order mark is skipped) to the enciphered Mac Korean bytes
// of a data file, every line ended by CR LF. Nothing, and the first problem
// in `problem`, when a character has no Mac Korean form, the text holds a
// zero byte or a CR that does not end a line, a line is longer than the
// reader keeps, or the text is empty.
std::optional<std::string> encipherText(std::string_view utf8, TextProblem* problem);

struct EncryptOptions {
  std::string textPath;
  std::string outPath;
};

// Reads options.textPath, enciphers it and replaces options.outPath with it
// (FileReplacement). On any problem prints "FILE:LINE:COLUMN: reason", or
// that OUT cannot be written, to `err`, leaves OUT as it was and answers 1;
// 0 on success.
int runEncrypt(const EncryptOptions& options, std::ostream& err);

}  // namespace quarvel::cli
