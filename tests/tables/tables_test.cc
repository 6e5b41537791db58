// Records, the one-record table and the many-record table.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "common/Log.h"
#include "quarvel/Record.h"
#include "quarvel/TableMulti.h"
#include "quarvel/TableSingle.h"
#include "tables/TabbedSplit.h"

namespace quarvel {
namespace {

// Lines of every length (none included) to past three of the split's
// 64-byte steps, with tabs anywhere, bytes next to a tab that a word-wide
// search could mistake for one (0x08, 0x0A, 0x89) included: the values are
// what splitting byte by byte gives, and a line is refused for any other
// field count.
TEST(Record, SplitsLongLinesAtEveryTabAndNothingElse) {
  std::mt19937 rng(3);
  const char alphabet[] = {'\t', '\t', '\x08', '\x0A', '\x89', '\x01', 'a', 'Z', '9', ' '};
  for (int round = 0; round < 2000; ++round) {
    std::string line;
    for (std::size_t n = round == 0 ? 0 : rng() % 200; n > 0; --n)
      line += alphabet[rng() % sizeof alphabet];
    std::vector<std::string> expected(1);
    for (char c : line) c == '\t' ? expected.emplace_back() : expected.back() += c;
    const std::size_t n = expected.size();
    ASSERT_EQ(Record::fromTabbedLine(line), Record(expected)) << ::testing::PrintToString(line);
    ASSERT_EQ(Record::fromTabbedLine(line, n), Record(expected));
    ASSERT_FALSE(Record::fromTabbedLine(line, n + 1));
    ASSERT_TRUE(n == 1 || !Record::fromTabbedLine(line, n - 1));
  }
  EXPECT_FALSE(Record::fromTabbedLine("", 0));
  EXPECT_EQ(Record().tabbedText(), "");
  EXPECT_NE(Record(), Record{""});  // no value is not one empty value
}

// A value may hold a tab; edits change only their own copy.
TEST(Record, EditsChangeOnlyTheirOwnCopy) {
  Record record = Record::fromTabbedLine("id\tAcme\tTool\t1.0\ttool.exe");
  record.set(2, "Big\tTool");
  EXPECT_EQ(record.tabbedText(), "id\tAcme\tBig\tTool\t1.0\ttool.exe");
  EXPECT_EQ(record.joined(1, 3), "Acme\tBig\tTool\t1.0");
  EXPECT_EQ(record.values(),
            (std::vector<std::string>{"id", "Acme", "Big\tTool", "1.0", "tool.exe"}));

  const Record original{"1", "2", "3"};
  Record copy = original;
  copy.set(0, copy[1]);  // a value of the record itself
  copy.erase(2);
  EXPECT_EQ(copy, (Record{"2", "2"}));
  EXPECT_EQ(original, (Record{"1", "2", "3"}));
  copy.resize(4, "-");
  EXPECT_EQ(copy, (Record{"2", "2", "-", "-"}));
  copy = original;
  EXPECT_EQ(copy, original);
  EXPECT_THROW(copy.set(3, "x"), std::out_of_range);
  EXPECT_THROW(copy.at(3), std::out_of_range);
  EXPECT_THROW(copy.erase(3), std::out_of_range);
}

// The one record is fitted to the field list ("-" for a missing value) and
// answers at any index; deleting takes one value out, the last one empties
// the table; a copy is a new, empty table.
TEST(TableSingle, HoldsOneRecordWhateverTheIndex) {
  TableSingle table;
  table.setTag("#HEADER");
  table.setStartPosition(3);
  table.setFieldWithRecord("Version\tB", "\t");
  EXPECT_EQ(table.getDataCount(), 0u);
  EXPECT_EQ(table.insertRecord("1", "\t"), 0);
  EXPECT_EQ(*table.select(0), (Record{"1", "-"}));
  table.insertRecord("20230101\t2\t3", "\t");
  EXPECT_EQ(table.getDataCount(), 1u);
  EXPECT_EQ(table.select(5), table.select(0));
  EXPECT_EQ(table.select(-3, "Version"), "20230101");
  EXPECT_EQ(table.selectToStr(9), "20230101\t2");
  // Field names are exact; an unknown one answers the array's not-found.
  EXPECT_EQ(table.getFieldIndex("B"), 1u);
  EXPECT_EQ(table.getFieldIndex("b"), Table::kArrayNotFound);
  EXPECT_EQ(table.select(0, "b"), Table::kOutOfBounds);

  const std::unique_ptr<Table> copy = table.copy();
  ASSERT_NE(dynamic_cast<TableSingle*>(copy.get()), nullptr);
  EXPECT_EQ(std::tuple(copy->getDataCount(), copy->getFields()->size(), copy->getTag(),
                       copy->getStartPosition()),
            std::tuple(0u, 0u, "", -1));

  EXPECT_FALSE(table.deleteRecord(2) || table.deleteRecord(-1));
  EXPECT_TRUE(table.deleteRecord(0));
  EXPECT_EQ(*table.select(0), Record{"2"});
  EXPECT_EQ(table.getDataCount(), 1u);
  EXPECT_EQ(table.select(0, "B"), Table::kOutOfBounds);  // beyond the one value
  EXPECT_TRUE(table.deleteRecord(0));
  EXPECT_EQ(table.getDataCount(), 0u);
  table.close();
  EXPECT_TRUE(table.getFields()->empty());
  EXPECT_EQ(table.selectToStr(0), "");
}

std::vector<std::string> column(TableMulti& table, const char* field) {
  std::vector<std::string> values;
  for (std::uint64_t i = 0; i < table.getDataCount(); ++i)
    values.push_back(table.select(static_cast<std::int64_t>(i), field));
  return values;
}

void fill(TableMulti& table, const char* fields, std::initializer_list<const char*> lines) {
  table.setFieldWithRecord(fields, "\t");
  for (const char* line : lines) EXPECT_GE(table.insertRecord(line, "\t"), 0) << line;
}

TEST(TableMulti, TheTwoAddersAnswerAndRefuseDifferently) {
  LogCapture log;
  TableMulti table;
  table.setFieldWithRecord("A\tB", "\t");
  for (const auto& [line, row] : {std::pair{"1\t2", 0}, {"3\t4", 1}, {"5", -1}})
    EXPECT_EQ(table.insertRecord(line, "\t"), row) << line;
  EXPECT_TRUE(log.lines().empty());

  EXPECT_EQ(table.add(std::vector<std::string>{"x"}), -1);
  EXPECT_EQ(log.lines(), std::vector<std::string>{"ERROR : "});
  EXPECT_EQ(table.add(std::vector<std::string>{"x", "y"}), 0);  // not the index
  EXPECT_EQ(column(table, "B"), (std::vector<std::string>{"2", "4", "y"}));

  // Another separator splits on it; a replacement always splits on tabs and
  // takes any field count.
  TableMulti commas;
  commas.setFieldWithRecord("A,B", ",");
  ASSERT_EQ(commas.insertRecord("1,2", ","), 0);
  EXPECT_TRUE(commas.replaceAtIndex(0, "x,y\tz\tw"));
  EXPECT_EQ(*commas.getAt(0), (Record{"x,y", "z", "w"}));
}

// Unknown fields and rows answer the error text; on an empty table the
// bound tests wrap, so the accessors that trust them throw.
TEST(TableMulti, UnknownFieldsRowsAndEditsBeyondTheRecords) {
  TableMulti empty;
  EXPECT_EQ(empty.select(0, "A"), Table::kOutOfBounds);
  empty.setFieldWithRecord("A", "\t");
  EXPECT_EQ(empty.getAt(-1), nullptr);
  EXPECT_THROW(empty.getAt(0), std::out_of_range);
  EXPECT_THROW(empty.removeAt(0), std::out_of_range);
  EXPECT_THROW(empty.setValue(0, "A", "x"), std::out_of_range);
  EXPECT_THROW(empty.swapNum1(0, 1), std::out_of_range);
  EXPECT_FALSE(empty.remove(0) || empty.swapNum1(-1, 0));

  TableMulti table;
  fill(table, "A\tB", {"1\t2"});
  for (const auto& [row, field] : {std::pair{0, "C"}, {1, "A"}, {-1, "A"}})
    EXPECT_EQ(table.select(row, field), Table::kOutOfBounds) << row << field;
  EXPECT_EQ(table.select(0, "B"), "2");
  EXPECT_EQ(table.selectToStr(1), "");

  // Edits within and beyond the records.
  fill(table, "A\tB", {"3\t4", "5\t6"});
  EXPECT_FALSE(table.setValue(3, "A", "x") || table.setValue(0, "C", "x") || table.swapNum1(1, 1) ||
               table.swapNum1(0, 3));
  EXPECT_TRUE(table.setValue(0, "B", "x") && table.swapNum1(0, 2));
  EXPECT_EQ(column(table, "B"), (std::vector<std::string>{"6", "4", "x"}));
  EXPECT_TRUE(!table.removeAt(3) && table.removeAt(1) && !table.remove(2) && table.remove(1));
  EXPECT_EQ(column(table, "A"), std::vector<std::string>{"5"});
  EXPECT_TRUE(table.removeAll());
  EXPECT_EQ(table.getDataCount(), 0u);
  EXPECT_EQ(table.getFieldIndex("B"), 1u);
}

// Lines added together refer to one text: each record reads as its own line
// did, an edit through a copy of the table (which shares the records)
// changes that record alone and never the text, and records outlive the
// table and the caller's text. A line of 64 KiB or more, past what the
// shared offsets hold, reads as well.
TEST(TableMulti, LinesAddedTogetherShareTheirTextUntilEdited) {
  const std::string wide(70000, 'L');
  auto text =
      std::make_shared<const std::string>("a\tb\nbad\nc\t\nx\ty\tz\n\td\n" + wide + "\tend");
  const std::string original = *text;
  const std::vector<std::string_view> lines = {{text->data(), 3},      {text->data() + 4, 3},
                                               {text->data() + 8, 2},  {text->data() + 11, 5},
                                               {text->data() + 17, 2}, {text->data() + 20, 70004}};
  auto table = std::make_unique<TableMulti>();
  table->setFieldWithRecord("A\tB", "\t");
  EXPECT_EQ(table->insertRecord("0\t0", "\t"), 0);
  std::vector<std::size_t> refused;
  std::vector<std::pair<std::int64_t, std::string>> added;
  // The records lie in row order in one array, which `keep` holds.
  const Record* firstBuilt = nullptr;
  std::shared_ptr<const void> keep;
  EXPECT_EQ(table->addTabbedLines(
                text, lines, refused,
                [&](std::int64_t row, const Record& record) {
                  added.emplace_back(row, record.tabbedText());
                  if (firstBuilt == nullptr) firstBuilt = &record;
                  EXPECT_EQ(&record, firstBuilt + (row - 1));
                },
                &keep),
            1);
  EXPECT_EQ(refused, (std::vector<std::size_t>{1, 3}));
  EXPECT_EQ(added, (std::vector<std::pair<std::int64_t, std::string>>{
                       {1, "a\tb"}, {2, "c\t"}, {3, "\td"}, {4, wide + "\tend"}}));
  EXPECT_EQ(column(*table, "A"), (std::vector<std::string>{"0", "a", "c", "", wide}));

  std::unique_ptr<Table> copy = table->copy();
  EXPECT_TRUE(copy->setValue(1, "B", "longer than the line"));
  EXPECT_EQ(table->select(1, "B"), "longer than the line");
  EXPECT_EQ(table->selectToStr(2), "c\t");
  EXPECT_EQ(*text, original);

  RecordPtr kept = table->select(3), kept16 = table->select(4);
  const Record copied = *table->select(2);
  table.reset();
  copy.reset();
  text.reset();
  EXPECT_EQ(*kept, (Record{"", "d"}));
  EXPECT_EQ(*kept16, (Record{wide, "end"}));
  EXPECT_EQ(copied, (Record{"c", ""}));
  kept.reset();
  kept16.reset();
  EXPECT_EQ(firstBuilt[2], (Record{"", "d"}));
  EXPECT_EQ(firstBuilt[3], (Record{wide, "end"}));
}

// Lines split in part on a second thread, which takes the later chunks
// while the table's builder takes the first: the same records, rows and
// refused lines as one thread gives, whether the helper finishes first,
// starts only once the builder is done, or runs beside it. Among the lines
// are refused ones in both threads' chunks and lines too long for 16-bit
// offsets, which the builder splits itself wherever they are.
TEST(TableMulti, LinesSplitPartlyOnAnotherThreadGiveTheSameRecords) {
  std::mt19937 rng(5);
  auto text = std::make_shared<std::string>();
  std::vector<std::pair<std::size_t, std::size_t>> spans;
  const std::string wide(70000, 'w');
  for (int i = 0; i < 6000; ++i) {
    std::string line = std::to_string(i) + "\t" + std::string(rng() % 40, 'v') + "\tz";
    if (i % 97 == 5) line += "\textra";         // one value too many
    if (i % 89 == 7) line = std::to_string(i);  // too few
    if (i == 4500 || i == 900) line = wide + "\t\t" + std::to_string(i);
    if (i == 5100) line = wide + "\t" + std::to_string(i);  // long, and refused
    spans.emplace_back(text->size(), line.size());
    *text += line;
    *text += '\n';
  }
  std::vector<std::string_view> lines;
  for (const auto& [at, size] : spans) lines.emplace_back(text->data() + at, size);
  const auto load = [&](TabbedSplit* split) {
    TableMulti table;
    table.setFieldWithRecord("A\tB\tC", "\t");
    std::vector<std::size_t> refused;
    std::vector<std::string> added;
    table.addTabbedLines(
        text, lines, refused,
        [&](std::int64_t, const Record& record) { added.emplace_back(record.tabbedText()); },
        nullptr, split);
    EXPECT_EQ(table.getCount(), added.size());
    return std::make_pair(refused, added);
  };
  const auto alone = load(nullptr);
  ASSERT_GT(alone.first.size(), 100u);
  EXPECT_NE(std::find(alone.first.begin(), alone.first.end(), 5100u), alone.first.end());
  EXPECT_EQ(alone.second[4500 - std::count_if(alone.first.begin(), alone.first.end(),
                                              [](std::size_t i) { return i < 4500; })],
            wide + "\t\t4500");
  for (const char* order : {"helper first", "builder first", "together"}) {
    SCOPED_TRACE(order);
    TabbedSplit split(lines, 3);
    std::thread helper;
    if (order[0] == 'h') split.splitAhead();
    if (order[0] == 't') helper = std::thread([&split] { split.splitAhead(); });
    EXPECT_EQ(load(&split), alone);
    if (helper.joinable()) helper.join();
    if (order[0] == 'b') split.splitAhead();  // finds every chunk taken
  }
}

// The builder reaching a chunk the helper is still inside waits for it and
// takes its layouts. The helper's four chunks hold long lines (views of one
// line of 65,000 bytes, a few milliseconds a chunk) and the builder's six
// before them short ones, so that the builder, started once the helper
// runs, catches up with it inside one of them.
TEST(TableMulti, TheBuilderWaitsForAChunkTheHelperIsSplitting) {
  auto text = std::make_shared<std::string>("a\tb\tc");
  const std::string_view shortLine(*text);
  const std::string longText = std::string(32500, 'x') + "\t\t" + std::string(32498, 'y');
  std::vector<std::string_view> lines(6 * 1024, shortLine);
  lines.insert(lines.end(), 4 * 1024, longText);
  TabbedSplit split(lines, 3);
  std::atomic<bool> started{false};
  std::thread helper([&] {
    started = true;
    split.splitAhead();
  });
  while (!started) std::this_thread::yield();
  TableMulti table;
  table.setFieldWithRecord("A\tB\tC", "\t");
  std::vector<std::size_t> refused;
  // Each record read as it is built, as the open reads its keys.
  std::size_t misread = 0;
  table.addTabbedLines(
      text, lines, refused,
      [&](std::int64_t row, const Record& record) {
        const std::string_view line = lines[static_cast<std::size_t>(row)];
        if (record.size() != 3 ||
            record[0].size() + record[1].size() + record[2].size() + 2 != line.size() ||
            record[0] != line.substr(0, line.find('\t')))
          ++misread;
      },
      nullptr, &split);
  helper.join();
  EXPECT_EQ(misread, 0u);
  EXPECT_TRUE(refused.empty());
  ASSERT_EQ(table.getCount(), lines.size());
  for (std::size_t row = 6 * 1024; row < lines.size(); row += 97)
    EXPECT_EQ(table.select(static_cast<std::int64_t>(row))->tabbedText(), lines[row]) << row;
}

// Sorting compares case-blind and numerically; two fields share one
// direction; an unknown field, or sorting by key, leaves the order as it was.
TEST(TableMulti, SortsOnOneOrTwoFields) {
  const struct {
    const char *first, *second;
    bool ascending;
    std::vector<std::string> n;  // field N's column after the sort
  } cases[] = {{"N", nullptr, true, {"1", "9", "10", "a", "B"}},
               {"N", nullptr, false, {"B", "a", "10", "9", "1"}},
               {"x", nullptr, true, {"1", "10", "9", "B", "a"}},
               {"G", "N", true, {"9", "10", "1", "B", "a"}},
               {"G", "N", false, {"a", "B", "1", "10", "9"}}};
  for (const auto& c : cases) {
    TableMulti table;
    fill(table, "G\tN", {"b\t1", "a\t10", "A\t9", "b\tB", "c\ta"});
    if (c.second)
      table.sortByFieldName(c.first, c.second, c.ascending);
    else
      table.sortByFieldName(c.first, c.ascending);
    EXPECT_TRUE(table.sortByKey(1, !c.ascending));
    EXPECT_EQ(column(table, "N"), c.n) << c.first << (c.second ? c.second : "") << c.ascending;
  }
  TableMulti table;
  fill(table, "G\tN", {"b\t2", "a\t1"});
  EXPECT_THROW(table.sortByFieldName("G", "nope", true), std::out_of_range);
  EXPECT_EQ(column(table, "N"), (std::vector<std::string>{"2", "1"}));
  TableMulti single;
  fill(single, "G", {"x"});
  EXPECT_NO_THROW(single.sortByFieldName("nope", "nope", true));
}

}  // namespace
}  // namespace quarvel
