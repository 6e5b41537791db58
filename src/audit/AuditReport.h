#pragma once
// The audit's report in four formats. All answer UTF-8 text.
//
// Every format carries one row per finding (maker, product, version, price,
// software type, group, where found; several places joined by "; ") and the
// totals: count and price sum per group and overall.

#include <string>
#include <string_view>
#include <vector>

#include "audit/AuditResult.h"

namespace quarvel::audit {

enum class ReportFormat { Table, Json, Csv, Html };

struct ReportOptions {
  std::string title = "Quarvel audit";
  std::string generatedAt;  // shown in the page heading when not empty
  std::string host;         // likewise
};

// Columns aligned for a terminal (wide Hangul and CJK letters count two
// cells), prices right-aligned and grouped by thousands; then the totals.
std::string formatTable(const AuditResult& result);

// {"findings":[...], "totals":{"groups":[...],"count":n,"price":p},
//  "scan":{...}}; prices are numbers (null when the list's text is not one),
// "priceText" keeps the list's text.
std::string formatJson(const AuditResult& result);

// RFC 4180 with a header; the first column says what a row is: "finding",
// "group" (a group's count and price sum) or "total".
std::string formatCsv(const AuditResult& result);

// A self-contained page (no scripts, no outside resources): an inline SVG
// bar chart of the price sum per maker, the totals, then the findings.
std::string formatHtml(const AuditResult& result, const ReportOptions& options = {});

std::string formatReport(const AuditResult& result, ReportFormat format,
                         const ReportOptions& options = {});

// Pieces of the page and the CSV above, for other pages and exports that
// should look and quote the same way (the collector's overview).
//
// `text` with &, <, >, " and ' replaced by their character references.
std::string escapeHtml(std::string_view text);
// One RFC 4180 line of `cells`, quoted where needed, ending in CRLF.
std::string csvRow(const std::vector<std::string>& cells);
// The page's style sheet (the body of its <style> element).
std::string_view pageStyle();
// An inline SVG bar chart, one labelled bar per entry in the order given,
// bars scaled to the largest value; `label` names the chart for screen
// readers. An empty label shows as "(none)".
struct ChartBar {
  std::string label;
  Money value;
};
std::string barChartSvg(const std::vector<ChartBar>& bars, std::string_view label);

// Terminal cells the text takes: 2 for East Asian wide and full-width
// letters, 0 for combining marks and controls, 1 otherwise.
std::size_t displayWidth(std::string_view text);

}  // namespace quarvel::audit
