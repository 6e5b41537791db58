// The single-scan folding on arbitrary bytes: it must not crash, its output
// is never longer than its input (no replacement is longer than what it
// replaces), and on short well-formed text it agrees with the 209 passes
// replayed literally.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "../common/FoldingReference.h"
#include "common/StringUtil.h"
#include "quarvel/CommonLib.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const std::string folded = quarvel::CommonLib::encodingForSpecialCharacter(text);
  if (folded.size() > text.size()) std::abort();
  if (size <= 256 && quarvel::isValidUtf8(text)) {
    if (folded != quarvel::foldref::referenceFold(text)) {
      std::fprintf(stderr, "fast folding differs from the passes\n");
      std::abort();
    }
  }
  return 0;
}
