#include <gtest/gtest.h>

#include "quarvel/TableSingle.h"

namespace quarvel {
namespace {

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

}  // namespace
}  // namespace quarvel
