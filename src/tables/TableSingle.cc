#include "quarvel/TableSingle.h"

#include "common/StringUtil.h"

namespace quarvel {
namespace {

RecordPtr newRecord() { return std::make_shared<Record>(); }

}  // namespace

TableSingle::TableSingle() : m_arrData(newRecord()) { m_arrField.reserve(1); }

TableSingle::~TableSingle() { close(); }

std::unique_ptr<Table> TableSingle::copy() const { return std::make_unique<TableSingle>(); }

void TableSingle::close() {
  m_arrField.clear();
  m_arrData->clear();
}

void TableSingle::initWithRecord(std::string_view line, std::string_view separator) {
  m_arrField = split(line, separator);
}

std::uint64_t TableSingle::getCount() { return m_arrData->empty() ? 0 : 1; }

std::uint64_t TableSingle::getFieldIndex(std::string_view field) {
  for (std::size_t i = 0; i < m_arrField.size(); ++i)
    if (m_arrField[i] == field) return i;
  return kArrayNotFound;
}

std::int64_t TableSingle::add(const std::vector<std::string>& values) {
  // A new record each time: a caller still holding the old one keeps it.
  auto record = std::make_shared<Record>(values);
  record->resize(m_arrField.size(), "-");
  m_arrData = std::move(record);
  return 0;
}

std::int64_t TableSingle::add(std::string_view line, std::string_view separator) {
  return add(split(line, separator));
}

bool TableSingle::remove(std::int64_t index) {
  if (index < 0 || static_cast<std::uint64_t>(index) >= m_arrData->size()) return false;
  m_arrData->erase(static_cast<std::size_t>(index));
  return true;
}

RecordPtr TableSingle::getAt(std::int64_t) { return m_arrData; }

FieldList* TableSingle::getFields() { return &m_arrField; }

}  // namespace quarvel
