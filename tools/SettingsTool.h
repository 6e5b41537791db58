#pragma once
// The work behind `quarvel paths` and `quarvel settings`: rendering paths and
// values as text, and reading a value typed on the command line.

#include <optional>
#include <string>

#include "quarvel/CVUserDefaults.h"
#include "quarvel/PlistValue.h"

namespace quarvel::cli {

// One "name: path" line per path operation of `defaults` (the operation's
// own name), after "portable: yes|no" and the domain file's path. Absent
// paths print as "(null)".
std::string describePaths(const CVUserDefaults& defaults);

// A value on one line: YES/NO, numbers as written, strings in double quotes
// (with \" and \\ escaped), data as <hex>, dates as ISO 8601 UTC, URLs as
// <url:...>, arrays as ( a, b ), dictionaries as { key = value; ... }.
std::string describeValue(const PlistValue& value);

// One "key = value" line per entry, keys in order.
std::string describeSettings(const PlistDictionary& settings);

// The kinds `settings set --type` accepts.
inline constexpr const char* kValueTypes[] = {"string", "bool", "int", "real",
                                              "date",   "data", "url", "json"};

// Reads `text` as a value of `type`: bool takes YES/NO/true/false/1/0 (any
// case); int a signed 64-bit decimal; real a decimal or exponent number;
// date ISO 8601 "YYYY-MM-DDTHH:MM:SSZ"; data hex digits; json any JSON
// (objects become dictionaries, whole numbers integers). Absent when the text
// does not fit the type or the type is unknown.
std::optional<PlistValue> parseValue(const std::string& text, const std::string& type);

}  // namespace quarvel::cli
