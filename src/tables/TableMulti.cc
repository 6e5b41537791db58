#include "quarvel/TableMulti.h"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>

#include "common/HugePages.h"
#include "common/Log.h"
#include "common/StringUtil.h"
#include "common/TextCompare.h"
#include "tables/TabbedSplit.h"

namespace quarvel {
namespace {

// The bound test kept from the original: `count - 1 < index` on unsigned
// values, the index widened with its sign. On an empty table `count - 1`
// wraps, every index passes, and the access that follows throws.
bool beyondEnd(std::uint64_t count, std::int64_t index) {
  return count - 1 < static_cast<std::uint64_t>(index);
}

std::string_view valueAt(const RecordPtr& record, std::uint64_t field) {
  if (!record || field >= record->size())
    throw std::out_of_range("record has no value for the sort field");
  return (*record)[field];
}

// The records of one addTabbedLines call: their layouts in one array, the
// records in another, and the text they refer to. Each RecordPtr the table
// holds shares ownership of the whole. A data file's lines are far shorter
// than 64 KiB, so the layouts are 16-bit; a longer line's record, possible
// only from another caller, owns its block.
struct SharedRecords {
  std::shared_ptr<const std::string> text;
  std::unique_ptr<std::uint16_t[], HugePageBlockFree> layouts;
  std::vector<Record, HugePageAllocator<Record>> records;
};

}  // namespace

TableMulti::TableMulti() = default;
TableMulti::~TableMulti() = default;

std::unique_ptr<Table> TableMulti::copy() const {
  auto table = std::make_unique<TableMulti>();
  table->setM_arrData(records_);  // the records themselves are shared
  table->setM_arrField(fields_);
  return table;
}

void TableMulti::close() {
  fields_.clear();
  records_.clear();
}

void TableMulti::initWithRecord(std::string_view line, std::string_view separator) {
  fields_ = split(line, separator);
}

std::uint64_t TableMulti::getCount() { return records_.size(); }

std::uint64_t TableMulti::getFieldIndex(std::string_view field) {
  for (std::size_t i = 0; i < fields_.size(); ++i)
    if (fields_[i] == field) return i;
  return kNotFound;
}

std::int64_t TableMulti::add(const std::vector<std::string>& values) {
  if (values.size() != fields_.size()) {
    logf("ERROR : ");
    return -1;
  }
  records_.push_back(std::make_shared<Record>(values));
  return 0;
}

std::int64_t TableMulti::add(std::string_view line, std::string_view separator) {
  RecordPtr record;
  if (separator == "\t") {
    // Every data file's case, split in one pass.
    std::optional<Record> values = Record::fromTabbedLine(line, fields_.size());
    if (!values) return -1;
    record = std::make_shared<Record>(std::move(*values));
  } else {
    record = std::make_shared<Record>(split(line, separator));
    if (record->size() != fields_.size()) return -1;
  }
  records_.push_back(std::move(record));
  return static_cast<std::int64_t>(records_.size()) - 1;
}

std::int64_t TableMulti::addTabbedLines(
    std::shared_ptr<const std::string> text, std::span<const std::string_view> lines,
    std::vector<std::size_t>& refused,
    const std::function<void(std::int64_t, const Record&)>& added,
    std::shared_ptr<const void>* keep, TabbedSplit* split) {
  const auto first = static_cast<std::int64_t>(records_.size());
  const std::size_t fieldCount = fields_.size();
  if (fieldCount == 0 || fieldCount > UINT32_MAX - 1) {
    for (std::size_t i = 0; i < lines.size(); ++i) refused.push_back(i);
    return first;
  }
  if (lines.empty()) return first;
  const std::size_t stride = 1 + fieldCount;
  auto shared = std::make_shared<SharedRecords>();
  if (keep != nullptr) *keep = shared;
  shared->text = std::move(text);
  // Both arrays are sized for every line; a line's layout is at its place
  // among the lines, so that a split shared with another thread puts it
  // where the record will look.
  const bool narrow = fieldCount <= UINT16_MAX;
  if (split != nullptr && (!narrow || split->stride() != stride)) split = nullptr;
  if (split != nullptr)
    shared->layouts = split->takeLayouts();
  else if (narrow)
    shared->layouts.reset(static_cast<std::uint16_t*>(
        allocateHugePageBlock(lines.size() * stride * sizeof(std::uint16_t))));
  shared->records.reserve(lines.size());
  std::uint16_t* const layouts = shared->layouts.get();
  bool splitAlready = false;  // whether the helper split the lines of this chunk
  for (std::size_t i = 0; i < lines.size(); ++i) {
    if (split != nullptr && TabbedSplit::startsChunk(i)) splitAlready = split->splitByHelper(i);
    // A line split on the other thread is not in this one's caches, and
    // `added` reads its first values (a check list's keys): they are
    // fetched a few lines ahead.
    if (splitAlready && i + 16 < lines.size()) {
      __builtin_prefetch(lines[i + 16].data());
      __builtin_prefetch(lines[i + 16].data() + 64);
    }
    if (!narrow || !TabbedSplit::fitsLayout(lines[i])) {
      std::optional<Record> owned = Record::fromTabbedLine(lines[i], fieldCount);
      if (!owned) {
        refused.push_back(i);
        continue;
      }
      shared->records.push_back(std::move(*owned));
    } else {
      std::uint16_t* layout = layouts + i * stride;
      if (!splitAlready) TabbedSplit::splitLine(lines[i], fieldCount, layout);
      if (layout[0] == 0) {
        refused.push_back(i);
        continue;
      }
      shared->records.push_back(Record::referring(layout, lines[i].data()));
    }
    if (added)
      added(first + static_cast<std::int64_t>(shared->records.size()) - 1, shared->records.back());
  }
  const std::size_t kept = shared->records.size();
  records_.reserve(records_.size() + kept);
  for (std::size_t i = 0; i < kept; ++i) records_.emplace_back(shared, &shared->records[i]);
  return first;
}

void TableMulti::addArrayItems(const std::vector<RecordPtr>& records) {
  records_.insert(records_.end(), records.begin(), records.end());
}

void TableMulti::addArrayItems(std::vector<RecordPtr>&& records) {
  if (records_.empty()) {
    records_ = std::move(records);
    return;
  }
  records_.insert(records_.end(), std::make_move_iterator(records.begin()),
                  std::make_move_iterator(records.end()));
}

bool TableMulti::remove(std::int64_t index) {
  if (index < 0 || static_cast<std::uint64_t>(index) >= records_.size()) return false;
  records_.erase(records_.begin() + index);
  return true;
}

bool TableMulti::setValue(int row, std::string_view field, std::string_view value) {
  if (beyondEnd(getCount(), row)) return false;
  const std::uint64_t fieldIndex = getFieldIndex(field);
  if (fieldIndex == kNotFound) return false;
  records_.at(static_cast<std::size_t>(row))->set(fieldIndex, value);
  return true;
}

RecordPtr TableMulti::getAt(std::int64_t index) {
  if (index < 0) return nullptr;
  if (beyondEnd(getCount(), index)) return nullptr;
  return records_.at(static_cast<std::size_t>(index));
}

bool TableMulti::removeAt(std::uint64_t index) {
  if (getCount() - 1 < index) return false;
  if (index >= records_.size()) throw std::out_of_range("TableMulti::removeAt on an empty table");
  records_.erase(records_.begin() + static_cast<std::ptrdiff_t>(index));
  return true;
}

bool TableMulti::removeAll() {
  records_.clear();
  return true;
}

bool TableMulti::replaceAtIndex(int index, std::string_view line) {
  records_.at(static_cast<std::size_t>(index)) =
      std::make_shared<Record>(Record::fromTabbedLine(line));
  return true;
}

bool TableMulti::swapNum1(int num1, int num2) {
  const std::uint64_t count = getCount();
  if (num1 < 0 || num2 < 0) return false;
  if (beyondEnd(count, num1)) return false;
  if (num1 == num2) return false;
  if (beyondEnd(count, num2)) return false;
  std::swap(records_.at(static_cast<std::size_t>(num1)),
            records_.at(static_cast<std::size_t>(num2)));
  return true;
}

bool TableMulti::sortByKey(int, bool) { return true; }

// Both sorts compute each record's sort key once and sort (key, record)
// pairs: comparing keys is a plain byte comparison, far cheaper than folding
// both values on every comparison. Keys are taken before anything moves, so
// a record without the field throws with the table untouched. A comparator
// sort on fewer than two records never looks at a value, and neither do we.
void TableMulti::sortByFieldName(std::string_view field, bool ascending) {
  const std::uint64_t fieldIndex = getFieldIndex(field);
  if (fieldIndex == kNotFound || records_.size() < 2) return;
  std::vector<std::pair<std::string, RecordPtr>> keyed;
  keyed.reserve(records_.size());
  for (const RecordPtr& record : records_)
    keyed.emplace_back(caselessNumericSortKey(valueAt(record, fieldIndex)), record);
  if (ascending)
    std::sort(keyed.begin(), keyed.end(),
              [](const auto& a, const auto& b) { return a.first < b.first; });
  else
    std::sort(keyed.begin(), keyed.end(),
              [](const auto& a, const auto& b) { return b.first < a.first; });
  for (std::size_t i = 0; i < keyed.size(); ++i) records_[i] = std::move(keyed[i].second);
}

void TableMulti::sortByFieldName(std::string_view field, std::string_view subField,
                                 bool ascending) {
  const std::uint64_t first = getFieldIndex(field);
  const std::uint64_t second = getFieldIndex(subField);
  if (records_.size() < 2) return;
  struct Keyed {
    std::string first, second;
    RecordPtr record;
  };
  std::vector<Keyed> keyed;
  keyed.reserve(records_.size());
  for (const RecordPtr& record : records_)
    keyed.push_back({caselessNumericSortKey(valueAt(record, first)),
                     caselessNumericSortKey(valueAt(record, second)), record});
  auto before = [](const Keyed& a, const Keyed& b) {
    if (int r = a.first.compare(b.first)) return r < 0;
    return a.second < b.second;
  };
  if (ascending)
    std::sort(keyed.begin(), keyed.end(), before);
  else
    std::sort(keyed.begin(), keyed.end(),
              [&](const Keyed& a, const Keyed& b) { return before(b, a); });
  for (std::size_t i = 0; i < keyed.size(); ++i) records_[i] = std::move(keyed[i].record);
}

FieldList* TableMulti::getFields() { return &fields_; }

const FieldList& TableMulti::m_arrField() const { return fields_; }
void TableMulti::setM_arrField(FieldList fields) { fields_ = std::move(fields); }
const std::vector<RecordPtr>& TableMulti::m_arrData() const { return records_; }
void TableMulti::setM_arrData(std::vector<RecordPtr> records) { records_ = std::move(records); }

}  // namespace quarvel
