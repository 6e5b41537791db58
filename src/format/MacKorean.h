#pragma once
// A strict codec for Apple's Mac Korean text encoding: ASCII as single bytes,
// a few further single bytes, KS X 1001 as two bytes and Apple's extensions,
// some of which stand for sequences of several Unicode characters.

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace quarvel {

class MacKorean {
 public:
  MacKorean() = delete;

  // Where and why encoding failed.
  struct EncodeError {
    std::size_t offset = 0;  // byte offset of the character in the UTF-8 input
    char32_t character = 0;  // the character that has no mapping (or U+FFFD for bad UTF-8)
  };

  // Mac Korean bytes to UTF-8; nothing when any byte sequence has no mapping.
  static std::optional<std::string> decode(std::string_view bytes);
  // The same, appended to `text`; false when a byte sequence has no
  // mapping, and `text` may then hold part of the decoded bytes.
  static bool decodeAppend(std::string_view bytes, std::string& text);

  // UTF-8 to Mac Korean bytes; nothing when a character has no mapping (or
  // the input is not UTF-8), with the first offending character in `error`.
  static std::optional<std::string> encode(std::string_view utf8, EncodeError* error = nullptr);

  // The same into `out`, which must have room for utf8.size() bytes: no code
  // takes more bytes than the UTF-8 of what it stands for. Answers the bytes
  // written; nothing (with `error`) as encode does. `out` may then hold part
  // of the text.
  static std::optional<std::size_t> encodeInto(std::string_view utf8, char* out,
                                               EncodeError* error = nullptr);

  // encodeInto's fast lane for text that takes no careful step: ASCII but
  // DEL, and characters with a code of their own (no multi-character code
  // begins with them or with the ASCII byte before them) that `keep`
  // accepts. Answers the bytes written, the same as encodeInto's; nothing
  // at the first other character, with part of the text in `out` (room for
  // utf8.size() bytes), and the caller then takes the careful way.
  static std::optional<std::size_t> encodePlainInto(std::string_view utf8, char* out,
                                                    bool (*keep)(char32_t));
};

}  // namespace quarvel
