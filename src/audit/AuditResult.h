#pragma once
// What an audit found: one finding per product, with totals.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "audit/TreeWalker.h"

namespace quarvel::audit {

// An amount in hundredths, exact for sums.
struct Money {
  std::int64_t hundredths = 0;
  // Reads "1200000", "1,200,000", "12.5", " 99.99 "; nothing for an empty
  // text, more than two decimals or anything else.
  static std::optional<Money> parse(std::string_view text);
  // "1200000" or "12.50"; with grouping "1,200,000" or "1,234.50".
  std::string toString(bool grouped = false) const;
  bool isWhole() const { return hundredths % 100 == 0; }
};

enum class FindingKind { Software, Font };

struct Finding {
  FindingKind kind = FindingKind::Software;
  std::string list;                 // "checklist", "userchecklist" or "fontlist"
  int record = -1;                  // record index in that list
  std::string id;                   // "DB_ID"
  std::string maker;                // "DISP_COMPANY"
  std::string product;              // "DISP_PRODUCT"
  std::string version;              // "VERSION"
  std::string priceText;            // "PRICE" as written
  std::optional<Money> price;       // its amount; nothing when it is not a number
  std::string softwareType;         // "SW_TYPE"
  std::string group;                // "GRP_NAME"
  std::vector<std::string> places;  // where it was found, sorted
};

struct GroupTotal {
  std::string group;
  std::uint64_t count = 0;
  Money price;
};

struct AuditTotals {
  std::vector<GroupTotal> groups;  // sorted by group name
  std::uint64_t count = 0;
  Money price;
};

struct AuditResult {
  std::vector<Finding> findings;  // sorted by maker, product, version
  AuditTotals totals;
  ScanStats stats;
  std::uint64_t fontFilesListed = 0;  // files named by the font catalog
  std::uint64_t filteredHits = 0;     // distinct products left out by the filter list
};

// Sorts the findings (maker, then product, then version, letter case and
// digit runs compared as people read them) and sums them per group.
void finishResult(AuditResult& result);

}  // namespace quarvel::audit
