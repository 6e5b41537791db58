// The Mac Korean codec and the folding on arbitrary bytes, as Mac Korean and
// as UTF-8: what decodes is UTF-8, reads as its codes one at a time and
// encodes back; what encodes decodes back; a refusal comes at a character,
// after text that encodes; the fast lane writes what encodeInto writes. The
// folding never lengthens, folds line by line as whole, leaves alone what it
// should, and on short UTF-8 agrees with the 209 passes replayed literally.

#include <unicode/utf8.h>

#include "../common/FoldingReference.h"
#include "FuzzSupport.h"
#include "common/Folding.h"
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

void macKorean(std::string_view bytes) {
  const std::optional<std::string> text = MacKorean::decode(bytes);
  if (text != decodeCodeByCode(bytes)) fail("decoding differs from decoding code by code");
  if (text && !quarvel::isValidUtf8(*text)) fail("decoded text is not UTF-8");
  if (text) {
    const std::optional<std::string> again = MacKorean::encode(*text);
    if (!again || MacKorean::decode(*again) != text) fail("decoded text does not survive encoding");
  }
  MacKorean::EncodeError error;
  if (const std::optional<std::string> encoded = MacKorean::encode(bytes, &error)) {
    if (MacKorean::decode(*encoded) != bytes) fail("encoded text does not decode back");
  } else if (error.offset >= bytes.size()) {
    fail("refusal reported past the end");
  } else if (error.character != U'\uFFFD' &&
             (static_cast<unsigned char>(bytes[error.offset]) & 0xC0) == 0x80) {
    fail("refusal reported inside a character");
  } else if (!MacKorean::encode(bytes.substr(0, error.offset))) {
    fail("text before the reported character does not encode");
  }
  std::string fast(bytes.size(), '\0'), careful(bytes.size(), '\0');
  // Half the characters are refused, to take the lane's way out too.
  const auto keepEvenCodes = [](char32_t c) { return c % 2 == 0; };
  if (const auto written = MacKorean::encodePlainInto(bytes, fast.data(), keepEvenCodes))
    if (written != MacKorean::encodeInto(bytes, careful.data()) ||
        fast.compare(0, *written, careful, 0, *written) != 0)
      fail("the fast lane differs from encodeInto");
}

void folding(std::string_view text) {
  const std::string folded = quarvel::CommonLib::encodingForSpecialCharacter(text);
  if (folded.size() > text.size()) fail("folding made a text longer");
  std::vector<std::string> lines = quarvel::split(text, "\r\n");
  for (std::string& line : lines) line = quarvel::CommonLib::encodingForSpecialCharacter(line);
  if (quarvel::join(lines, "\r\n") != folded)
    fail("folding line by line differs from folding the whole");
  const bool utf8 = quarvel::isValidUtf8(text);
  bool untouched = utf8;
  for (std::int32_t at = 0; untouched && at < static_cast<std::int32_t>(text.size());) {
    UChar32 c = 0;
    U8_NEXT(text.data(), at, static_cast<std::int32_t>(text.size()), c);
    untouched = c < 0x80 || quarvel::folding::leavesAlone(static_cast<char32_t>(c));
  }
  if (untouched && folded != text) fail("a character folding leaves alone was folded");
  if (text.size() <= 256 && utf8 && folded != quarvel::foldref::referenceFold(text))
    fail("fast folding differs from the passes");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  macKorean(quarvel::fuzz::asText(data, size));
  folding(quarvel::fuzz::asText(data, size));
  return 0;
}
