#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <tuple>
#include <utility>

#include "quarvel/PlistValue.h"

namespace quarvel {
namespace {

using V = PlistValue;

TEST(PlistValueTest, BooleanReadingOfStrings) {
  for (const char* text : {"YES", "yes", "True", "t", " +0012", "-001", "1cd", "\t\nY", "9"})
    EXPECT_TRUE(boolValueOfString(text) && V::string(text).boolValue()) << text;
  for (const char* text : {"NO", "false", "", "0x1", "0", "0.5", "00y", "++1", "- 1", "   ", "N"})
    EXPECT_FALSE(boolValueOfString(text)) << text;
}

TEST(PlistValueTest, NumberReadings) {
  const struct {
    V value;
    bool b;
    std::int64_t i;
  } cases[] = {
      {V::boolean(true), true, 1},
      {V::integer(-5), true, -5},
      {V::integer(0), false, 0},
      {V::real(0.4), false, 0},
      {V::real(1.5), true, 1},
      {V::real(-2.7), true, -2},
      {V::real(-1e300), true, std::numeric_limits<std::int64_t>::min()},
      {V::real(1e300), true, std::numeric_limits<std::int64_t>::max()},
      {V::real(std::nan("")), true, 0},
      {V::string("12"), true, 0},  // strings have no integer reading here
      {V::data({1}), false, 0},
      {V(), false, 0},
  };
  for (const auto& c : cases)
    EXPECT_EQ(std::pair(c.value.boolValue(), c.value.integerValue()), std::pair(c.b, c.i))
        << &c - cases;
  EXPECT_TRUE(V::boolean(false).isNumber());
  EXPECT_FALSE(V::string("1").isNumber());
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
    const V v = V::unsignedInteger(c.value);
    EXPECT_TRUE(v.kind() == V::Kind::Integer && v.boolValue());
    EXPECT_EQ(std::tuple(v.isUnsignedInteger(), v.unsignedIntegerValue(), v.integerValue(),
                         v.doubleValue(), v == V::integer(c.integer)),
              std::tuple(c.isUnsigned, c.value, c.integer, c.real, !c.isUnsigned));
  }
}

TEST(PlistValueTest, EqualityLooksInsideContainersAndKinds) {
  auto nested = [](std::int64_t n) { return V::dictionary({{"a", V::array({V::integer(n)})}}); };
  EXPECT_TRUE(nested(1) == nested(1));
  EXPECT_FALSE(nested(1) == nested(2));
  EXPECT_FALSE(V::integer(1) == V::boolean(true));
  EXPECT_FALSE(V::integer(1) == V::real(1.0));
  EXPECT_FALSE(V::url("x") == V::string("x"));
  EXPECT_TRUE(V::real(std::nan("")) == V::real(std::nan("")));
  EXPECT_TRUE(V::real(0.0) == V::real(-0.0));
}

}  // namespace
}  // namespace quarvel
