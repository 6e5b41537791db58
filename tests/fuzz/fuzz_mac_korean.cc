// The Mac Korean codec on arbitrary bytes, taken both as Mac Korean and as
// UTF-8. Checks that:
// - whatever decodes is well-formed UTF-8, and reads exactly as its codes
//   decoded one at a time (the eight-byte windows must not change the text);
// - decoded text encodes again, to bytes that decode to the same text;
// - text that encodes decodes back unchanged;
// - a refused text is refused at a character boundary, and everything before
//   the reported character encodes;
// - the encoder's fast lane, where it answers, writes what encodeInto writes.

#include <optional>
#include <string>
#include <string_view>

#include "FuzzSupport.h"
#include "common/StringUtil.h"
#include "format/MacKorean.h"

namespace {

using quarvel::MacKorean;
using quarvel::fuzz::fail;

// The bytes decoded code by code: a byte from 0xA1 to 0xFD leads a two-byte
// code, any other byte is a code of its own.
std::optional<std::string> decodeCodeByCode(std::string_view bytes) {
  std::string text;
  for (std::size_t at = 0; at < bytes.size();) {
    const auto b = static_cast<unsigned char>(bytes[at]);
    const std::size_t length = b >= 0xA1 && b <= 0xFD ? 2 : 1;
    if (at + length > bytes.size()) return std::nullopt;
    const std::optional<std::string> one = MacKorean::decode(bytes.substr(at, length));
    if (!one) return std::nullopt;
    text += *one;
    at += length;
  }
  return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);

  const std::optional<std::string> text = MacKorean::decode(bytes);
  if (text != decodeCodeByCode(bytes)) fail("decoding differs from decoding code by code");
  if (text) {
    if (!quarvel::isValidUtf8(*text)) fail("decoded text is not UTF-8");
    const std::optional<std::string> again = MacKorean::encode(*text);
    if (!again) fail("decoded text does not encode");
    if (MacKorean::decode(*again) != text) fail("decoded text does not survive encoding");
  }

  MacKorean::EncodeError error;
  if (const std::optional<std::string> encoded = MacKorean::encode(bytes, &error)) {
    if (MacKorean::decode(*encoded) != bytes) fail("encoded text does not decode back");
  } else {
    if (error.offset >= size) fail("refusal reported past the end");
    if (error.character != U'\uFFFD' && (data[error.offset] & 0xC0) == 0x80)
      fail("refusal reported inside a character");
    if (!MacKorean::encode(bytes.substr(0, error.offset)))
      fail("text before the reported character does not encode");
  }

  std::string fast(size, '\0');
  std::string careful(size, '\0');
  // Half the characters are refused, to take the lane's way out too.
  const auto keepEvenCodes = [](char32_t c) { return c % 2 == 0; };
  if (const std::optional<std::size_t> written =
          MacKorean::encodePlainInto(bytes, fast.data(), keepEvenCodes)) {
    const std::optional<std::size_t> expected = MacKorean::encodeInto(bytes, careful.data());
    if (written != expected || fast.compare(0, *written, careful, 0, *written) != 0)
      fail("the fast lane differs from encodeInto");
  }
  return 0;
}
