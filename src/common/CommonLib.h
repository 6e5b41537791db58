#pragma once
// Static utilities shared by the library and its host: the data-file cipher
// and its line reader, date stamps, file tests, folder creation, the system
// version and the special-character folding applied before text is stored.

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

namespace quarvel {

class CommonLib {
 public:
  CommonLib() = delete;

  // --- Cipher (implemented with the data files) ---------------------------
  // The fixed 16-byte key.
  static constexpr char kKey[16] = {'L', 'u', 'm', 'b', 'e', 'r', 'g', 'a',
                                    'n', '3', '_', 'V', 'x', 'o', 'k', '!'};

  // Enciphers `size` bytes in place: XOR byte i with key[i & 15], then
  // reverse the buffer. Always answers true.
  static bool Encrypt(unsigned char* buffer, std::uint32_t size);

  // Reads the whole open stream, deciphers it and appends its lines, decoded
  // from Mac Korean, to `lines`. Answers false for an empty (or unreadable)
  // stream, leaving `lines` untouched. The stream stays open.
  static bool Decrypt(std::vector<std::string>& lines, std::FILE* targetFile);
  // As above on a path; false when it cannot be opened.
  static bool Decrypt(std::vector<std::string>& lines, const std::string& targetFilePath);

  // --- Dates, files and the system version --------------------------------
  // Local time now as "YYYYMMDDhhmmss".
  static std::string getToday();
  // The file's birth / last access time as "YYYYMMDD_hhmmss", links
  // followed; "" when the path cannot be examined.
  static std::string getFileCreateDate(const char* path);
  static std::string getFileAccessDate(const char* path);
  static bool isExists(const char* path);
  static bool isDirectory(const char* path);
  // Creates every missing folder of the path (the first 1,024 bytes of it);
  // the last component too when `makeLastPath` is true. Failures are ignored.
  static void mkdirs(const char* path);
  static void mkdirs(const char* path, bool makeLastPath);
  // A human-readable system version, never empty.
  static std::string getOSXVersion();

  // --- Folding --------------------------------------------------------------
  // The text with accented Latin letters replaced by plain letters, three
  // symbols substituted and three fractions removed, exactly as the ordered
  // list of 209 case-insensitive, canonically-equivalent passes does.
  static std::string encodingForSpecialCharacter(std::string_view text);
};

}  // namespace quarvel
