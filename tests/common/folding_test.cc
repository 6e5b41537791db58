#include <gtest/gtest.h>
#include <unicode/locid.h>
#include <unicode/normalizer2.h>
#include <unicode/unistr.h>

#include <random>
#include <set>
#include <string>
#include <vector>

#include "common/FoldingReference.h"
#include "common/detail/FoldingRows.h"
#include "quarvel/CommonLib.h"

namespace quarvel {
namespace {

using foldref::findFolded;
using foldref::FoldMatch;
using foldref::referenceFold;
using foldref::toUtf16;
using foldref::toUtf8;

std::string fast(std::string_view text) { return CommonLib::encodingForSpecialCharacter(text); }

TEST(FoldingTest, FoldsTheDocumentedExamplesAndLeavesTheRestLikeThePasses) {
  struct Case {
    const char* text;
    const char* folded;
  };
  const Case cases[] = {
      {"Crème brûlée", "CrEme brUlEe"},
      {"Ångström", "angstrOm"},
      {"\u0178", "y"},  // Ÿ has no row; row 58 (ÿ) catches it
      {"\u00FF", "y"},
      {"\u00BD size", " size"},  // the space stays
      {"e\u0301", "E"},          // decomposed é
      {"G\u00BC\u0303", "G"},    // removal joins G and the tilde
      {"n\u00BE\u0308x", "Nx"},
      {"\u00A6 \u00AF \u00B5", "| ? \u03BC"},
      {"\u03BC\u039C", "\u03BC\u03BC"},      // Greek mu, small and capital
      {"\u00E5\u00C5\u212B", "aaa"},         // row 37 comes before row 61
      {"\u00E9\u00F1\u00FC\u0142", "ENUL"},  // small letters caught by capitals
      {"\u0131\u0130", "iI"},
      {"\u212A\u030C \u017F\u0301", "K S"},  // Kelvin sign and long s fold to k and s
      {"g\u0303 \u1E96 h\u0331 \u01F0 n\u0308 \u1E97", "G H H J N T"},
      {"\u017C\u017B\u0140\u00DF\u00E6\u0153\u00FE\u00F0",
       "\u017C\u017B\u0140\u00DF\u00E6\u0153\u00FE\u00F0"},
      {"\uD55C\uAD6D\uC5B4 ASCII 123 \u1100\u1161", "\uD55C\uAD6D\uC5B4 ASCII 123 \u1100\u1161"},
      {"", ""},
      // Nothing is normalised: what no row catches keeps its exact code points.
      {"e\u0301\u0301", "e\u0301\u0301"},  // a letter with two marks matches no target
      {"\u00E9\u0323", "\u00E9\u0323"},    // é with a mark after it
      {"e\u0323\u0301", "e\u0323\u0301"},
      {"\u00B5\u0301", "\u00B5\u0301"},  // µ followed by a mark stays µ
      {"\u00A6\u034F", "\u00A6\u034F"},  // a grapheme joiner keeps the symbol
      {"\u00BC\u034F", "\u00BC\u034F"},
      {"\u01FF", "\u01FF"},  // ǿ: Ø with an accent, no row
      {"\u1EA5", "\u1EA5"},  // ấ: two marks
      {"a\u200D\u0301", "a\u200D\u0301"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(referenceFold(c.text), c.folded);
    EXPECT_EQ(fast(c.text), c.folded);
  }
  EXPECT_EQ(fast("\xFF\xFE abc \xC3"), "\xFF\xFE abc \xC3");  // ill-formed bytes pass through
}

TEST(FoldingReferenceTest, SearchMatchesLikeThePlatform) {
  struct Case {
    std::u16string text;
    std::u16string target;
    std::optional<FoldMatch> match;
  };
  const Case cases[] = {
      {u"Stra\u00DFe", u"SS", FoldMatch{4, 1}},
      {u"STRASSE", u"\u00DF", FoldMatch{4, 2}},
      {u"sss", u"\u00DF", FoldMatch{0, 2}},
      {u"\u0130", u"i", std::nullopt},
      {u"i\u0307", u"\u0130", FoldMatch{0, 2}},
      {u"\u0131", u"i", std::nullopt},
      {u"cafe\u0301", u"CAF\u00C9", FoldMatch{0, 5}},
      {u"A\u0308", u"\u00C4", FoldMatch{0, 2}},
      {u"\u00C4", u"a\u0308", FoldMatch{0, 1}},
      {u"\u212B", u"\u00E5", FoldMatch{0, 1}},
      {u"\uAC00", u"\u1100\u1161", FoldMatch{0, 1}},
      {u"a\u0323\u0301", u"a\u0301\u0323", FoldMatch{0, 3}},
      {u"\u1EA5", u"a\u0301\u0302", std::nullopt},
      {u"e\u0301", u"\u0301", FoldMatch{1, 1}},
      {u"\u00E9", u"\u0301", std::nullopt},
      {u"e\u200Dx", u"e", FoldMatch{0, 1}},
      {u"a\u034Fb", u"a", std::nullopt},
      {u"\U00010400", u"\U00010428", std::nullopt},
      {u"s\u00DF", u"\u00DF", FoldMatch{1, 1}},
      {u"e\u0301", u"e", std::nullopt},
      {u"E\u0301\u0308", u"\u00C9", std::nullopt},
      {u"G\u0303\u0301", u"G\u0303", std::nullopt},
      {u"\u1100\u1161", u"\u1100", std::nullopt},  // a jamo inside a syllable
      {u"\u00BC\u0303", u"\u00BC", FoldMatch{0, 1}},
      {u"\u00BC\u034F", u"\u00BC", std::nullopt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(toUtf8(c.text) + " / " + toUtf8(c.target));
    EXPECT_EQ(findFolded(c.text, c.target), c.match);
  }
}

// ---------------------------------------------------------------------------
// The fast scan against the passes on generated text.

std::u16string transformed(std::u16string_view s, int how) {
  icu::UnicodeString u(false, s.data(), static_cast<int32_t>(s.size()));
  UErrorCode status = U_ZERO_ERROR;
  if (how == 1) u.toUpper(icu::Locale::getRoot());
  if (how == 2) u.toLower(icu::Locale::getRoot());
  if (how == 3) u = icu::Normalizer2::getNFDInstance(status)->normalize(u, status);
  if (how == 4) u = icu::Normalizer2::getNFCInstance(status)->normalize(u, status);
  return std::u16string(u.getBuffer(), static_cast<std::size_t>(u.length()));
}

// Every target in its own form, both cases, composed and decomposed.
std::vector<std::string> targetForms() {
  std::set<std::string> forms;
  for (const auto& row : folding::kFoldingRows) {
    for (int how = 0; how <= 4; ++how) {
      forms.insert(toUtf8(transformed(row.target, how)));
      forms.insert(toUtf8(transformed(transformed(row.target, how), 3)));
    }
  }
  return {forms.begin(), forms.end()};
}

// What may stand before or after a target: nothing, each of these code
// points alone (marks, joiners, jamo, symbols, letters with special
// folding), and a few pairs.
const std::vector<std::string> kContexts = [] {
  std::vector<std::string> out = {"", "\u00BD\u00BE", "\u00BC\u0301", "\u00BD\u0308"};
  const std::u32string_view single =
      U" xGn1\uD55C\u1100\u00BC\u0301\u0303\u0308\u0323\u0331\u030C\u0340\u034F\u0345"
      U"\u200C\u200D\uFE0F\U0001F3FB\u00B5\u039C\u00A6\u00AF\u00DF\u017F\u212A\u212B"
      U"\u0130\u0131\u0178\u01FF\uFB05\U00010400";
  for (char32_t c : single) {
    std::string utf8;
    icu::UnicodeString(static_cast<UChar32>(c)).toUTF8String(utf8);
    out.push_back(utf8);
  }
  return out;
}();

void expectSameAsPasses(const std::string& text) {
  ASSERT_EQ(fast(text), referenceFold(text)) << "text: " << text;
}

TEST(FoldingDifferentialTest, EveryTargetFormInEveryContext) {
  for (const auto& form : targetForms()) {
    for (const auto& before : {std::string(), std::string("\u00BC")}) {
      for (const auto& after : kContexts) {
        expectSameAsPasses(before + form + after);
        if (HasFatalFailure()) return;
      }
    }
  }
}

TEST(FoldingDifferentialTest, RandomMixtures) {
  std::vector<std::string> pieces = targetForms();
  pieces.insert(pieces.end(), kContexts.begin(), kContexts.end());
  for (const char* extra :
       {"A", "e", "h", "J", "t", "y", "\uAC00\uB098", "Hello, ", "\u00C5", "\u00E5", "\u03BC"})
    pieces.push_back(extra);
  std::mt19937 random(20240611);
  std::uniform_int_distribution<std::size_t> pick(0, pieces.size() - 1);
  std::uniform_int_distribution<int> count(1, 10);
  for (int round = 0; round < 3000; ++round) {
    std::string text;
    for (int n = count(random); n > 0; --n) text += pieces[pick(random)];
    expectSameAsPasses(text);
    if (HasFatalFailure()) return;
  }
}

}  // namespace
}  // namespace quarvel
