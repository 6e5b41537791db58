#include <gtest/gtest.h>

#include "quarvel/TableSingle.h"

namespace quarvel {
namespace {

TEST(TableSingle, AddFitsTheRecordToTheFieldList) {
  struct Case {
    const char* line;
    Record expected;
  } cases[] = {
      {"a\tb", {"a", "b", "-"}},
      {"a\tb\tc\td", {"a", "b", "c"}},
      {"", {"", "-", "-"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.line);
    TableSingle table;
    table.setFieldWithRecord("X\tY\tZ", "\t");
    EXPECT_EQ(table.insertRecord(c.line, "\t"), 0);
    EXPECT_EQ(*table.select(0), c.expected);
  }
}

TEST(TableSingle, HoldsOneRecordWhateverTheIndex) {
  TableSingle table;
  table.setFieldWithRecord("Version\tB", "\t");
  EXPECT_EQ(table.getDataCount(), 0u);
  table.insertRecord("1\t2", "\t");
  table.insertRecord("20230101\t2", "\t");
  EXPECT_EQ(table.getDataCount(), 1u);
  EXPECT_EQ(table.select(5), table.select(0));
  EXPECT_EQ(table.select(-3, "Version"), "20230101");
  EXPECT_EQ(table.selectToStr(9), "20230101\t2");
  // Field names are exact; an unknown one answers the array's not-found.
  EXPECT_EQ(table.getFieldIndex("B"), 1u);
  EXPECT_EQ(table.getFieldIndex("b"), Table::kArrayNotFound);
  EXPECT_EQ(table.select(0, "b"), Table::kOutOfBounds);

  // Deleting takes one value out; the last one empties the table.
  EXPECT_FALSE(table.deleteRecord(2));
  EXPECT_FALSE(table.deleteRecord(-1));
  EXPECT_TRUE(table.deleteRecord(0));
  EXPECT_EQ(*table.select(0), Record{"2"});
  EXPECT_EQ(table.getDataCount(), 1u);
  EXPECT_EQ(table.select(0, "B"), Table::kOutOfBounds);  // beyond the one value
  EXPECT_TRUE(table.deleteRecord(0));
  EXPECT_EQ(table.getDataCount(), 0u);
}

TEST(TableSingle, CopyIsEmptyAndCloseEmpties) {
  TableSingle table;
  table.setTag("#HEADER");
  table.setStartPosition(3);
  table.setFieldWithRecord("Version", "\t");
  table.insertRecord("7", "\t");
  std::unique_ptr<Table> copy = table.copy();
  ASSERT_NE(dynamic_cast<TableSingle*>(copy.get()), nullptr);
  EXPECT_EQ(copy->getDataCount(), 0u);
  EXPECT_TRUE(copy->getFields()->empty());
  EXPECT_EQ(copy->getTag(), "");
  EXPECT_EQ(copy->getStartPosition(), -1);
  EXPECT_EQ(table.getDataCount(), 1u);

  table.close();
  EXPECT_EQ(table.getDataCount(), 0u);
  EXPECT_TRUE(table.getFields()->empty());
  EXPECT_EQ(table.selectToStr(0), "");
}

}  // namespace
}  // namespace quarvel
