#pragma once
/// @file
/// A property-list value: what the settings store holds under each key.
///
/// Readings follow the original platform: a number's boolean reading is
/// "non-zero" (a real truncated toward zero first); a string's boolean reading
/// skips leading white space, takes Y/y/T/t as true, and otherwise true only
/// when an optional sign, any zeros and then a digit 1-9 follow ("YES",
/// " +0012" true; "NO", "0x1", "00y" false).
///
/// An integer is a signed 64-bit number, or an unsigned one of 2^63 or more
/// (property lists hold both). Such a large unsigned integer is still of kind
/// Integer: its integerValue is the same 64 bits read as signed, its
/// doubleValue the unsigned number.
///
/// A value is immutable but for assignment: copies share their nested arrays
/// and dictionaries, which nothing changes afterwards, so any number of
/// threads may read values (and copies of one value) at once. The factories
/// never fail.

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace quarvel {

class PlistValue;
using PlistArray = std::vector<PlistValue>;
using PlistDictionary = std::map<std::string, PlistValue>;
using PlistData = std::vector<std::uint8_t>;

class PlistValue {
 public:
  enum class Kind { None, Boolean, Integer, Real, String, Data, Date, URL, Array, Dictionary };

  /// Seconds since 2001-01-01 00:00:00 UTC, as property lists count dates.
  struct Date {
    double secondsSinceReferenceDate = 0;
    bool operator==(const Date&) const = default;
  };
  struct URL {
    std::string text;
    bool operator==(const URL&) const = default;
  };

  PlistValue() = default;  ///< Kind::None
  static PlistValue boolean(bool value);
  static PlistValue integer(std::int64_t value);
  /// An integer of kind Integer; below 2^63 the same as integer(value).
  static PlistValue unsignedInteger(std::uint64_t value);
  static PlistValue real(double value);
  static PlistValue string(std::string value);
  static PlistValue data(PlistData value);
  static PlistValue date(Date value);
  static PlistValue url(std::string text);
  static PlistValue array(PlistArray value);
  static PlistValue dictionary(PlistDictionary value);

  Kind kind() const;
  bool isNone() const { return kind() == Kind::None; }
  /// Boolean, Integer or Real: the platform's number objects.
  bool isNumber() const;

  /// The platform readings (see above); 0 / false for kinds without one.
  bool boolValue() const;
  std::int64_t integerValue() const;  ///< numbers truncate toward zero
  double doubleValue() const;
  /// True for an integer of 2^63 or more, held as unsigned.
  bool isUnsignedInteger() const { return unsigned_; }
  /// The integer's 64 bits as unsigned (0 for other kinds).
  std::uint64_t unsignedIntegerValue() const;

  /// The held value when it is of that kind, else null. The pointer belongs
  /// to this value and lives as long as it does, unassigned.
  const std::string* asString() const;
  const PlistData* asData() const;
  const Date* asDate() const;
  const URL* asURL() const;
  const PlistArray* asArray() const;
  const PlistDictionary* asDictionary() const;

  /// Same kind and value; two NaN reals (or dates) are equal, as a value kept unchanged
  /// must compare equal to itself.
  bool operator==(const PlistValue& other) const;

 private:
  using Storage =
      std::variant<std::monostate, bool, std::int64_t, double, std::string, PlistData, Date, URL,
                   std::shared_ptr<const PlistArray>, std::shared_ptr<const PlistDictionary>>;
  Storage value_;
  bool unsigned_ = false;  ///< an Integer of 2^63 or more
};

/// The boolean reading of a string, on its own.
bool boolValueOfString(const std::string& text);

}  // namespace quarvel
