#include "quarvel/Record.h"

#include <gtest/gtest.h>

#include <random>
#include <stdexcept>
#include <string>
#include <vector>

namespace quarvel {
namespace {

// Lines of every length (none included) with tabs anywhere, bytes next to a
// tab that a word-wide search could mistake for one (0x08, 0x0A, 0x89)
// included: the values are what splitting byte by byte gives, and a line is
// refused for any other field count.
TEST(Record, SplitsLongLinesAtEveryTabAndNothingElse) {
  std::mt19937 rng(3);
  const char alphabet[] = {'\t', '\t', '\x08', '\x0A', '\x89', '\x01', 'a', 'Z', '9', ' '};
  for (int round = 0; round < 2000; ++round) {
    std::string line;
    for (std::size_t n = round == 0 ? 0 : rng() % 70; n > 0; --n)
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

}  // namespace
}  // namespace quarvel
