#pragma once
// Reading and writing whole property-list documents (the settings domain
// file): XML ("<plist version="1.0">") and binary ("bplist00").
//
// Every value read is written back as it was: dates of any year with their
// fractions, unsigned integers of 2^63 and more, reals (inf and nan too),
// strings holding NUL or other control characters, data, nested containers.
// The writer picks XML when XML holds every value exactly and binary
// otherwise.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "quarvel/PlistValue.h"

namespace quarvel {

// A document larger than this is not read.
constexpr std::size_t kMaxPropertyListBytes = 64u << 20;
// The deepest a value may lie: the top value is at depth 0, its elements at
// depth 1, and so on. Deeper documents are refused whole, by the reader and
// by the writer alike; in a binary document this also stops reference
// cycles.
constexpr int kMaxPropertyListDepth = 256;

// Parses an XML or binary property list. Absent when the bytes are neither,
// the document is empty, larger than kMaxPropertyListBytes, nested deeper
// than kMaxPropertyListDepth, or structurally damaged (XML that is not well
// formed, a binary trailer or offset table that does not fit, a binary
// document that expands to more values than its size can account for).
// A single value that cannot be read (an XML <integer> that is no number, a
// bad <date> or base64 <data>, an unknown element; a binary object with a
// bad marker, offset or length, a binary null) costs only that value: its
// dictionary entry or array element is left out and one line is logged with
// its key path. Binary integers of 1, 2 and 4 bytes are unsigned, 8 bytes
// signed, 16 bytes hold the unsigned ones of 2^63 and more; UIDs read as
// integers; XML dates read as whole seconds.
std::optional<PlistValue> readPropertyList(std::string_view bytes);

// The value as a property-list document, XML when xmlHoldsExactly(value),
// binary otherwise. Absent when the value is nested deeper than
// kMaxPropertyListDepth (the reader would refuse the document).
// A URL is written as its text (property lists have no URL kind), a None
// value as an empty string, and a dictionary entry holding None is left out.
// Strings that are not valid UTF-8 are written with U+FFFD in place of each
// bad sequence.
std::optional<std::string> writePropertyList(const PlistValue& value);

// Whether XML holds the value exactly: strings and keys are valid UTF-8
// without characters XML 1.0 forbids, dates are whole seconds in years
// 0001-9999, NaN is the plain quiet one. Assumes the depth limit holds.
bool xmlHoldsExactly(const PlistValue& value);

// The two forms on their own, for values within the depth limit. The XML
// form is exact only where xmlHoldsExactly says so.
std::string writeXmlPropertyList(const PlistValue& value);
std::string writeBinaryPropertyList(const PlistValue& value);

// How deep the value's deepest element lies below it (0 for a value that is
// not a container or is an empty one). Walks without recursion and stops
// counting once past `limit`, answering limit + 1.
int nestingDepth(const PlistValue& value, int limit = kMaxPropertyListDepth);

}  // namespace quarvel
