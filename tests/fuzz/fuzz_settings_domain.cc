// The settings domain reader on arbitrary bytes (XML or binary property
// lists). Whatever it accepts, the writer must turn into a document that
// reads back, or the next start would set the domain aside.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "quarvel/settings/PropertyList.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view bytes(reinterpret_cast<const char*>(data), size);
  std::optional<quarvel::PlistValue> value = quarvel::readPropertyList(bytes);
  if (!value || !value->asDictionary()) return 0;
  std::string written = quarvel::writeXmlPropertyList(*value);
  if (!quarvel::readPropertyList(written)) std::abort();
  return 0;
}
