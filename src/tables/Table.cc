#include "quarvel/Table.h"

namespace quarvel {

Table::Table() = default;
Table::~Table() = default;

void Table::setTag(std::string tag) { m_strTag = std::move(tag); }
const std::string& Table::getTag() const { return m_strTag; }
void Table::setStartPosition(int position) { m_nStartPos = position; }
void Table::setEndPosition(int position) { m_nEndPos = position; }
int Table::getStartPosition() const { return m_nStartPos; }
int Table::getEndPosition() const { return m_nEndPos; }

void Table::setFieldWithRecord(std::string_view line, std::string_view separator) {
  initWithRecord(line, separator);
}

std::uint64_t Table::getDataCount() { return getCount(); }

std::int64_t Table::insertRecord(std::string_view line, std::string_view separator) {
  return add(line, separator);
}

bool Table::deleteRecord(int index) { return remove(static_cast<std::int64_t>(index)); }

RecordPtr Table::select(int index) { return getAt(static_cast<std::int64_t>(index)); }

std::string Table::select(std::int64_t row, std::string_view field) {
  const std::uint64_t fieldIndex = getFieldIndex(field);
  if (fieldIndex == kNotFound) return kOutOfBounds;
  // A missing record counts as having no values; TableSingle's own
  // not-found index is caught here too, being larger than any record.
  RecordPtr record = getAt(row);
  const std::uint64_t valueCount = record ? record->size() : 0;
  if (fieldIndex >= valueCount) return kOutOfBounds;
  return std::string((*record)[fieldIndex]);
}

std::string Table::selectToStr(int row) {
  RecordPtr record = getAt(static_cast<std::int64_t>(row));
  return record ? std::string(record->tabbedText()) : std::string();
}

bool Table::remove(std::int64_t) { return false; }
bool Table::setValue(int, std::string_view, std::string_view) { return false; }
std::uint64_t Table::getFieldIndex(std::string_view) { return kNotFound; }
void Table::close() {}
void Table::initWithRecord(std::string_view, std::string_view) {}
std::uint64_t Table::getCount() { return 0; }
std::int64_t Table::add(std::string_view, std::string_view) { return -1; }
std::int64_t Table::add(const std::vector<std::string>&) { return -1; }
RecordPtr Table::getAt(std::int64_t) { return nullptr; }
FieldList* Table::getFields() { return nullptr; }
bool Table::replaceAtIndex(int, std::string_view) { return false; }

}  // namespace quarvel
