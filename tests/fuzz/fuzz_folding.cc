// The single-scan folding on arbitrary bytes: it must not crash, its output
// is never longer than its input (no replacement is longer than what it
// replaces), it folds a text line by line as it folds the whole (the save
// folds each line alone), text of characters it leaves alone stays as it is,
// and on short well-formed text it agrees with the 209 passes replayed
// literally.

#include <algorithm>
#include <string>
#include <string_view>

#include "../common/FoldingReference.h"
#include "FuzzSupport.h"
#include "common/Folding.h"
#include "common/StringUtil.h"
#include "quarvel/CommonLib.h"

namespace {

// The code point at `at` of well-formed UTF-8, stepping past it.
char32_t nextCodePoint(std::string_view text, std::size_t& at) {
  const auto lead = static_cast<unsigned char>(text[at]);
  const int length = lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
  char32_t c = length == 1 ? lead : lead & (0x7F >> length);
  for (int i = 1; i < length; ++i) c = c << 6 | (static_cast<unsigned char>(text[at + i]) & 0x3F);
  at += static_cast<std::size_t>(length);
  return c;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const std::string folded = quarvel::CommonLib::encodingForSpecialCharacter(text);
  using quarvel::fuzz::fail;
  if (folded.size() > text.size()) fail("folding made a text longer");

  std::string byLines;
  for (std::size_t from = 0; from <= text.size();) {
    const std::size_t end = std::min(text.find("\r\n", from), text.size());
    byLines += quarvel::CommonLib::encodingForSpecialCharacter(text.substr(from, end - from));
    if (end == text.size()) break;
    byLines += "\r\n";
    from = end + 2;
  }
  if (byLines != folded) fail("folding line by line differs from folding the whole");

  bool untouched = quarvel::isValidUtf8(text);
  for (std::size_t at = 0; untouched && at < text.size();) {
    const char32_t c = nextCodePoint(text, at);
    untouched = c < 0x80 || quarvel::folding::leavesAlone(c);
  }
  if (untouched && folded != text) fail("a character folding leaves alone was folded");
  if (size <= 256 && quarvel::isValidUtf8(text) && folded != quarvel::foldref::referenceFold(text))
    fail("fast folding differs from the passes");
  return 0;
}
