#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "quarvel/PlistValue.h"

namespace quarvel {
namespace {

TEST(PlistValueTest, BooleanReadingOfStrings) {
  for (const char* text : {"YES", "yes", "True", "t", " +0012", "-001", "1cd", "\t\nY", "9"}) {
    SCOPED_TRACE(text);
    EXPECT_TRUE(boolValueOfString(text));
    EXPECT_TRUE(PlistValue::string(text).boolValue());
  }
  for (const char* text : {"NO", "false", "", "0x1", "0", "0.5", "00y", "++1", "- 1", "   ", "N"}) {
    SCOPED_TRACE(text);
    EXPECT_FALSE(boolValueOfString(text));
  }
}

TEST(PlistValueTest, NumberReadings) {
  struct Case {
    PlistValue value;
    bool b;
    std::int64_t i;
  } cases[] = {
      {PlistValue::boolean(true), true, 1},
      {PlistValue::integer(-5), true, -5},
      {PlistValue::integer(0), false, 0},
      {PlistValue::real(0.4), false, 0},
      {PlistValue::real(-0.9), false, 0},
      {PlistValue::real(1.5), true, 1},
      {PlistValue::real(-2.7), true, -2},
      {PlistValue::real(-1e300), true, std::numeric_limits<std::int64_t>::min()},
      {PlistValue::real(1e300), true, std::numeric_limits<std::int64_t>::max()},
      {PlistValue::real(std::nan("")), true, 0},
      {PlistValue::string("12"), true, 0},  // strings have no integer reading here
      {PlistValue::data({1}), false, 0},
      {PlistValue(), false, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(static_cast<int>(c.value.kind()));
    EXPECT_EQ(c.value.boolValue(), c.b);
    EXPECT_EQ(c.value.integerValue(), c.i);
  }
  EXPECT_TRUE(PlistValue::boolean(false).isNumber());
  EXPECT_FALSE(PlistValue::string("1").isNumber());
}

TEST(PlistValueTest, UnsignedIntegersKeepTheirValue) {
  const struct {
    std::uint64_t value;
    bool isUnsigned;
    std::int64_t integer;
    double real;
  } cases[] = {
      {5, false, 5, 5.0},
      {std::uint64_t{1} << 63, true, INT64_MIN, 9223372036854775808.0},
      {UINT64_MAX, true, -1, 18446744073709551615.0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.value);
    PlistValue v = PlistValue::unsignedInteger(c.value);
    EXPECT_EQ(v.kind(), PlistValue::Kind::Integer);
    EXPECT_EQ(v.isUnsignedInteger(), c.isUnsigned);
    EXPECT_EQ(v.unsignedIntegerValue(), c.value);
    EXPECT_EQ(v.integerValue(), c.integer);
    EXPECT_EQ(v.doubleValue(), c.real);
    EXPECT_TRUE(v.boolValue());
    EXPECT_EQ(v == PlistValue::integer(c.integer), !c.isUnsigned);
  }
  EXPECT_TRUE(PlistValue::real(std::nan("")) == PlistValue::real(std::nan("")));
  EXPECT_TRUE(PlistValue::real(0.0) == PlistValue::real(-0.0));
}

TEST(PlistValueTest, EqualityLooksInsideContainersAndKinds) {
  auto nested = [](std::int64_t n) {
    return PlistValue::dictionary({{"a", PlistValue::array({PlistValue::integer(n)})}});
  };
  EXPECT_TRUE(nested(1) == nested(1));
  EXPECT_FALSE(nested(1) == nested(2));
  EXPECT_FALSE(PlistValue::integer(1) == PlistValue::boolean(true));
  EXPECT_FALSE(PlistValue::integer(1) == PlistValue::real(1.0));
  EXPECT_FALSE(PlistValue::url("x") == PlistValue::string("x"));
}

}  // namespace
}  // namespace quarvel
