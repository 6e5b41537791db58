#pragma once
/// @file
/// Base of the four data-file classes (check list, package, filter and font
/// check list): the opened file's name, the tag-line helpers, and the reading
/// and writing machinery every class shares.
///
/// Reading: the file is read whole, deciphered and split into lines
/// (CommonLib::Decrypt); each table's section is located between its
/// `"<tag>_START"` and `"<tag>_END"` lines (last occurrence wins, sections in any
/// order, text outside them ignored); a table whose start is missing or not
/// before its end, or whose end is not one of this file's lines (a position
/// left by an earlier open of a longer file), makes the file damaged and the
/// open fails before any record is loaded. Then every line strictly inside a
/// section is offered to its table; a record table refuses lines with the
/// wrong field count. Lines are at most 2,047 bytes (the reader drops longer
/// ones), far below what a record can hold, so loading never fails on size.
///
/// Writing: the sections are written in the class's order as CR LF text,
/// folded (CommonLib::encodingForSpecialCharacter), encoded as Mac Korean,
/// enciphered and written to a temporary file beside the target, which then
/// replaces the target by rename: an interrupted or failed save never leaves
/// a torn file. A text holding a character that Mac Korean cannot store, or
/// a record that cannot be one line (a CR or LF in a value, or more than
/// 2,047 bytes as stored: datafile::recordLineFault), is refused: nothing is
/// written and the log names the fault, the section and the record.
///
/// A bare file name resolves inside CVUserDefaults' libraryPath() as
/// `"<libraryPath>/<name>"`; a full path stands as it is.
///
/// Not thread-safe: use an object from one thread at a time.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "quarvel/Table.h"
#include "quarvel/TableMulti.h"

namespace quarvel {

class FileFramework {
 public:
  FileFramework();
  virtual ~FileFramework();
  FileFramework(const FileFramework&) = delete;
  FileFramework& operator=(const FileFramework&) = delete;

  /// Full path of the file last opened successfully; absent until then. A
  /// save-as does not change it.
  std::optional<std::string> getFileName() const;
  std::optional<std::string> m_strFileName() const;
  void setM_strFileName(std::optional<std::string> fileName);

  /// `"<tag>_START"` and `"<tag>_END"`.
  static std::string makeStartTag(std::string_view tag);
  static std::string makeEndTag(std::string_view tag);
  /// Appends CR LF to `text`.
  static void appendLinefeed(std::string& text);

  /// Interface hooks that no class fills: they do nothing / answer null.
  virtual void addToByteArray(std::vector<unsigned char>& buffer, std::string_view source);
  virtual Table* newTableWithTag(std::string_view tag, bool Delete);

  /// The table whose tag equals `tag` exactly (section order, first match);
  /// null when none does. The table belongs to this object.
  virtual Table* getTableByTag(std::string_view tag);
  /// Reads the file into the tables (appending to what they hold) and builds
  /// the look-up indexes. False when the file cannot be opened, deciphered or
  /// is damaged; the tables are then unchanged. The base answers false.
  virtual bool openWithFileName(const std::string& fileName, bool isFullPath);
  /// saveAsFileName(m_strFileName, true); false when nothing was opened
  /// (and always in the base, whose saveAsFileName answers false).
  virtual bool save();
  /// Writes the tables to the file. False when the text cannot be encoded,
  /// the file cannot be written or (all classes but FilePackage) its folder
  /// does not exist; an existing file is then left untouched.
  virtual bool saveAsFileName(const std::string& fileName, bool isFullPath);

  /// The path a file name stands for: `fileName` itself when `isFullPath`,
  /// else `"<libraryPath>/<fileName>"` (`"(null)/<fileName>"` when the settings
  /// know no library folder).
  static std::string resolvePath(const std::string& fileName, bool isFullPath);

 protected:
  enum class ReadStatus { kOk, kOpenFailed, kDecryptFailed, kDamaged };
  struct ReadResult {
    ReadStatus status = ReadStatus::kOpenFailed;
    int errorCode = 0;  ///< the stream's error value on kOpenFailed
    /// The decoded text that `lines` view; of a file read in two halves,
    /// the front one, whose owner keeps the back one too.
    std::shared_ptr<const std::string> text;
    std::vector<std::string_view> lines;  ///< the deciphered lines on kOk
  };

  /// Reads and deciphers `path` and sets the start and end positions of
  /// `tables` (given in section order). With `traceLines` each line is
  /// logged at debug priority as it is examined. A tag line sets a position
  /// only when present, so a table may keep one from an earlier open; the
  /// answer is kDamaged unless every table's start is before its end and
  /// both lie within the lines read now, so that every line strictly inside
  /// a section is an element of `lines`.
  static ReadResult readSections(const std::string& path, std::span<Table* const> tables,
                                 bool traceLines);

  /// Appends the lines strictly inside `table`'s section as its records,
  /// exactly as insertRecord(line, "\t") would: a line whose field count
  /// differs from the table's is refused and passed to `refused(line)`, in
  /// line order. Records are appended in one step and refer to the read's
  /// text, which they keep. Answers the row of the first record appended
  /// (the table's count before). `added(row, record)` sees each record as
  /// it is built (TableMulti::addTabbedLines). `alongside(row, record)`
  /// sees each record too, in row order, but for a long section on a
  /// second thread while this one goes on building: it may touch only what
  /// nothing else touches until loadRecords returns. With `alongside` the
  /// section must be the last one the read gives: its lines are handed
  /// back as they are used, and `read.lines` is empty afterwards.
  using RecordCallback = std::function<void(std::int64_t row, const Record& record)>;
  using RefusedCallback = std::function<void(std::string_view line)>;
  static std::int64_t loadRecords(TableMulti& table, ReadResult& read,
                                  const RefusedCallback& refused,
                                  const RecordCallback& added = nullptr,
                                  const RecordCallback& alongside = nullptr) {
    const int first = table.getStartPosition() + 1;
    const int end = table.getEndPosition();
    std::span<const std::string_view> lines;
    if (end > first)
      lines = std::span(read.lines)
                  .subspan(static_cast<std::size_t>(first), static_cast<std::size_t>(end - first));
    const std::int64_t row = addRecords(table, read.text, lines, refused, added, alongside);
    if (alongside) read.lines = {};
    return row;
  }

  /// The folded, Mac Korean text of `tables` in section order as a buffer of
  /// size + 1 bytes (zero-terminated) that the caller owns; null with size 0
  /// when the text cannot be encoded or a record cannot be stored as one line
  /// (logged with `owner`, the operation's name, the fault, the section's tag
  /// and the record's index). The text ends at its first zero byte.
  static std::unique_ptr<unsigned char[]> buildContents(std::span<Table* const> tables,
                                                        const char* owner, std::uint64_t& size);

  /// Enciphers `size` bytes of `buffer` in place and replaces `path` with
  /// them (FileReplacement: through a link, keeping the file's mode and
  /// owner, by rename or else in place). False on an empty buffer or when
  /// the file cannot be written; the old file then stays as it was.
  static bool writeContents(const std::string& path, unsigned char* buffer, std::uint64_t size);

 private:
  /// loadRecords' work, its second thread included.
  static std::int64_t addRecords(TableMulti& table, std::shared_ptr<const std::string> text,
                                 std::span<const std::string_view> lines,
                                 const RefusedCallback& refused, const RecordCallback& added,
                                 const RecordCallback& alongside);

  std::optional<std::string> fileName_;
};

}  // namespace quarvel
