#include "quarvel/FileFramework.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/FileReplacement.h"
#include "common/Log.h"
#include "common/StringUtil.h"
#include "format/DataFileFormat.h"
#include "format/LineReader.h"
#include "format/MacKorean.h"
#include "quarvel/CVUserDefaults.h"
#include "quarvel/CommonLib.h"

namespace quarvel {

FileFramework::FileFramework() = default;
FileFramework::~FileFramework() = default;

std::optional<std::string> FileFramework::getFileName() const { return fileName_; }
std::optional<std::string> FileFramework::m_strFileName() const { return fileName_; }
void FileFramework::setM_strFileName(std::optional<std::string> fileName) {
  fileName_ = std::move(fileName);
}

std::string FileFramework::makeStartTag(std::string_view tag) {
  std::string line(tag);
  line += datafile::kStartSuffix;
  return line;
}

std::string FileFramework::makeEndTag(std::string_view tag) {
  std::string line(tag);
  line += datafile::kEndSuffix;
  return line;
}

void FileFramework::appendLinefeed(std::string& text) { text += datafile::kLineEnd; }

void FileFramework::addToByteArray(std::vector<unsigned char>&, std::string_view) {}
Table* FileFramework::newTableWithTag(std::string_view, bool) { return nullptr; }
Table* FileFramework::getTableByTag(std::string_view) { return nullptr; }
bool FileFramework::openWithFileName(const std::string&, bool) { return false; }
bool FileFramework::save() {
  const std::optional<std::string> fileName = m_strFileName();
  if (!fileName || fileName->empty()) return false;
  return saveAsFileName(*fileName, true);
}
bool FileFramework::saveAsFileName(const std::string&, bool) { return false; }

std::string FileFramework::resolvePath(const std::string& fileName, bool isFullPath) {
  if (isFullPath) return fileName;
  std::string path = orNull(CVUserDefaults::standardUserDefaults()->libraryPath());
  path += '/';
  path += fileName;
  return path;
}

FileFramework::ReadResult FileFramework::readSections(const std::string& path,
                                                      std::span<Table* const> tables,
                                                      bool traceLines) {
  ReadResult result;
  // Only regular files are read: a folder, a pipe or a device would give the
  // cipher a meaningless size or block it for ever; and the cipher counts
  // sizes in 32 bits.
  switch (datafile::readRefusal(path)) {
    case datafile::ReadRefusal::kFolder:
    case datafile::ReadRefusal::kNotRegularFile:
      result.status = ReadStatus::kOpenFailed;
      return result;
    case datafile::ReadRefusal::kTooLarge:
      result.status = ReadStatus::kDecryptFailed;
      return result;
    default:
      break;
  }
  std::FILE* stream = std::fopen(path.c_str(), "rb");
  if (stream == nullptr) {
    result.status = ReadStatus::kOpenFailed;
    return result;
  }
  if (int error = std::ferror(stream); error != 0) {
    std::fclose(stream);
    result.status = ReadStatus::kOpenFailed;
    result.errorCode = error;
    return result;
  }
  std::vector<std::string> lines;
  const bool deciphered = CommonLib::Decrypt(lines, stream);
  std::fclose(stream);
  if (!deciphered) {
    result.status = ReadStatus::kDecryptFailed;
    return result;
  }

  std::vector<std::string> startLines, endLines;
  for (Table* table : tables) {
    startLines.push_back(makeStartTag(table->getTag()));
    endLines.push_back(makeEndTag(table->getTag()));
  }
  // Positions are ints: lines beyond INT_MAX (possible only in theory, in a
  // 4 GiB file of empty lines) are not examined.
  const std::size_t count = lines.size() > static_cast<std::size_t>(INT_MAX)
                                ? static_cast<std::size_t>(INT_MAX)
                                : lines.size();
  for (std::size_t i = 0; i < count; ++i) {
    const std::string& line = lines[i];
    if (traceLines) logDebugf("%s\n", line.c_str());
    // Every tag line starts with '#'; most lines are records.
    if (line.empty() || line[0] != '#') continue;
    bool matched = false;
    for (std::size_t t = 0; t < tables.size() && !matched; ++t) {
      if (line == startLines[t]) {
        tables[t]->setStartPosition(static_cast<int>(i));
        matched = true;
      }
    }
    for (std::size_t t = 0; t < tables.size() && !matched; ++t) {
      if (line == endLines[t]) {
        tables[t]->setEndPosition(static_cast<int>(i));
        matched = true;
      }
    }
  }
  // A position not set by this text is the one an earlier open left; it may
  // lie beyond this text's lines, and then the section cannot be read.
  for (Table* table : tables) {
    const int start = table->getStartPosition();
    const int end = table->getEndPosition();
    if (start < 0 || start >= end || static_cast<std::size_t>(end) >= count) {
      result.status = ReadStatus::kDamaged;
      return result;
    }
  }
  result.status = ReadStatus::kOk;
  result.lines = std::move(lines);
  return result;
}

namespace {

// The character as text for a log line; nothing for a surrogate.
std::string utf8Of(char32_t c) {
  std::string out;
  if (c < 0xD800 || c > 0xDFFF) appendUtf8(out, c);
  return out;
}

}  // namespace

std::unique_ptr<unsigned char[]> FileFramework::buildContents(std::span<Table* const> tables,
                                                              const char* owner,
                                                              std::uint64_t& size) {
  size = 0;
  // Line index of each section's start line, to name the section and record
  // of a line that is refused.
  std::vector<std::size_t> sectionStart;
  std::size_t reserve = 0;
  for (Table* table : tables) {
    const std::uint64_t count = table->getDataCount();
    for (std::uint64_t i = 0; i < count; ++i) {
      RecordPtr record = table->select(static_cast<int>(i));
      if (!record) continue;
      reserve += record->tabbedText().size() + 2;
    }
    reserve += 2 * table->getTag().size() + 16;
  }
  std::string text;
  text.reserve(reserve);
  std::size_t line = 0;
  for (Table* table : tables) {
    sectionStart.push_back(line);
    text += table->getTag();
    text += datafile::kStartSuffix;
    text += datafile::kLineEnd;
    ++line;
    const std::uint64_t count = table->getDataCount();
    for (std::uint64_t i = 0; i < count; ++i) {
      // A record's line is its values joined by tabs: the record's own text.
      if (const RecordPtr record = table->select(static_cast<int>(i))) {
        const std::string_view values = record->tabbedText();
        if (datafile::holdsLineBreak(values)) {
          logWarningf("%s // SAVE REFUSED: a CR or LF inside a value (section %s, record %lld)",
                      owner, table->getTag().c_str(), static_cast<long long>(i));
          return nullptr;
        }
        text += values;
      }
      text += datafile::kLineEnd;
      ++line;
    }
    text += table->getTag();
    text += datafile::kEndSuffix;
    text += datafile::kLineEnd;
    ++line;
  }

  // The tag and record index of text line `at`.
  const auto locate = [&](std::size_t at, const char*& tag, long long& record) {
    std::size_t section = 0;
    while (section + 1 < sectionStart.size() && sectionStart[section + 1] <= at) ++section;
    tag = tables.empty() ? "" : tables[section]->getTag().c_str();
    record = tables.empty() ? -1 : static_cast<long long>(at - sectionStart[section]) - 1;
  };

  // Folded, then encoded straight into the buffer the caller receives: no
  // code takes more bytes than its UTF-8, so the folded text's size is room
  // enough, and nothing is zero-filled first.
  std::string folded = CommonLib::encodingForSpecialCharacter(text);
  text = std::string();
  auto buffer = std::make_unique_for_overwrite<unsigned char[]>(folded.size() + 1);
  MacKorean::EncodeError error;
  const std::optional<std::size_t> encoded =
      MacKorean::encodeInto(folded, reinterpret_cast<char*>(buffer.get()), &error);
  if (!encoded) {
    const std::size_t offset = std::min(error.offset, folded.size());
    std::size_t at = 0;
    for (std::size_t i = 0; i < offset; ++i) at += folded[i] == '\n';
    const char* tag = nullptr;
    long long record = 0;
    locate(at, tag, record);
    logWarningf(
        "%s // SAVE REFUSED: U+%04X \"%s\" has no Mac Korean form (section %s, record %lld)", owner,
        static_cast<unsigned>(error.character), utf8Of(error.character).c_str(), tag, record);
    return nullptr;
  }
  folded = std::string();
  buffer[*encoded] = 0;
  // No value holds a CR or LF, and neither folding nor Mac Korean makes one
  // (a two-byte code's second byte is 0x41 or above), so each LF ends one
  // line of the text, after its CR: one scan of the stored bytes measures
  // every line as the reader will see it.
  const char* const begin = reinterpret_cast<const char*>(buffer.get());
  const char* const end = begin + *encoded;
  std::size_t at = 0;
  for (const char* from = begin; from < end; ++at) {
    const auto* lf = static_cast<const char*>(std::memchr(from, '\n', end - from));
    if (lf == nullptr) break;
    auto bytes = static_cast<std::size_t>(lf - from);
    if (bytes > 0 && from[bytes - 1] == '\r') --bytes;
    if (!datafile::fitsOneLine(bytes)) {
      const char* tag = nullptr;
      long long record = 0;
      locate(at, tag, record);
      logWarningf(
          "%s // SAVE REFUSED: a line of %zu bytes, longer than %zu (section %s, record %lld)",
          owner, bytes, datafile::kMaxLineBytes, tag, record);
      return nullptr;
    }
    from = lf + 1;
  }
  // The text ends at its first zero byte, as a C string would.
  size = ::strnlen(begin, *encoded);
  return buffer;
}

bool FileFramework::writeContents(const std::string& path, unsigned char* buffer,
                                  std::uint64_t size) {
  if (buffer == nullptr || size == 0 || size > UINT32_MAX || path.empty()) return false;
  CommonLib::Encrypt(buffer, static_cast<std::uint32_t>(size));
  const std::string_view bytes(reinterpret_cast<const char*>(buffer),
                               static_cast<std::size_t>(size));
  return FileReplacement::replace(path, bytes);
}

}  // namespace quarvel
