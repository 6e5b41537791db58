#include "FoldingReference.h"

#include <unicode/brkiter.h>
#include <unicode/normalizer2.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <unordered_map>
#include <utility>
#include <vector>

#include "common/detail/FoldingRows.h"

namespace quarvel::foldref {
namespace {

// Text as code points: the search steps by code point, and the text is
// well-formed (the UTF-8 decoder replaced what was not).
using Text = std::u32string;

Text toText(const icu::UnicodeString& s) {
  Text out;
  for (int32_t i = 0; i < s.length(); i = s.moveIndex32(i, 1)) out += char32_t(s.char32At(i));
  return out;
}
Text toText(std::u16string_view s) {
  return toText(icu::UnicodeString(false, s.data(), static_cast<int32_t>(s.size())));
}
icu::UnicodeString toIcu(const Text& s) {
  return icu::UnicodeString::fromUTF32(reinterpret_cast<const UChar32*>(s.data()),
                                       static_cast<int32_t>(s.size()));
}

bool isExtending(char32_t c) {
  return u_hasBinaryProperty(c, UCHAR_GRAPHEME_EXTEND) || (c >= 0x1F3FB && c <= 0x1F3FF);
}

// What the search needs to know of one code point, remembered once computed.
struct Info {
  bool extending;
  Text decomposition;  // NFD
  Text leadForm;       // NFD, its first code point case-folded when in the BMP
};

const Info& infoOf(char32_t c) {
  thread_local std::unordered_map<char32_t, Info> cache;
  if (auto found = cache.find(c); found != cache.end()) return found->second;
  UErrorCode status = U_ZERO_ERROR;
  icu::UnicodeString nfd;
  if (!icu::Normalizer2::getNFDInstance(status)->getDecomposition(UChar32(c), nfd))
    nfd = icu::UnicodeString(UChar32(c));
  Info info{isExtending(c), toText(nfd), toText(nfd)};
  if (info.decomposition[0] <= 0xFFFF) {
    info.leadForm = toText(icu::UnicodeString(UChar32(info.decomposition[0])).foldCase()) +
                    info.decomposition.substr(1);
  }
  return cache.emplace(c, std::move(info)).first->second;
}

// Expands the folded unit whose lead is at `i` into `out`; answers the index
// after it.
std::size_t expandUnit(const Text& s, std::size_t i, Text& out, char32_t& lastCodePoint) {
  out = infoOf(s[i]).leadForm;
  for (lastCodePoint = s[i++]; i < s.size() && infoOf(s[i]).extending; lastCodePoint = s[i++])
    out += infoOf(s[i]).decomposition;
  // Canonical order for the marks after the last non-extending element.
  auto firstMark = out.begin();
  for (auto it = out.begin(); it != out.end(); ++it)
    if (!infoOf(*it).extending) firstMark = it + 1;
  std::stable_sort(firstMark, out.end(), [](char32_t a, char32_t b) {
    return u_getCombiningClass(a) < u_getCombiningClass(b);
  });
  return i;
}

// One pass over one text.
struct Pass {
  const Text& text;
  const Text& target;
  icu::UnicodeString utf16;  // the text again, for the break iterator
  std::unique_ptr<icu::BreakIterator> breaks;

  bool isClusterBoundary(std::size_t index) {
    if (!breaks) {
      UErrorCode status = U_ZERO_ERROR;
      breaks.reset(icu::BreakIterator::createCharacterInstance(icu::Locale::getRoot(), status));
      utf16 = toIcu(text);
      breaks->setText(utf16);
    }
    return breaks->isBoundary(utf16.moveIndex32(0, static_cast<int32_t>(index)));
  }

  // The end of a match starting at `start`, if there is one.
  std::optional<std::size_t> matchAt(std::size_t start) {
    std::size_t ti = start, pi = 0, lastUnitStart = start;
    Text textUnit, targetUnit;
    std::size_t tPos = 0, pPos = 0;  // consumed parts of the units
    char32_t lastCodePoint = 0, ignored = 0;
    for (;;) {
      const bool textPending = tPos < textUnit.size(), targetPending = pPos < targetUnit.size();
      if (!targetPending && pi == target.size()) break;
      if (!textPending && ti == text.size()) return std::nullopt;
      if (!textPending && !targetPending) {
        if (text[ti] == target[pi]) {
          lastUnitStart = ti;
          lastCodePoint = text[ti++];
          ++pi;
          continue;
        }
        // Units led by a non-extending code point begin with its lead form,
        // so a differing first element settles it without the expansion.
        const Info &t = infoOf(text[ti]), &p = infoOf(target[pi]);
        if (!t.extending && !p.extending && t.leadForm[0] != p.leadForm[0]) return std::nullopt;
      }
      if (!textPending) {
        lastUnitStart = ti;
        ti = expandUnit(text, ti, textUnit, lastCodePoint);
        tPos = 0;
      }
      if (!targetPending) {
        pi = expandUnit(target, pi, targetUnit, ignored);
        pPos = 0;
      }
      if (textUnit[tPos++] != targetUnit[pPos++]) return std::nullopt;
    }
    if (tPos < textUnit.size()) return std::nullopt;  // ends inside an expansion
    const char32_t next = ti < text.size() ? text[ti] : 0;
    const bool symbolOrNumber = (U_GET_GC_MASK(lastCodePoint) & (U_GC_S_MASK | U_GC_N_MASK)) != 0;
    if (isExtending(next) && !symbolOrNumber) return std::nullopt;
    const char32_t lead = text[lastUnitStart];
    const bool jamo = (lead >= 0x1100 && lead <= 0x11FF) || (lead >= 0xA960 && lead <= 0xA97F) ||
                      (lead >= 0xD7B0 && lead <= 0xD7FF);
    const bool joiner = lead == 0x200D || lead == 0x034F || u_getCombiningClass(lead) == 9;
    if ((joiner || jamo || next == 0x034F) && !isClusterBoundary(ti)) return std::nullopt;
    return ti;
  }
};

// Every match, found left to right on the original text, replaced at once.
Text replaceAll(const Text& text, const Text& target, const Text& replacement) {
  Pass pass{text, target, {}, {}};
  Text out;
  std::size_t copied = 0;
  for (std::size_t start = 0; start < text.size();) {
    if (auto end = pass.matchAt(start)) {
      out += text.substr(copied, start - copied) + replacement;
      copied = start = *end;
    } else {
      ++start;
    }
  }
  return out + text.substr(copied);
}

}  // namespace

std::string referenceFold(std::string_view utf8) {
  static const auto rows = [] {
    std::vector<std::pair<Text, Text>> out;
    for (const auto& row : folding::kFoldingRows)
      out.emplace_back(toText(row.target), toText(row.replacement));
    return out;
  }();
  Text text = toText(icu::UnicodeString::fromUTF8(
      icu::StringPiece(utf8.data(), static_cast<int32_t>(utf8.size()))));
  for (const auto& [target, replacement] : rows) text = replaceAll(text, target, replacement);
  std::string out;
  return toIcu(text).toUTF8String(out);
}

}  // namespace quarvel::foldref
