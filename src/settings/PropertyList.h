#pragma once
// Reading and writing whole property-list documents (the settings domain
// file) with libplist.

#include <optional>
#include <string>
#include <string_view>

#include "quarvel/settings/PlistValue.h"

namespace quarvel {

// Parses an XML or binary property list. Absent when the bytes are neither,
// the document is empty, or a binary document holds a string or key with a
// NUL character (which libplist cannot hand out). Integer and UID nodes read as integers, keys as
// strings; dates keep what the document holds (whole seconds in XML).
std::optional<PlistValue> readPropertyList(std::string_view bytes);

// The value as an XML property-list document. A URL is written as its text
// (property lists have no URL kind), a None value as an empty string, and a
// dictionary entry holding None is left out. Dates are written in whole
// seconds, as the XML form holds them.
std::string writeXmlPropertyList(const PlistValue& value);

}  // namespace quarvel
