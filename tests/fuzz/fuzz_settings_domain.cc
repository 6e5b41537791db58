// The settings domain reader on arbitrary bytes (XML or binary property
// lists). No input may crash it; whatever it accepts, the writer must turn
// into a document that reads back equal, in both forms where the XML one
// holds the value, or the next start would lose or set aside settings.
#include "FuzzSupport.h"
#include "settings/PropertyList.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  quarvel::fuzz::quietLog();  // dropped values log a line each
  using quarvel::fuzz::fail;
  std::string_view bytes(reinterpret_cast<const char*>(data), size);
  std::optional<quarvel::PlistValue> value = quarvel::readPropertyList(bytes);
  if (!value) return 0;
  std::optional<std::string> written = quarvel::writePropertyList(*value);
  if (!written) fail("a value the reader accepted is refused by the writer");
  std::optional<quarvel::PlistValue> back = quarvel::readPropertyList(*written);
  if (!back || !(*back == *value)) fail("the written document does not read back equal");
  if (quarvel::writePropertyList(*back) != written) fail("a second write differs from the first");
  std::optional<quarvel::PlistValue> binary =
      quarvel::readPropertyList(quarvel::writeBinaryPropertyList(*value));
  if (!binary || !(*binary == *value)) fail("the binary form does not read back equal");
  return 0;
}
