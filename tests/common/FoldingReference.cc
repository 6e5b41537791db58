#include "FoldingReference.h"

#include <unicode/brkiter.h>
#include <unicode/normalizer2.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>
#include <unicode/ustring.h>
#include <unicode/utf16.h>

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <unordered_map>
#include <utility>
#include <vector>

#include "common/detail/FoldingRows.h"

namespace quarvel::foldref {
namespace {

constexpr UChar32 kZwj = 0x200D;
constexpr UChar32 kCgj = 0x034F;

bool isExtending(UChar32 c) {
  return u_hasBinaryProperty(c, UCHAR_GRAPHEME_EXTEND) || (c >= 0x1F3FB && c <= 0x1F3FF);
}

bool isConjoiningJamo(UChar32 c) {
  return (c >= 0x1100 && c <= 0x11FF) || (c >= 0xA960 && c <= 0xA97F) ||
         (c >= 0xD7B0 && c <= 0xD7FF);
}

bool isSymbolOrNumber(UChar32 c) {
  const auto mask = U_GET_GC_MASK(c);
  return (mask & (U_GC_S_MASK | U_GC_N_MASK)) != 0;
}

// What the search needs to know of one code point. Pure functions of the
// code point, so they are computed once and remembered.
struct CodePointInfo {
  bool extending = false;
  std::u32string decomposition;  // NFD
  std::u32string leadForm;       // NFD, first code point case-folded
};

std::u32string toCodePoints(const icu::UnicodeString& s) {
  std::u32string out;
  for (int32_t i = 0; i < s.length();) {
    UChar32 c = s.char32At(i);
    out.push_back(static_cast<char32_t>(c));
    i += U16_LENGTH(c);
  }
  return out;
}

const CodePointInfo& infoOf(UChar32 c) {
  thread_local std::unordered_map<UChar32, CodePointInfo> cache;
  auto found = cache.find(c);
  if (found != cache.end()) return found->second;

  UErrorCode status = U_ZERO_ERROR;
  const icu::Normalizer2* nfd = icu::Normalizer2::getNFDInstance(status);
  if (U_FAILURE(status)) throw std::runtime_error("no NFD data");
  CodePointInfo info;
  info.extending = isExtending(c);
  icu::UnicodeString decomposed;
  if (!nfd->getDecomposition(c, decomposed)) decomposed = icu::UnicodeString(c);
  info.decomposition = toCodePoints(decomposed);
  info.leadForm = info.decomposition;
  UChar32 first = static_cast<UChar32>(info.decomposition.front());
  if (first <= 0xFFFF) {  // the search folds BMP characters only
    UChar in[2] = {static_cast<UChar>(first), 0};
    UChar folded[8];
    int32_t n = u_strFoldCase(folded, 8, in, 1, U_FOLD_CASE_DEFAULT, &status);
    if (U_FAILURE(status)) throw std::runtime_error("case folding failed");
    std::u32string lead = toCodePoints(icu::UnicodeString(folded, n));
    info.leadForm = lead + info.decomposition.substr(1);
  }
  return cache.emplace(c, std::move(info)).first->second;
}

UChar32 codePointAt(std::u16string_view s, std::size_t i) {
  UChar32 c;
  std::size_t j = i;
  U16_NEXT(s.data(), j, s.size(), c);
  return c;
}

std::size_t nextIndex(std::u16string_view s, std::size_t i) {
  U16_FWD_1(s.data(), i, s.size());
  return i;
}

// Expands the folded unit whose lead is at `i`; answers the index after it.
std::size_t expandUnit(std::u16string_view s, std::size_t i, std::vector<char32_t>& out,
                       UChar32& lastCodePoint) {
  out.clear();
  UChar32 lead = codePointAt(s, i);
  const auto& leadInfo = infoOf(lead);
  out.assign(leadInfo.leadForm.begin(), leadInfo.leadForm.end());
  lastCodePoint = lead;
  i = nextIndex(s, i);
  while (i < s.size()) {
    UChar32 c = codePointAt(s, i);
    const auto& info = infoOf(c);
    if (!info.extending) break;
    out.insert(out.end(), info.decomposition.begin(), info.decomposition.end());
    lastCodePoint = c;
    i = nextIndex(s, i);
  }
  // Canonical order for the marks after the last non-extending element.
  auto firstMark = out.begin();
  for (auto it = out.begin(); it != out.end(); ++it) {
    if (!infoOf(static_cast<UChar32>(*it)).extending) firstMark = it + 1;
  }
  std::stable_sort(firstMark, out.end(), [](char32_t a, char32_t b) {
    return u_getCombiningClass(static_cast<UChar32>(a)) <
           u_getCombiningClass(static_cast<UChar32>(b));
  });
  return i;
}

class Matcher {
 public:
  Matcher(std::u16string_view text, std::u16string_view target) : text_(text), target_(target) {}

  // The end of a match starting at `start`, if there is one.
  std::optional<std::size_t> matchAt(std::size_t start) {
    std::size_t ti = start;
    std::size_t pi = 0;
    std::size_t tPos = 0;  // consumed part of textUnit_
    std::size_t pPos = 0;  // consumed part of targetUnit_
    textUnit_.clear();
    targetUnit_.clear();
    std::size_t lastUnitStart = start;
    UChar32 lastCodePoint = 0;
    UChar32 ignored = 0;
    for (;;) {
      const bool textPending = tPos < textUnit_.size();
      const bool targetPending = pPos < targetUnit_.size();
      if (!targetPending && pi == target_.size()) break;
      if (!textPending && !targetPending) {
        if (ti == text_.size()) return std::nullopt;
        UChar32 tc = codePointAt(text_, ti);
        UChar32 pc = codePointAt(target_, pi);
        if (tc == pc) {
          lastUnitStart = ti;
          lastCodePoint = tc;
          ti = nextIndex(text_, ti);
          pi = nextIndex(target_, pi);
          continue;
        }
        // Units led by a non-extending code point begin with its lead form,
        // so a differing first element settles it without the expansion.
        const auto& tInfo = infoOf(tc);
        const auto& pInfo = infoOf(pc);
        if (!tInfo.extending && !pInfo.extending && tInfo.leadForm[0] != pInfo.leadForm[0]) {
          return std::nullopt;
        }
        lastUnitStart = ti;
        ti = expandUnit(text_, ti, textUnit_, lastCodePoint);
        pi = expandUnit(target_, pi, targetUnit_, ignored);
        tPos = pPos = 0;
      } else if (!textPending) {
        if (ti == text_.size()) return std::nullopt;
        lastUnitStart = ti;
        ti = expandUnit(text_, ti, textUnit_, lastCodePoint);
        tPos = 0;
      } else if (!targetPending) {
        pi = expandUnit(target_, pi, targetUnit_, ignored);
        pPos = 0;
      }
      if (textUnit_[tPos] != targetUnit_[pPos]) return std::nullopt;
      ++tPos;
      ++pPos;
    }
    if (tPos < textUnit_.size()) return std::nullopt;  // ends inside an expansion
    const UChar32 next = ti < text_.size() ? codePointAt(text_, ti) : U_SENTINEL;
    if (next != U_SENTINEL && isExtending(next) && !isSymbolOrNumber(lastCodePoint)) {
      return std::nullopt;
    }
    const UChar32 lastLead = codePointAt(text_, lastUnitStart);
    if (lastLead == kZwj || lastLead == kCgj || isConjoiningJamo(lastLead) ||
        u_getCombiningClass(lastLead) == 9 || next == kCgj) {
      if (!isClusterBoundary(ti)) return std::nullopt;
    }
    return ti;
  }

 private:
  bool isClusterBoundary(std::size_t index) {
    if (!breaks_) {
      UErrorCode status = U_ZERO_ERROR;
      breaks_.reset(icu::BreakIterator::createCharacterInstance(icu::Locale::getRoot(), status));
      if (U_FAILURE(status)) throw std::runtime_error("no grapheme break data");
      textCopy_.setTo(false, text_.data(), static_cast<int32_t>(text_.size()));
      breaks_->setText(textCopy_);
    }
    return breaks_->isBoundary(static_cast<int32_t>(index));
  }

  std::u16string_view text_;
  std::u16string_view target_;
  std::vector<char32_t> textUnit_;
  std::vector<char32_t> targetUnit_;
  icu::UnicodeString textCopy_;
  std::unique_ptr<icu::BreakIterator> breaks_;
};

}  // namespace

std::optional<FoldMatch> findFolded(std::u16string_view text, std::u16string_view target,
                                    std::size_t from) {
  if (target.empty()) return std::nullopt;
  Matcher matcher(text, target);
  for (std::size_t start = from; start < text.size(); start = nextIndex(text, start)) {
    if (auto end = matcher.matchAt(start)) return FoldMatch{start, *end - start};
  }
  return std::nullopt;
}

std::u16string replaceAllFolded(std::u16string_view text, std::u16string_view target,
                                std::u16string_view replacement) {
  if (target.empty()) return std::u16string(text);
  Matcher matcher(text, target);
  std::u16string out;
  std::size_t copied = 0;
  std::size_t start = 0;
  while (start < text.size()) {
    if (auto end = matcher.matchAt(start)) {
      out.append(text.substr(copied, start - copied));
      out.append(replacement);
      copied = start = *end;
    } else {
      start = nextIndex(text, start);
    }
  }
  out.append(text.substr(copied));
  return out;
}

std::string referenceFold(std::string_view utf8) {
  std::u16string text = toUtf16(utf8);
  for (const auto& row : folding::kFoldingRows) {
    text = replaceAllFolded(text, row.target, row.replacement);
  }
  return toUtf8(text);
}

std::u16string toUtf16(std::string_view utf8) {
  icu::UnicodeString s = icu::UnicodeString::fromUTF8(
      icu::StringPiece(utf8.data(), static_cast<int32_t>(utf8.size())));
  return std::u16string(s.getBuffer(), static_cast<std::size_t>(s.length()));
}

std::string toUtf8(std::u16string_view utf16) {
  std::string out;
  icu::UnicodeString(false, utf16.data(), static_cast<int32_t>(utf16.size())).toUTF8String(out);
  return out;
}

}  // namespace quarvel::foldref
