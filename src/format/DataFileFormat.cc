#include "format/DataFileFormat.h"

#include <optional>
#include <string>

#include "format/MacKorean.h"
#include "quarvel/CommonLib.h"

namespace quarvel::datafile {

LineFault recordLineFault(std::string_view text, std::size_t* storedBytes) {
  if (storedBytes != nullptr) *storedBytes = 0;
  if (holdsLineBreak(text)) return LineFault::kLineBreak;
  const std::optional<std::string> stored =
      MacKorean::encode(CommonLib::encodingForSpecialCharacter(text));
  if (!stored) return LineFault::kNone;
  if (storedBytes != nullptr) *storedBytes = stored->size();
  return fitsOneLine(stored->size()) ? LineFault::kNone : LineFault::kTooLong;
}

}  // namespace quarvel::datafile
