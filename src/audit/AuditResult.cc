#include "audit/AuditResult.h"

#include <algorithm>
#include <limits>
#include <map>

#include "common/StringUtil.h"
#include "common/TextCompare.h"

namespace quarvel::audit {

std::optional<Money> Money::parse(std::string_view text) {
  std::string trimmed = trimWhitespace(text);
  std::string_view s = trimmed;
  bool negative = false;
  if (!s.empty() && s.front() == '-') {
    negative = true;
    s.remove_prefix(1);
  }
  if (s.empty()) return std::nullopt;
  constexpr std::int64_t kLimit = std::numeric_limits<std::int64_t>::max() / 1000;
  std::int64_t whole = 0;
  std::size_t i = 0;
  bool digits = false;
  for (; i < s.size() && s[i] != '.'; ++i) {
    if (s[i] == ',') {
      if (!digits) return std::nullopt;
      continue;
    }
    if (s[i] < '0' || s[i] > '9' || whole > kLimit) return std::nullopt;
    whole = whole * 10 + (s[i] - '0');
    digits = true;
  }
  if (!digits) return std::nullopt;
  std::int64_t fraction = 0;
  if (i < s.size()) {  // the decimal point
    std::string_view decimals = s.substr(i + 1);
    if (decimals.empty() || decimals.size() > 2) return std::nullopt;
    for (char c : decimals) {
      if (c < '0' || c > '9') return std::nullopt;
      fraction = fraction * 10 + (c - '0');
    }
    if (decimals.size() == 1) fraction *= 10;
  }
  std::int64_t value = whole * 100 + fraction;
  return Money{negative ? -value : value};
}

std::string Money::toString(bool grouped) const {
  std::uint64_t magnitude = hundredths < 0 ? 0 - static_cast<std::uint64_t>(hundredths)
                                           : static_cast<std::uint64_t>(hundredths);
  std::string whole = std::to_string(magnitude / 100);
  if (grouped) {
    for (int at = static_cast<int>(whole.size()) - 3; at > 0; at -= 3)
      whole.insert(static_cast<std::size_t>(at), 1, ',');
  }
  std::string out = hundredths < 0 ? "-" + whole : whole;
  if (magnitude % 100 != 0) {
    unsigned cents = static_cast<unsigned>(magnitude % 100);
    out += '.';
    out += static_cast<char>('0' + cents / 10);
    out += static_cast<char>('0' + cents % 10);
  }
  return out;
}

void finishResult(AuditResult& result) {
  auto before = [](const Finding& a, const Finding& b) {
    for (auto field : {&Finding::maker, &Finding::product, &Finding::version, &Finding::list}) {
      int order = compareCaselessNumeric(a.*field, b.*field);
      if (order != 0) return order < 0;
    }
    if (a.kind != b.kind) return a.kind < b.kind;
    return a.record < b.record;
  };
  std::sort(result.findings.begin(), result.findings.end(), before);

  auto groupBefore = [](const std::string& a, const std::string& b) {
    int order = compareCaselessNumeric(a, b);
    return order != 0 ? order < 0 : a < b;
  };
  std::map<std::string, GroupTotal, decltype(groupBefore)> groups(groupBefore);
  AuditTotals totals;
  for (const Finding& finding : result.findings) {
    GroupTotal& group = groups[finding.group];
    group.group = finding.group;
    ++group.count;
    ++totals.count;
    if (finding.price) {
      group.price.hundredths += finding.price->hundredths;
      totals.price.hundredths += finding.price->hundredths;
    }
  }
  for (auto& [name, group] : groups) totals.groups.push_back(group);
  result.totals = std::move(totals);
}

}  // namespace quarvel::audit
