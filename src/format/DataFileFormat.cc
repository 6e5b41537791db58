#include "format/DataFileFormat.h"

#include <algorithm>
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

std::string signatureUrl(std::string_view url) {
  const std::size_t mark = url.find('?');
  if (mark == std::string_view::npos) return std::string(url) + std::string(kSignatureSuffix);
  constexpr std::string_view kName = "filename=";
  // A parameter starts after the '?' or an '&'.
  for (std::size_t at = mark + 1; at < url.size();) {
    const std::size_t end = std::min(url.find('&', at), url.size());
    if (url.substr(at, end - at).starts_with(kName)) {
      return std::string(url.substr(0, end)) + std::string(kSignatureSuffix) +
             std::string(url.substr(end));
    }
    at = end + 1;
  }
  return std::string(url.substr(0, mark)) + std::string(kSignatureSuffix) +
         std::string(url.substr(mark));
}

}  // namespace quarvel::datafile
