#pragma once
/// @file
/// A table of any number of records sharing one field list: the body of every
/// data-file section but "#HEADER".
///
/// Bounds are tested as `count - 1 < index` in unsigned arithmetic, so on an
/// empty table the test passes and the access itself fails: those accesses
/// (getAt, removeAt, setValue, swapNum1 on an empty table, replaceAtIndex out
/// of range, a two-key sort on an unknown field) throw std::out_of_range.
/// Callers check getCount first.
///
/// Not thread-safe: one thread at a time per table (and per shared record).
/// Records are shared pointers: a copy() and the records handed out share
/// them with the table.

#include <functional>
#include <span>

#include "quarvel/Table.h"

namespace quarvel {

class TabbedSplit;

class TableMulti : public Table {
 public:
  TableMulti();
  ~TableMulti() override;

  /// A new table holding a copy of the field list and a new record array that
  /// shares the same records; tag "" and positions -1.
  std::unique_ptr<Table> copy() const override;
  /// Empties the field list and the records.
  void close() override;
  /// Sets the field list to `line` split on `separator`.
  void initWithRecord(std::string_view line, std::string_view separator) override;
  /// The number of records.
  std::uint64_t getCount() override;
  /// The index of `field` (exact match, first wins), or kNotFound.
  std::uint64_t getFieldIndex(std::string_view field) override;
  /// Appends a copy of `values` when their count equals the field count and
  /// answers 0; otherwise logs "ERROR : " and answers -1.
  std::int64_t add(const std::vector<std::string>& values) override;
  /// Appends the split line when its count equals the field count and answers
  /// its index; otherwise answers -1 silently.
  std::int64_t add(std::string_view line, std::string_view separator) override;
  /// Appends a record for each of `lines` that holds exactly the field
  /// count of values split on "\t", as add(line, "\t") would, and the index
  /// in `lines` of each other line to `refused`. The records refer to the
  /// lines' bytes, which `text` (or what its owner holds with it) keeps,
  /// and they keep `text` alive (see Record::referring): one allocation for
  /// them all rather than one each.
  /// Answers the row of the first record appended (the count before).
  /// `added(row, record)`, when given, is called for each record as soon as
  /// it is built, in row order, while its line is still in the caches; the
  /// record is in the table once the call returns. The records of one call
  /// lie in one array in row order and never move: the record of row r is
  /// (r - first) records after the one `added` sees first, so another
  /// thread told how many are built may read them while the call goes on.
  /// `keep`, when given, is set before the first record is built to an
  /// owner of the call's records: held, it keeps them there past the call,
  /// also when the call throws, for a thread that may still read them.
  /// `split`, when given, is a split of these `lines` into this table's
  /// field count that another thread may be helping with; its layouts
  /// become the records'.
  /// Throws std::bad_alloc when memory runs out.
  std::int64_t addTabbedLines(
      std::shared_ptr<const std::string> text, std::span<const std::string_view> lines,
      std::vector<std::size_t>& refused,
      const std::function<void(std::int64_t row, const Record& record)>& added = nullptr,
      std::shared_ptr<const void>* keep = nullptr, TabbedSplit* split = nullptr);
  /// Appends the records unchecked.
  void addArrayItems(const std::vector<RecordPtr>& records);
  void addArrayItems(std::vector<RecordPtr>&& records);
  /// Removes record `index`; false when there is none.
  bool remove(std::int64_t index) override;
  /// Sets `field` of record `row` in place (seen by every table sharing the
  /// record); false for a row past the end or an unknown field.
  bool setValue(int row, std::string_view field, std::string_view value) override;
  /// Record `index`, shared with the table; null for a negative index or
  /// one past the end.
  RecordPtr getAt(std::int64_t index) override;
  /// Removes record `index`; false past the end.
  bool removeAt(std::uint64_t index);
  /// Removes every record (the field list stays); always true.
  bool removeAll();
  /// Replaces the record with `line` split on "\t", whatever separator the
  /// table was read with; no checks.
  bool replaceAtIndex(int index, std::string_view line) override;
  /// Swaps two records; false for a negative, equal or out-of-range index.
  bool swapNum1(int num1, int num2);
  /// Kept as an empty operation: answers true and changes nothing.
  bool sortByKey(int key, bool ascending);
  /// Sort on one field (nothing happens for an unknown field) or on two
  /// (unknown fields throw std::out_of_range while sorting). Values compare
  /// case-insensitively, literally and numerically (compareCaselessNumeric).
  void sortByFieldName(std::string_view field, bool ascending);
  void sortByFieldName(std::string_view field, std::string_view subField, bool ascending);
  /// The field list itself, owned by the table; never null.
  FieldList* getFields() override;

  /// The two arrays as properties; the references live as long as the table.
  const FieldList& m_arrField() const;
  void setM_arrField(FieldList fields);
  const std::vector<RecordPtr>& m_arrData() const;
  void setM_arrData(std::vector<RecordPtr> records);

 private:
  FieldList fields_;
  std::vector<RecordPtr> records_;
};

}  // namespace quarvel
