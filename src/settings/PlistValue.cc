#include "quarvel/PlistValue.h"

#include <cmath>
#include <limits>

namespace quarvel {

namespace {

// Real to integer as a number object reads it: toward zero, saturated at the
// ends of the range (a C cast of an out-of-range double is undefined).
std::int64_t truncateToInteger(double value) {
  if (std::isnan(value)) return 0;
  constexpr double kLimit = 9223372036854775808.0;  // 2^63
  if (value >= kLimit) return std::numeric_limits<std::int64_t>::max();
  if (value < -kLimit) return std::numeric_limits<std::int64_t>::min();
  return static_cast<std::int64_t>(value);
}

}  // namespace

PlistValue PlistValue::boolean(bool value) {
  PlistValue v;
  v.value_ = value;
  return v;
}

PlistValue PlistValue::integer(std::int64_t value) {
  PlistValue v;
  v.value_ = value;
  return v;
}

PlistValue PlistValue::unsignedInteger(std::uint64_t value) {
  PlistValue v;
  v.value_ = static_cast<std::int64_t>(value);
  v.unsigned_ = value > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
  return v;
}

PlistValue PlistValue::real(double value) {
  PlistValue v;
  v.value_ = value;
  return v;
}

PlistValue PlistValue::string(std::string value) {
  PlistValue v;
  v.value_ = std::move(value);
  return v;
}

PlistValue PlistValue::data(PlistData value) {
  PlistValue v;
  v.value_ = std::move(value);
  return v;
}

PlistValue PlistValue::date(Date value) {
  PlistValue v;
  v.value_ = value;
  return v;
}

PlistValue PlistValue::url(std::string text) {
  PlistValue v;
  v.value_ = URL{std::move(text)};
  return v;
}

PlistValue PlistValue::array(PlistArray value) {
  PlistValue v;
  v.value_ = std::make_shared<const PlistArray>(std::move(value));
  return v;
}

PlistValue PlistValue::dictionary(PlistDictionary value) {
  PlistValue v;
  v.value_ = std::make_shared<const PlistDictionary>(std::move(value));
  return v;
}

PlistValue::Kind PlistValue::kind() const {
  // The variant's alternatives are declared in the order of Kind.
  return static_cast<Kind>(value_.index());
}

bool PlistValue::isNumber() const {
  Kind k = kind();
  return k == Kind::Boolean || k == Kind::Integer || k == Kind::Real;
}

bool PlistValue::boolValue() const {
  if (auto b = std::get_if<bool>(&value_)) return *b;
  if (auto i = std::get_if<std::int64_t>(&value_)) return *i != 0;
  if (auto d = std::get_if<double>(&value_)) return std::trunc(*d) != 0.0;
  if (auto s = std::get_if<std::string>(&value_)) return boolValueOfString(*s);
  return false;
}

std::int64_t PlistValue::integerValue() const {
  if (auto b = std::get_if<bool>(&value_)) return *b ? 1 : 0;
  if (auto i = std::get_if<std::int64_t>(&value_)) return *i;
  if (auto d = std::get_if<double>(&value_)) return truncateToInteger(*d);
  return 0;
}

double PlistValue::doubleValue() const {
  if (auto b = std::get_if<bool>(&value_)) return *b ? 1.0 : 0.0;
  if (auto i = std::get_if<std::int64_t>(&value_))
    return unsigned_ ? static_cast<double>(static_cast<std::uint64_t>(*i))
                     : static_cast<double>(*i);
  if (auto d = std::get_if<double>(&value_)) return *d;
  return 0.0;
}

std::uint64_t PlistValue::unsignedIntegerValue() const {
  auto i = std::get_if<std::int64_t>(&value_);
  return i ? static_cast<std::uint64_t>(*i) : 0;
}

const std::string* PlistValue::asString() const { return std::get_if<std::string>(&value_); }
const PlistData* PlistValue::asData() const { return std::get_if<PlistData>(&value_); }
const PlistValue::Date* PlistValue::asDate() const { return std::get_if<Date>(&value_); }
const PlistValue::URL* PlistValue::asURL() const { return std::get_if<URL>(&value_); }

const PlistArray* PlistValue::asArray() const {
  auto p = std::get_if<std::shared_ptr<const PlistArray>>(&value_);
  return p ? p->get() : nullptr;
}

const PlistDictionary* PlistValue::asDictionary() const {
  auto p = std::get_if<std::shared_ptr<const PlistDictionary>>(&value_);
  return p ? p->get() : nullptr;
}

bool PlistValue::operator==(const PlistValue& other) const {
  if (value_.index() != other.value_.index() || unsigned_ != other.unsigned_) return false;
  auto same = [](double a, double b) { return a == b || (std::isnan(a) && std::isnan(b)); };
  if (auto d = std::get_if<double>(&value_)) return same(*d, std::get<double>(other.value_));
  if (auto d = asDate())
    return same(d->secondsSinceReferenceDate, other.asDate()->secondsSinceReferenceDate);
  if (auto a = asArray()) return *a == *other.asArray();
  if (auto d = asDictionary()) return *d == *other.asDictionary();
  return value_ == other.value_;
}

bool boolValueOfString(const std::string& text) {
  std::size_t i = 0;
  while (i < text.size() && (text[i] == ' ' || text[i] == '\t' || text[i] == '\n' ||
                             text[i] == '\r' || text[i] == '\v' || text[i] == '\f'))
    ++i;
  if (i == text.size()) return false;
  char c = text[i];
  if (c == 'Y' || c == 'y' || c == 'T' || c == 't') return true;
  if (c == '+' || c == '-') ++i;
  while (i < text.size() && text[i] == '0') ++i;
  return i < text.size() && text[i] >= '1' && text[i] <= '9';
}

}  // namespace quarvel
