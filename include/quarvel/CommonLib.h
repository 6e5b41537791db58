#pragma once
/// @file
/// Static utilities shared by the library and its host: the data-file cipher
/// and its line reader, date stamps, file tests, folder creation, the system
/// version and the special-character folding applied before text is stored.
///
/// Every member is static, keeps no state, and may be called from any thread.

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

namespace quarvel {

class CommonLib {
 public:
  CommonLib() = delete;

  /// --- Cipher (implemented with the data files) ---------------------------
  /// The fixed 16-byte key.
  static constexpr char kKey[16] = {'L', 'u', 'm', 'b', 'e', 'r', 'g', 'a',
                                    'n', '3', '_', 'V', 'x', 'o', 'k', '!'};

  /// Enciphers `size` bytes in place: XOR byte i with key[i & 15], then
  /// reverse the buffer. Always answers true.
  static bool Encrypt(unsigned char* buffer, std::uint32_t size);

  /// Reads the whole open stream, deciphers it and appends its lines, decoded
  /// from Mac Korean, to `lines`. Answers false for an empty (or unreadable)
  /// stream, leaving `lines` untouched. The stream stays open.
  static bool Decrypt(std::vector<std::string>& lines, std::FILE* targetFile);
  /// As above on a path; false when it cannot be opened.
  static bool Decrypt(std::vector<std::string>& lines, const std::string& targetFilePath);

  // --- Dates, files and the system version --------------------------------
  // Paths are zero-terminated, in the file system's bytes. A null or empty
  // path, or one that cannot be examined, answers "" or false. The date
  // stamps use the local time zone (localtime_r, so any thread may call them).

  /// Local time now as "YYYYMMDDhhmmss" (14 characters for a four-digit year).
  static std::string getToday();
  /// The file's birth time as "YYYYMMDD_hhmmss", links followed (statx). Where
  /// the file system records no birth time (statx reports none, or reports
  /// the epoch itself, as some network, overlay and older file systems do),
  /// the last modification time stands in for it.
  static std::string getFileCreateDate(const char* path);
  /// The file's last access time as "YYYYMMDD_hhmmss", links followed.
  static std::string getFileAccessDate(const char* path);
  /// True when the path exists (access with F_OK): files and folders alike.
  static bool isExists(const char* path);
  /// True when the path is a folder or a link that leads to one.
  static bool isDirectory(const char* path);
  /// Creates every missing folder of the path with mode 0755, reading at most
  /// its first 1,024 bytes (a longer path is cut there, a shorter one is never
  /// read past its end). With `makeLastPath` false the last component is left
  /// alone (the path names a file about to be written); a path ending in "/"
  /// has its last folder made anyway. Failures are ignored: test afterwards.
  /// The one-argument form makes the last component too.
  static void mkdirs(const char* path);
  static void mkdirs(const char* path, bool makeLastPath);
  /// The distribution's name and version from os-release and the kernel
  /// release, e.g. "Debian GNU/Linux 12 (bookworm) (Kernel 6.1.0-18-amd64)";
  /// "Linux" stands in for a missing os-release. Never empty.
  static std::string getOSXVersion();

  /// --- Folding --------------------------------------------------------------
  /// The text with accented Latin letters replaced by plain letters, three
  /// symbols substituted and three fractions removed, exactly as the ordered
  /// list of 209 case-insensitive, canonically-equivalent passes does (so é
  /// becomes "E", å and Å become "a", "µ" becomes "μ"). Everything no pass
  /// catches, Korean and ASCII included, keeps its exact bytes; ill-formed
  /// UTF-8 passes through unchanged. One scan, about as fast as a copy on
  /// ASCII; safe to call from any thread.
  static std::string encodingForSpecialCharacter(std::string_view text);
};

}  // namespace quarvel
