#include "quarvel/FileFramework.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <future>
#include <optional>
#include <system_error>
#include <thread>

#include "common/FileReplacement.h"
#include "common/Folding.h"
#include "common/HugePages.h"
#include "common/Log.h"
#include "common/StringUtil.h"
#include "format/DataFileFormat.h"
#include "format/LineReader.h"
#include "format/MacKorean.h"
#include "quarvel/CVUserDefaults.h"
#include "quarvel/CommonLib.h"
#include "tables/TabbedSplit.h"

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

namespace {

// Records passed from the thread that builds them to one that reads them a
// little behind. The records one addTabbedLines call builds lie in one
// array in row order, so the builder publishes only how many are done, a
// batch at a time: a count stored per record would move its cache line
// between the cores at every record. Its lines are its own, apart from the
// builder's locals beside it on the stack.
class alignas(64) RecordRelay {
 public:
  /// On the builder's thread, once record `index` (from 0) is built.
  void built(std::size_t index, const Record& record) {
    if (index == 0) first_.store(&record, std::memory_order_relaxed);
    if ((index + 1) % kBatch == 0) count_.store(index + 1, std::memory_order_release);
  }
  /// On the builder's thread, when no more will come, also after a throw.
  void finish(std::size_t count) {
    count_.store(count, std::memory_order_release);
    done_.store(true, std::memory_order_release);
  }
  /// On the reader's thread: each(index, record) for every record, in
  /// order, until finish(). The reader keeps kLag records behind, where
  /// the builder's writes have left its core's caches for the shared one:
  /// a line still in the other core's cache costs about as much to fetch
  /// as the work it saves. Caught up, it spins briefly, then sleeps
  /// 0.1 ms at a time (the builder takes about 0.3 ms for kLag records)
  /// rather than spend a core's cycles, a host's, on waiting.
  template <typename Each>
  void follow(Each&& each) {
    std::size_t next = 0;
    for (unsigned idle = 0;; ++idle) {
      // done_ first: once it is seen, the count read after it is final.
      const bool done = done_.load(std::memory_order_acquire);
      const std::size_t count = count_.load(std::memory_order_acquire);
      if (count > next && (done || count - next >= kLag)) {
        const Record* const first = first_.load(std::memory_order_relaxed);
        for (; next < count; ++next) each(next, first[next]);
        idle = 0;
      } else if (done) {
        return;
      } else if (idle < 64) {
#if defined(__x86_64__) || defined(__i386__)
        __builtin_ia32_pause();
#endif
      } else {
        std::this_thread::sleep_for(std::chrono::microseconds(100));
      }
    }
  }

 private:
  static constexpr std::size_t kBatch = 64;
  static constexpr std::size_t kLag = 4096;
  std::atomic<const Record*> first_{nullptr};
  std::atomic<std::size_t> count_{0};
  std::atomic<bool> done_{false};
};

}  // namespace

std::int64_t FileFramework::addRecords(TableMulti& table, std::shared_ptr<const std::string> text,
                                       std::span<const std::string_view> lines,
                                       const RefusedCallback& refused, const RecordCallback& added,
                                       const RecordCallback& alongside) {
  std::vector<std::size_t> refusedLines;
  std::size_t reported = 0;
  const auto report = [&] {
    for (; reported < refusedLines.size(); ++reported) refused(lines[refusedLines[reported]]);
  };
  // Below this many lines a thread costs more than it saves. As a
  // process's first open, at 20,000 lines it neither saved nor cost (10.6
  // ms against 10.4), at 100,000 it saved 4.5 ms of 42 (measured when the
  // second thread split the lines again instead of reading the records).
  constexpr std::size_t kAlongsideFrom = 8192;
  RecordRelay relay;
  std::shared_ptr<const void> records;  // outlives the reader, should the table throw
  // The second thread first splits the later lines, which this one then
  // finds done, and then reads the records behind it. Both outlive the
  // second thread.
  std::optional<TabbedSplit> split;
  std::future<void> side;
  const auto first = static_cast<std::int64_t>(table.getCount());
  if (alongside && lines.size() >= kAlongsideFrom) {
    if (const std::size_t fields = table.m_arrField().size(); fields > 0 && fields <= UINT16_MAX)
      split.emplace(lines, fields);
    try {
      side = std::async(std::launch::async,
                        [&relay, &alongside, first, helper = split ? &*split : nullptr] {
                          if (helper != nullptr) helper->splitAhead();
                          relay.follow([&](std::size_t index, const Record& record) {
                            alongside(first + static_cast<std::int64_t>(index), record);
                          });
                        });
    } catch (const std::system_error&) {
      // No thread to be had: both below, on this one.
      split.reset();
    }
  }
  // On a second thread the records go to it as they are built, and the
  // lines' views, which only this thread then reads, are handed back to
  // the kernel as it passes them (each refused line reported first): by the
  // time the indexes are full, the 16 bytes a line are gone. Without one,
  // one callback serves both.
  const bool threaded = side.valid();
  constexpr std::size_t kReleaseEvery = 16384;
  std::size_t released = 0;
  std::size_t count = 0;
  // Should the table throw, the reader stops at what it was given, and the
  // future's destructor waits for it.
  struct Finish {
    RecordRelay& relay;
    const std::size_t& count;
    ~Finish() { relay.finish(count); }
  } finish{relay, count};
  RecordCallback each;
  if (threaded) {
    each = [&](std::int64_t at, const Record& record) {
      if (added) added(at, record);
      relay.built(count++, record);
      const std::size_t line = count + refusedLines.size();
      if (line - released >= kReleaseEvery) {
        report();
        releaseUnusedPages(lines.data(), 0, line * sizeof(std::string_view));
        released = line;
      }
    };
  } else if (alongside) {
    each = [&](std::int64_t at, const Record& record) {
      if (added) added(at, record);
      alongside(at, record);
    };
  } else {
    each = added;
  }
  const std::int64_t row = table.addTabbedLines(std::move(text), lines, refusedLines, each,
                                                &records, split ? &*split : nullptr);
  relay.finish(count);
  report();
  if (threaded) side.get();
  return row;
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
  datafile::DecodedLines decoded;
  const bool deciphered = datafile::readLines(stream, decoded);
  std::fclose(stream);
  const std::vector<std::string_view>& lines = decoded.lines;
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
  const auto examine = [&](std::size_t i) {
    const std::string_view line = lines[i];
    // Every tag line starts with '#'; most lines are records.
    if (line.empty() || line[0] != '#') return;
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
  };
  // Asked once: a call per line cost more than the tag search.
  if (traceLines && debugLinesWanted()) {
    for (std::size_t i = 0; i < count; ++i) {
      logDebugf("%.*s\n", static_cast<int>(lines[i].size()), lines[i].data());
      examine(i);
    }
  } else if (decoded.hashLines) {
    // Only the lines the reader saw start with '#': visiting every line's
    // first byte, spread over the whole text, took 2 ms of a 41 MB list's
    // open.
    for (const std::size_t i : *decoded.hashLines)
      if (i < count) examine(i);
  } else {
    for (std::size_t i = 0; i < count; ++i) examine(i);
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
  if (decoded.back) {
    // One owner for both halves of a text read in two, which the records
    // keep as they keep a text in one piece.
    using Halves = std::pair<std::unique_ptr<std::string>, std::unique_ptr<std::string>>;
    auto halves = std::make_shared<Halves>(std::move(decoded.text), std::move(decoded.back));
    result.text = std::shared_ptr<const std::string>(halves, halves->first.get());
  } else {
    result.text = std::move(decoded.text);
  }
  result.lines = std::move(decoded.lines);
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
  // First the room the text takes, refusing a record that cannot be one
  // line before anything is encoded. Folding never lengthens a text and no
  // code takes more bytes than its UTF-8, so that room holds the stored text.
  std::size_t room = 1;
  for (Table* table : tables) {
    const std::uint64_t count = table->getDataCount();
    for (std::uint64_t i = 0; i < count; ++i) {
      const RecordPtr record = table->select(static_cast<int>(i));
      if (!record) continue;
      const std::string_view values = record->tabbedText();
      if (datafile::holdsLineBreak(values)) {
        logWarningf("%s // SAVE REFUSED: a CR or LF inside a value (section %s, record %lld)",
                    owner, table->getTag().c_str(), static_cast<long long>(i));
        return nullptr;
      }
      room += values.size() + datafile::kLineEnd.size();
    }
    room += 2 * table->getTag().size() + datafile::kStartSuffix.size() +
            datafile::kEndSuffix.size() + 2 * datafile::kLineEnd.size();
  }
  auto buffer = std::make_unique_for_overwrite<unsigned char[]>(room);
  adviseHugePages(buffer.get(), room);
  char* const begin = reinterpret_cast<char*>(buffer.get());
  char* put = begin;

  // Then each line straight into the buffer. Folding acts within a line, so
  // a line folds alone as it would within the whole text; most lines hold
  // nothing it changes and go by the encoder's fast lane, the others are
  // folded and encoded with every check. A line too long is named only once
  // the whole text encodes, as a character without a code is the graver fault.
  std::string folded;
  const char* longTag = nullptr;
  long long longRecord = 0;
  std::size_t longBytes = 0;
  const auto encodeLine = [&](std::string_view line, Table* table, long long record) {
    std::optional<std::size_t> written =
        MacKorean::encodePlainInto(line, put, folding::leavesAlone);
    if (!written) {
      folded = CommonLib::encodingForSpecialCharacter(line);
      MacKorean::EncodeError error;
      written = MacKorean::encodeInto(folded, put, &error);
      if (!written) {
        logWarningf(
            "%s // SAVE REFUSED: U+%04X \"%s\" has no Mac Korean form (section %s, record %lld)",
            owner, static_cast<unsigned>(error.character), utf8Of(error.character).c_str(),
            table->getTag().c_str(), record);
        return false;
      }
    }
    if (longTag == nullptr && !datafile::fitsOneLine(*written)) {
      longTag = table->getTag().c_str();
      longRecord = record;
      longBytes = *written;
    }
    put += *written;
    std::memcpy(put, datafile::kLineEnd.data(), datafile::kLineEnd.size());
    put += datafile::kLineEnd.size();
    return true;
  };
  for (Table* table : tables) {
    if (!encodeLine(makeStartTag(table->getTag()), table, -1)) return nullptr;
    const std::uint64_t count = table->getDataCount();
    for (std::uint64_t i = 0; i < count; ++i) {
      // A record's line is its values joined by tabs: the record's own text.
      const RecordPtr record = table->select(static_cast<int>(i));
      if (!encodeLine(record ? record->tabbedText() : std::string_view(), table,
                      static_cast<long long>(i)))
        return nullptr;
    }
    if (!encodeLine(makeEndTag(table->getTag()), table, static_cast<long long>(count)))
      return nullptr;
  }
  if (longTag != nullptr) {
    logWarningf(
        "%s // SAVE REFUSED: a line of %zu bytes, longer than %zu (section %s, record %lld)", owner,
        longBytes, datafile::kMaxLineBytes, longTag, longRecord);
    return nullptr;
  }
  *put = 0;
  // The text ends at its first zero byte, as a C string would.
  size = ::strnlen(begin, static_cast<std::size_t>(put - begin));
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
