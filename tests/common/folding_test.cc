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

using foldref::referenceFold;

std::string fast(std::string_view text) { return CommonLib::encodingForSpecialCharacter(text); }

// Ÿ has no row: row 58 (ÿ) catches it, as row 37 (å) catches Å before row 61
// would; small letters are caught by capitals; removing ¼ joins G and the
// tilde. Nothing is normalised: what no row catches keeps its code points.
TEST(FoldingTest, FoldsTheDocumentedExamplesAndLeavesTheRestLikeThePasses) {
  const std::pair<const char*, const char*> folds[] = {
      {"Crème brûlée", "CrEme brUlEe"},
      {"Ångström", "angstrOm"},
      {"\u0178", "y"},
      {"\u00FF", "y"},
      {"\u00BD size", " size"},
      {"e\u0301", "E"},
      {"G\u00BC\u0303", "G"},
      {"n\u00BE\u0308x", "Nx"},
      {"\u00A6 \u00AF \u00B5", "| ? \u03BC"},
      {"\u03BC\u039C", "\u03BC\u03BC"},
      {"\u00E5\u00C5\u212B", "aaa"},
      {"\u00E9\u00F1\u00FC\u0142", "ENUL"},
      {"\u0131\u0130", "iI"},
      {"\u212A\u030C \u017F\u0301", "K S"},
      {"g\u0303 \u1E96 h\u0331 \u01F0 n\u0308 \u1E97", "G H H J N T"}};
  for (const auto& [text, folded] : folds) {
    EXPECT_EQ(referenceFold(text), folded) << text;
    EXPECT_EQ(fast(text), folded) << text;
  }
  for (const char* same : {"\u017C\u017B\u0140\u00DF\u00E6\u0153\u00FE\u00F0",
                           "\uD55C\uAD6D\uC5B4 ASCII 123 \u1100\u1161", "", "e\u0301\u0301",
                           "\u00E9\u0323", "e\u0323\u0301", "\u00B5\u0301", "\u00A6\u034F",
                           "\u00BC\u034F", "\u01FF", "\u1EA5", "a\u200D\u0301"}) {
    EXPECT_EQ(referenceFold(same), same);
    EXPECT_EQ(fast(same), same);
  }
  EXPECT_EQ(fast("\xFF\xFE abc \xC3"), "\xFF\xFE abc \xC3");  // ill-formed bytes pass through
}

// `s` as it is, upper-cased, lower-cased, decomposed or composed.
icu::UnicodeString transformed(icu::UnicodeString u, int how) {
  UErrorCode status = U_ZERO_ERROR;
  if (how == 1) u.toUpper(icu::Locale::getRoot());
  if (how == 2) u.toLower(icu::Locale::getRoot());
  if (how == 3) u = icu::Normalizer2::getNFDInstance(status)->normalize(u, status);
  if (how == 4) u = icu::Normalizer2::getNFCInstance(status)->normalize(u, status);
  return u;
}

// The fast scan against the passes: every target in its own form, both
// cases, composed and decomposed, after nothing or ¼, before each context
// (marks, joiners, jamo, symbols, letters with special folding, a few
// pairs); then random mixtures of all these.
TEST(FoldingTest, FastScanAgreesWithThePasses) {
  std::set<std::string> forms;
  for (const auto& row : folding::kFoldingRows) {
    const icu::UnicodeString target(false, row.target.data(), int32_t(row.target.size()));
    for (int how = 0; how <= 4; ++how) {
      for (const auto& form :
           {transformed(target, how), transformed(transformed(target, how), 3)}) {
        std::string utf8;
        forms.insert(form.toUTF8String(utf8));
      }
    }
  }
  std::vector<std::string> contexts = {"", "\u00BD\u00BE", "\u00BC\u0301", "\u00BD\u0308"};
  for (char32_t c : std::u32string_view(
           U" xGn1\uD55C\u1100\u00BC\u0301\u0303\u0308\u0323\u0331\u030C\u0340\u034F\u0345"
           U"\u200C\u200D\uFE0F\U0001F3FB\u00B5\u039C\u00A6\u00AF\u00DF\u017F\u212A\u212B"
           U"\u0130\u0131\u0178\u01FF\uFB05\U00010400")) {
    contexts.emplace_back();
    icu::UnicodeString(static_cast<UChar32>(c)).toUTF8String(contexts.back());
  }
  for (const auto& form : forms) {
    for (const auto& before : {"", "\u00BC"}) {
      for (const auto& after : contexts) {
        const std::string text = before + form + after;
        ASSERT_EQ(fast(text), referenceFold(text)) << text;
      }
    }
  }
  std::vector<std::string> pieces(forms.begin(), forms.end());
  pieces.insert(pieces.end(), contexts.begin(), contexts.end());
  std::mt19937 random(20240611);
  std::uniform_int_distribution<std::size_t> pick(0, pieces.size() - 1);
  std::uniform_int_distribution<int> count(1, 10);
  for (int round = 0; round < 3000; ++round) {
    std::string text;
    for (int n = count(random); n > 0; --n) text += pieces[pick(random)];
    ASSERT_EQ(fast(text), referenceFold(text)) << text;
  }
}

}  // namespace
}  // namespace quarvel
