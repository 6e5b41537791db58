#pragma once
/// @file
/// Record tables: the in-memory form of one section of a data file.
///
/// A record is one line of values split on a separator (every data file uses
/// "\t"), held as a compact Record and shared between the tables that hold
/// it (a shallow copy of a TableMulti shares its records, so a value set
/// through one table is seen through the other).
///
/// Tables are not thread-safe: use each from one thread at a time.

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "quarvel/Record.h"

namespace quarvel {

using RecordPtr = std::shared_ptr<Record>;
using FieldList = std::vector<std::string>;

/// Abstract base of every table. The first group of operations is the
/// table's public face, used by the data-file classes; the overridable group
/// has the base's do-nothing defaults listed beside each.
class Table {
 public:
  /// Not-found answer of getFieldIndex in Table and TableMulti (all ones).
  static constexpr std::uint64_t kNotFound = UINT64_MAX;
  /// TableSingle answers the platform array's not-found index instead.
  static constexpr std::uint64_t kArrayNotFound = INT64_MAX;
  /// What select(row, field) answers for an unknown field or row.
  static constexpr const char* kOutOfBounds = "ERROR : Out of Bounds Index";

  Table();
  virtual ~Table();
  Table(const Table&) = delete;
  Table& operator=(const Table&) = delete;

  /// The section tag ("#HEADER", "#CHECKLIST"...); "" until set.
  void setTag(std::string tag);
  /// The tag as set; the reference lives as long as the table.
  const std::string& getTag() const;
  /// Where the section started and ended in the file last read, as line
  /// indexes; -1 until the reader sets them. Kept, never interpreted.
  void setStartPosition(int position);
  void setEndPosition(int position);
  int getStartPosition() const;
  int getEndPosition() const;

  /// Sets the field list from one line split on `separator`
  /// (initWithRecord); replaces any earlier one. Never fails.
  void setFieldWithRecord(std::string_view line, std::string_view separator);
  /// The number of records (getCount): 0 for an empty table or the base.
  std::uint64_t getDataCount();
  /// Appends a record split from `line` (add): its index, or -1 when the
  /// line does not fit the field list or the class takes no records.
  std::int64_t insertRecord(std::string_view line, std::string_view separator);
  /// Removes record `index` (remove): false when there is none.
  bool deleteRecord(int index);
  /// Record `index` (getAt), shared with the table: null when there is none.
  RecordPtr select(int index);

  /// The value of `field` in record `row`, or kOutOfBounds when the field is
  /// unknown or the record has no such value (a missing record included).
  std::string select(std::int64_t row, std::string_view field);
  /// The record's values joined by "\t"; "" for a missing or empty record.
  std::string selectToStr(int row);

  virtual bool remove(std::int64_t index);                                         ///< false
  virtual bool setValue(int row, std::string_view field, std::string_view value);  ///< false
  virtual std::uint64_t getFieldIndex(std::string_view field);                     ///< kNotFound
  virtual void close();                                                            ///< nothing
  virtual void initWithRecord(std::string_view line, std::string_view separator);  ///< nothing
  virtual std::uint64_t getCount();                                                ///< 0
  virtual std::int64_t add(std::string_view line, std::string_view separator);     ///< -1
  virtual std::int64_t add(const std::vector<std::string>& values);                ///< -1
  virtual RecordPtr getAt(std::int64_t index);                                     ///< null
  /// The field list itself, owned by the table; null in the base.
  virtual FieldList* getFields();
  virtual bool replaceAtIndex(int index, std::string_view line);  ///< false

  /// A new table of the same class (what each class copies is its own rule).
  virtual std::unique_ptr<Table> copy() const = 0;

 private:
  std::string m_strTag;
  int m_nStartPos = -1;
  int m_nEndPos = -1;
};

}  // namespace quarvel
