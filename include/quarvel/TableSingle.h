#pragma once
/// @file
/// A table of exactly one record: a data file's "#HEADER" section.
///
/// Not thread-safe: use a table from one thread at a time. The record is
/// shared with whoever holds the pointer getAt answered.

#include "quarvel/Table.h"

namespace quarvel {

class TableSingle : public Table {
 public:
  TableSingle();
  ~TableSingle() override;

  /// A new, empty TableSingle: neither fields nor record are copied, and the
  /// copy's tag is "" with positions -1.
  std::unique_ptr<Table> copy() const override;
  void close() override;
  void initWithRecord(std::string_view line, std::string_view separator) override;
  /// 1 when the record holds at least one value, else 0.
  std::uint64_t getCount() override;
  /// Position of the first equal field name, or kArrayNotFound.
  std::uint64_t getFieldIndex(std::string_view field) override;
  /// Both adders replace the record, fit it to the field count (extra values
  /// dropped, "-" appended for missing ones) and answer 0.
  std::int64_t add(const std::vector<std::string>& values) override;
  std::int64_t add(std::string_view line, std::string_view separator) override;
  /// Removes one value of the record (not the record).
  bool remove(std::int64_t index) override;
  /// The record itself, whatever the index.
  RecordPtr getAt(std::int64_t index) override;
  FieldList* getFields() override;

 private:
  FieldList m_arrField;
  RecordPtr m_arrData;
};

}  // namespace quarvel
