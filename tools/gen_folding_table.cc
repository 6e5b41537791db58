// gen_folding_table: writes src/common/FoldingTable.inc, the per-character
// tables of the single-scan folding in Folding.cc, from the folding list in
// FoldingRows.h and the ICU character data.
//
//   build/tools/quarvel_gen_folding_table > src/common/FoldingTable.inc
//
// The scan relies on facts about the list and the character data that this
// program checks before it writes anything (it exits with status 1 and says
// which fact failed): every target folds to one letter, or one letter a..z
// and one mark; the first six targets are met only by the characters the
// scan treats specially; no extending character starts a target; and no
// other character folds to a lone mark of a target.

#include <unicode/normalizer2.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>
#include <unicode/ustring.h>
#include <unicode/uversion.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "common/detail/FoldingRows.h"

namespace {

using Stream = std::u32string;

constexpr UChar32 kMaxCodePoint = 0x10FFFF;
constexpr int kBlockShift = 7;
constexpr int kBlockSize = 1 << kBlockShift;

// Value layout, shared with Folding.cc; kind 0 is a plain character.
constexpr unsigned kKindExtend = 1, kKindLead = 2, kKindSpecial = 3;
constexpr unsigned kSpecialBrokenBar = 1, kSpecialMacron = 2, kSpecialMu = 3, kSpecialFraction = 4;

[[noreturn]] void fail(const std::string& what) {
  std::fprintf(stderr, "gen_folding_table: %s\n", what.c_str());
  std::exit(1);
}

bool isExtending(UChar32 c) {
  return u_hasBinaryProperty(c, UCHAR_GRAPHEME_EXTEND) || (c >= 0x1F3FB && c <= 0x1F3FF);
}

Stream toStream(const icu::UnicodeString& s) {
  Stream out;
  for (int32_t i = 0; i < s.length(); i += U16_LENGTH(s.char32At(i)))
    out += static_cast<char32_t>(s.char32At(i));
  return out;
}

const icu::Normalizer2& nfd() {
  UErrorCode status = U_ZERO_ERROR;
  const icu::Normalizer2* n = icu::Normalizer2::getNFDInstance(status);
  if (U_FAILURE(status)) fail("no NFD data");
  return *n;
}

Stream decomposition(UChar32 c) {
  icu::UnicodeString d;
  if (!nfd().getDecomposition(c, d)) d = icu::UnicodeString(c);
  return toStream(d);
}

// The lead of a folded unit: decomposed, first code point case-folded.
Stream leadForm(UChar32 c) {
  Stream d = decomposition(c);
  if (d[0] > 0xFFFF) return d;
  UChar in[1] = {static_cast<UChar>(d[0])};
  UChar out[8];
  UErrorCode status = U_ZERO_ERROR;
  int32_t n = u_strFoldCase(out, 8, in, 1, U_FOLD_CASE_DEFAULT, &status);
  if (U_FAILURE(status)) fail("case folding failed");
  return toStream(icu::UnicodeString(out, n)) + d.substr(1);
}

// A target is one folded unit: its lead, then its marks in combining order.
Stream targetStream(std::u16string_view target) {
  icu::UnicodeString s(false, target.data(), static_cast<int32_t>(target.size()));
  Stream cps = toStream(s);
  Stream out = leadForm(static_cast<UChar32>(cps[0]));
  for (std::size_t i = 1; i < cps.size(); ++i) {
    if (!isExtending(static_cast<UChar32>(cps[i]))) fail("a target holds two units");
    out += decomposition(static_cast<UChar32>(cps[i]));
  }
  std::stable_sort(out.begin() + 1, out.end(), [](char32_t a, char32_t b) {
    return u_getCombiningClass(static_cast<UChar32>(a)) <
           u_getCombiningClass(static_cast<UChar32>(b));
  });
  return out;
}

std::string hex(UChar32 c) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "U+%04X", static_cast<unsigned>(c));
  return buf;
}

}  // namespace

int main() {
  const auto& rows = quarvel::folding::kFoldingRows;

  // Winning replacement of every letter-row stream (first row wins), and the
  // marks the two-element targets use.
  std::map<Stream, char> letterRows;
  std::vector<char32_t> marks;
  for (std::size_t r = 6; r < rows.size(); ++r) {
    Stream s = targetStream(rows[r].target);
    if (rows[r].replacement.size() != 1 || rows[r].replacement[0] > 0x7F)
      fail("row " + std::to_string(r + 1) + " is not replaced by one ASCII letter");
    if (s.size() > 2) fail("row " + std::to_string(r + 1) + " folds to more than two");
    if (s.size() == 2) {
      if (s[0] < U'a' || s[0] > U'z') fail("row " + std::to_string(r + 1) + ": base not a..z");
      if (!isExtending(static_cast<UChar32>(s[1])))
        fail("row " + std::to_string(r + 1) + ": second element is not a mark");
      if (std::find(marks.begin(), marks.end(), s[1]) == marks.end()) marks.push_back(s[1]);
    }
    letterRows.emplace(s, static_cast<char>(rows[r].replacement[0]));
  }
  std::sort(marks.begin(), marks.end());
  if (marks.size() > 31) fail("too many marks");
  std::set<char32_t> targetFirsts;
  for (const auto& row : rows) targetFirsts.insert(targetStream(row.target)[0]);

  const std::map<Stream, unsigned> specialStreams = {
      {targetStream(rows[0].target), kSpecialBrokenBar},
      {targetStream(rows[1].target), kSpecialMacron},
      {targetStream(rows[2].target), kSpecialMu},
      {targetStream(rows[3].target), kSpecialFraction},
      {targetStream(rows[4].target), kSpecialFraction},
      {targetStream(rows[5].target), kSpecialFraction}};
  const std::set<UChar32> expectedSpecials = {0xA6, 0xAF, 0xB5, 0x3BC, 0x39C, 0xBC, 0xBD, 0xBE};

  std::vector<std::uint16_t> values(kMaxCodePoint + 1, 0);
  for (UChar32 c = 0; c <= kMaxCodePoint; ++c) {
    Stream lead = leadForm(c);
    if (isExtending(c)) {
      if (targetFirsts.count(lead[0])) fail("extending " + hex(c) + " starts a target");
      Stream d = decomposition(c);
      unsigned mark = 0;
      auto it = std::find(marks.begin(), marks.end(), d[0]);
      if (d.size() == 1 && it != marks.end()) mark = static_cast<unsigned>(it - marks.begin()) + 1;
      values[c] = static_cast<std::uint16_t>(kKindExtend | (mark << 2));
      continue;
    }
    if (std::find(marks.begin(), marks.end(), lead[0]) != marks.end())
      fail(hex(c) + " folds to a lone mark of a target");
    auto special = specialStreams.find(lead);
    if (special != specialStreams.end()) {
      if (!expectedSpecials.count(c)) fail(hex(c) + " meets one of the first six targets");
      values[c] = static_cast<std::uint16_t>(kKindSpecial | (special->second << 2));
      continue;
    }
    if (expectedSpecials.count(c)) fail(hex(c) + " no longer meets its target");
    unsigned standalone = 0;
    auto row = letterRows.find(lead);
    if (row != letterRows.end()) standalone = static_cast<unsigned char>(row->second);
    unsigned base = 0;
    if (lead.size() == 1 && lead[0] >= U'a' && lead[0] <= U'z') base = lead[0] - U'a' + 1;
    if (standalone || base)
      values[c] = static_cast<std::uint16_t>(kKindLead | (standalone << 2) | (base << 9));
  }

  // Two-stage table with shared blocks.
  std::vector<std::vector<std::uint16_t>> blocks;
  std::vector<unsigned> index;
  for (UChar32 start = 0; start <= kMaxCodePoint; start += kBlockSize) {
    std::vector<std::uint16_t> block(values.begin() + start, values.begin() + start + kBlockSize);
    auto it = std::find(blocks.begin(), blocks.end(), block);
    index.push_back(static_cast<unsigned>(it - blocks.begin()));
    if (it == blocks.end()) blocks.push_back(block);
  }
  if (blocks.size() > 256) fail("too many distinct blocks for a byte index");

  std::printf("// Generated by tools/gen_folding_table.cc from detail/FoldingRows.h with ICU %s\n",
              U_ICU_VERSION);
  std::printf("// (Unicode %s). Do not edit; regenerate.\n\n", U_UNICODE_VERSION);
  std::printf("constexpr int kBlockShift = %d;\n", kBlockShift);
  std::printf("constexpr std::uint8_t kBlockIndex[%zu] = {", index.size());
  for (std::size_t i = 0; i < index.size(); ++i)
    std::printf("%s%u,", i % 24 ? "" : "\n   ", index[i]);
  std::printf("\n};\n\nconstexpr std::uint16_t kBlocks[%zu][%d] = {\n", blocks.size(), kBlockSize);
  for (const auto& block : blocks) {
    std::printf("  {");
    for (int i = 0; i < kBlockSize; ++i)
      std::printf("%s0x%x,", i % 16 ? "" : "\n    ", block[static_cast<std::size_t>(i)]);
    std::printf("\n  },\n");
  }
  std::printf("};\n\n// The marks of the two-element targets, by mark number - 1.\n");
  std::printf("constexpr char32_t kMarks[%zu] = {", marks.size());
  for (char32_t m : marks) std::printf("0x%04X,", static_cast<unsigned>(m));
  std::printf("};\n\n// Replacement of a base letter (1 = a) followed by one mark, or 0.\n");
  std::printf("constexpr char kPairs[27][%zu] = {\n", marks.size() + 1);
  for (char32_t base = 0; base <= 26; ++base) {
    std::printf("  {0,");
    for (char32_t m : marks) {
      auto it = base ? letterRows.find(Stream{U'a' + base - 1, m}) : letterRows.end();
      if (it == letterRows.end())
        std::printf("0,");
      else
        std::printf("'%c',", it->second);
    }
    std::printf("},\n");
  }
  std::printf("};\n");
  return 0;
}
