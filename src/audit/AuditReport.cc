#include "audit/AuditReport.h"

#include <unicode/uchar.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>

#include "common/StringUtil.h"
#include "common/TextCompare.h"

namespace quarvel::audit {

namespace {

const char* kindName(FindingKind kind) { return kind == FindingKind::Font ? "font" : "software"; }

std::string placesText(const Finding& finding) { return join(finding.places, "; "); }

std::string priceCell(const Finding& finding, bool grouped) {
  return finding.price ? finding.price->toString(grouped) : finding.priceText;
}

std::string groupLabel(const std::string& group) { return group.empty() ? "(none)" : group; }

// --- Table ----------------------------------------------------------------------

struct Column {
  std::string title;
  bool rightAligned = false;
};

std::string alignedRows(const std::vector<Column>& columns,
                        const std::vector<std::vector<std::string>>& rows) {
  std::vector<std::size_t> widths;
  widths.reserve(columns.size());
  for (const Column& column : columns) widths.push_back(displayWidth(column.title));
  for (const auto& row : rows)
    for (std::size_t i = 0; i < row.size(); ++i)
      widths[i] = std::max(widths[i], displayWidth(row[i]));

  auto emit = [&](std::string& out, const std::vector<std::string>& cells) {
    std::string line;
    for (std::size_t i = 0; i < cells.size(); ++i) {
      if (i) line += "  ";
      std::string padding(widths[i] - displayWidth(cells[i]), ' ');
      line += columns[i].rightAligned ? padding + cells[i] : cells[i] + padding;
    }
    while (!line.empty() && line.back() == ' ') line.pop_back();
    out += line + "\n";
  };
  std::string out;
  std::vector<std::string> titles;
  std::vector<std::string> rules;
  for (std::size_t i = 0; i < columns.size(); ++i) {
    titles.push_back(columns[i].title);
    rules.push_back(std::string(widths[i], '-'));
  }
  emit(out, titles);
  emit(out, rules);
  for (const auto& row : rows) emit(out, row);
  return out;
}

// --- CSV --------------------------------------------------------------------------

std::string csvField(const std::string& value) {
  bool quote = value.find_first_of(",\"\r\n") != std::string::npos ||
               (!value.empty() && (value.front() == ' ' || value.back() == ' '));
  if (!quote) return value;
  std::string out = "\"";
  for (char c : value) {
    if (c == '"') out += '"';
    out += c;
  }
  return out + "\"";
}

}  // namespace

std::string csvRow(const std::vector<std::string>& cells) {
  std::string line;
  for (std::size_t i = 0; i < cells.size(); ++i) {
    if (i) line += ',';
    line += csvField(cells[i]);
  }
  return line + "\r\n";
}

// --- HTML -------------------------------------------------------------------------

std::string escapeHtml(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      case '\'':
        out += "&#39;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

namespace {

// Cuts the text to at most `cells` terminal cells, ending it with an ellipsis.
std::string shorten(const std::string& text, std::size_t cells) {
  if (displayWidth(text) <= cells) return text;
  std::string out;
  std::size_t used = 0;
  std::int32_t i = 0;
  const auto length = static_cast<std::int32_t>(text.size());
  while (i < length) {
    std::int32_t start = i;
    UChar32 c;
    U8_NEXT(text.data(), i, length, c);
    std::string piece =
        text.substr(static_cast<std::size_t>(start), static_cast<std::size_t>(i - start));
    std::size_t width = displayWidth(piece);
    if (used + width + 1 > cells) break;
    out += piece;
    used += width;
  }
  return out + "\u2026";
}

struct MakerSum {
  std::string maker;
  Money sum;
};

std::vector<MakerSum> sumsByMaker(const AuditResult& result) {
  std::map<std::string, Money> sums;
  for (const Finding& finding : result.findings)
    sums[finding.maker].hundredths += finding.price ? finding.price->hundredths : 0;
  std::vector<MakerSum> out;
  out.reserve(sums.size());
  for (const auto& [maker, sum] : sums) out.push_back({maker, sum});
  std::stable_sort(out.begin(), out.end(), [](const MakerSum& a, const MakerSum& b) {
    if (a.sum.hundredths != b.sum.hundredths) return a.sum.hundredths > b.sum.hundredths;
    return compareCaselessNumeric(a.maker, b.maker) < 0;
  });
  return out;
}

constexpr const char* kPageStyle =
    R"(body{font-family:"Noto Sans CJK KR","NanumGothic","DejaVu Sans",sans-serif;margin:24px;color:#1d2733;background:#fff}
h1{font-size:22px;margin:0 0 4px}h2{font-size:17px;margin:28px 0 8px}
.meta{color:#5b6773;font-size:13px;margin:0}
table{border-collapse:collapse;font-size:13px}
th,td{border-bottom:1px solid #d9dee3;padding:5px 10px;text-align:left;vertical-align:top}
th{background:#eef2f6}td.num,th.num{text-align:right;font-variant-numeric:tabular-nums}
tr.total td{font-weight:bold;border-top:2px solid #8a96a3}
td.where{color:#5b6773;font-size:12px;word-break:break-all;max-width:360px}
.chart text{font-size:12px;fill:#1d2733}.chart rect.bar{fill:#3b7dd8}
)";

std::vector<ChartBar> makerBars(const AuditResult& result) {
  std::vector<ChartBar> bars;
  for (MakerSum& s : sumsByMaker(result)) bars.push_back({std::move(s.maker), s.sum});
  return bars;
}

constexpr int kChartLabelWidth = 220;
constexpr int kChartBarWidth = 460;
constexpr int kChartValueWidth = 130;
constexpr int kChartRowHeight = 26;

}  // namespace

std::string_view pageStyle() { return kPageStyle; }

std::string barChartSvg(const std::vector<ChartBar>& bars, std::string_view label) {
  std::int64_t largest = 0;
  for (const ChartBar& bar : bars) largest = std::max(largest, bar.value.hundredths);
  const int width = kChartLabelWidth + kChartBarWidth + kChartValueWidth;
  const int height = static_cast<int>(bars.size()) * kChartRowHeight + 8;
  std::string svg = "<svg class=\"chart\" xmlns=\"http://www.w3.org/2000/svg\" width=\"" +
                    std::to_string(width) + "\" height=\"" + std::to_string(height) +
                    "\" role=\"img\" aria-label=\"" + escapeHtml(label) + "\">\n";
  int y = 4;
  for (const ChartBar& bar : bars) {
    long long barWidth = 0;
    if (largest > 0 && bar.value.hundredths > 0)
      barWidth = std::max<long long>(
          1, static_cast<long long>(static_cast<long double>(bar.value.hundredths) *
                                    kChartBarWidth / static_cast<long double>(largest)));
    const std::string value = bar.value.toString(true);
    const std::string name = bar.label.empty() ? "(none)" : bar.label;
    const int middle = y + kChartRowHeight / 2;
    svg += "<g><title>" + escapeHtml(name) + ": " + value + "</title>";
    svg += "<text x=\"" + std::to_string(kChartLabelWidth - 8) + "\" y=\"" +
           std::to_string(middle) + "\" text-anchor=\"end\" dominant-baseline=\"middle\">" +
           escapeHtml(shorten(name, 30)) + "</text>";
    svg += "<rect class=\"bar\" x=\"" + std::to_string(kChartLabelWidth) + "\" y=\"" +
           std::to_string(y + 4) + "\" width=\"" + std::to_string(barWidth) + "\" height=\"" +
           std::to_string(kChartRowHeight - 8) + "\"/>";
    svg += "<text x=\"" + std::to_string(kChartLabelWidth + barWidth + 6) + "\" y=\"" +
           std::to_string(middle) + "\" dominant-baseline=\"middle\">" + escapeHtml(value) +
           "</text></g>\n";
    y += kChartRowHeight;
  }
  return svg + "</svg>\n";
}

std::size_t displayWidth(std::string_view text) {
  std::size_t cells = 0;
  std::int32_t i = 0;
  const auto length = static_cast<std::int32_t>(text.size());
  while (i < length) {
    UChar32 c;
    U8_NEXT(text.data(), i, length, c);
    if (c < 0) {
      ++cells;
      continue;
    }
    const auto category = u_charType(c);
    if (category == U_NON_SPACING_MARK || category == U_ENCLOSING_MARK ||
        category == U_CONTROL_CHAR || category == U_FORMAT_CHAR)
      continue;
    const auto width = u_getIntPropertyValue(c, UCHAR_EAST_ASIAN_WIDTH);
    cells += (width == U_EA_WIDE || width == U_EA_FULLWIDTH) ? 2 : 1;
  }
  return cells;
}

std::string formatTable(const AuditResult& result) {
  std::string out;
  if (result.findings.empty()) {
    out += "No findings.\n";
  } else {
    std::vector<std::vector<std::string>> rows;
    for (const Finding& f : result.findings)
      rows.push_back({f.maker, f.product, f.version, priceCell(f, true), f.softwareType, f.group,
                      placesText(f)});
    out += alignedRows(
        {{"Maker"}, {"Product"}, {"Version"}, {"Price", true}, {"Type"}, {"Group"}, {"Where"}},
        rows);
  }
  out += "\n";
  std::vector<std::vector<std::string>> totals;
  for (const GroupTotal& g : result.totals.groups)
    totals.push_back({groupLabel(g.group), std::to_string(g.count), g.price.toString(true)});
  totals.push_back(
      {"Total", std::to_string(result.totals.count), result.totals.price.toString(true)});
  out += alignedRows({{"Group"}, {"Count", true}, {"Price", true}}, totals);
  return out;
}

std::string formatJson(const AuditResult& result) {
  using Json = nlohmann::ordered_json;
  auto amount = [](const Money& money) -> Json {
    if (money.isWhole()) return money.hundredths / 100;
    return static_cast<double>(money.hundredths) / 100.0;
  };
  Json findings = Json::array();
  for (const Finding& f : result.findings) {
    findings.push_back({{"kind", kindName(f.kind)},
                        {"list", f.list},
                        {"record", f.record},
                        {"id", f.id},
                        {"maker", f.maker},
                        {"product", f.product},
                        {"version", f.version},
                        {"price", f.price ? amount(*f.price) : Json(nullptr)},
                        {"priceText", f.priceText},
                        {"type", f.softwareType},
                        {"group", f.group},
                        {"where", f.places}});
  }
  Json groups = Json::array();
  for (const GroupTotal& g : result.totals.groups)
    groups.push_back({{"group", g.group}, {"count", g.count}, {"price", amount(g.price)}});
  Json doc = {{"findings", std::move(findings)},
              {"totals",
               {{"groups", std::move(groups)},
                {"count", result.totals.count},
                {"price", amount(result.totals.price)}}},
              {"scan",
               {{"files", result.stats.files},
                {"folders", result.stats.folders},
                {"fontFilesListed", result.fontFilesListed},
                {"unreadableFolders", result.stats.unreadableFolders},
                {"unreadable", result.stats.unreadablePaths},
                {"loopsAvoided", result.stats.loopsAvoided},
                {"filteredHits", result.filteredHits}}}};
  // File names need not be UTF-8; bad bytes become U+FFFD rather than throw.
  return doc.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

std::string formatCsv(const AuditResult& result) {
  std::string out =
      csvRow({"Row", "Maker", "Product", "Version", "Price", "Type", "Group", "Where", "Count"});
  for (const Finding& f : result.findings)
    out += csvRow({"finding", f.maker, f.product, f.version, priceCell(f, false), f.softwareType,
                   f.group, placesText(f), ""});
  for (const GroupTotal& g : result.totals.groups)
    out +=
        csvRow({"group", "", "", "", g.price.toString(), "", g.group, "", std::to_string(g.count)});
  out += csvRow({"total", "", "", "", result.totals.price.toString(), "", "", "",
                 std::to_string(result.totals.count)});
  return out;
}

std::string formatHtml(const AuditResult& result, const ReportOptions& options) {
  std::string out =
      "<!DOCTYPE html>\n<html lang=\"ko\">\n<head>\n<meta charset=\"utf-8\">\n<title>" +
      escapeHtml(options.title) + "</title>\n<style>\n" + kPageStyle +
      "</style>\n</head>\n<body>\n<h1>" + escapeHtml(options.title) + "</h1>\n";
  std::vector<std::string> meta;
  if (!options.host.empty()) meta.push_back(options.host);
  if (!options.generatedAt.empty()) meta.push_back(options.generatedAt);
  meta.push_back(std::to_string(result.stats.files) + " files in " +
                 std::to_string(result.stats.folders) + " folders scanned, " +
                 std::to_string(result.stats.unreadableFolders) + " unreadable");
  out += "<p class=\"meta\">" + escapeHtml(join(meta, " \u00b7 ")) + "</p>\n";

  if (!result.findings.empty())
    out += "<h2>Price by maker</h2>\n" + barChartSvg(makerBars(result), "Price sum per maker");
  out +=
      "<h2>Totals</h2>\n<table class=\"totals\">\n<thead><tr><th>Group</th>"
      "<th class=\"num\">Count</th><th class=\"num\">Price</th></tr></thead>\n<tbody>\n";
  for (const GroupTotal& g : result.totals.groups)
    out += "<tr><td>" + escapeHtml(groupLabel(g.group)) + "</td><td class=\"num\">" +
           std::to_string(g.count) + "</td><td class=\"num\">" + g.price.toString(true) +
           "</td></tr>\n";
  out += "<tr class=\"total\"><td>Total</td><td class=\"num\">" +
         std::to_string(result.totals.count) + "</td><td class=\"num\">" +
         result.totals.price.toString(true) + "</td></tr>\n</tbody>\n</table>\n";

  out += "<h2>Findings</h2>\n";
  if (result.findings.empty()) {
    out += "<p>No findings.</p>\n";
  } else {
    out +=
        "<table class=\"findings\">\n<thead><tr><th>Maker</th><th>Product</th><th>Version</th>"
        "<th class=\"num\">Price</th><th>Type</th><th>Group</th><th>Where</th></tr></thead>\n"
        "<tbody>\n";
    for (const Finding& f : result.findings) {
      out += "<tr><td>" + escapeHtml(f.maker) + "</td><td>" + escapeHtml(f.product) + "</td><td>" +
             escapeHtml(f.version) + "</td><td class=\"num\">" + escapeHtml(priceCell(f, true)) +
             "</td><td>" + escapeHtml(f.softwareType) + "</td><td>" + escapeHtml(f.group) +
             "</td><td class=\"where\">" + escapeHtml(placesText(f)) + "</td></tr>\n";
    }
    out += "</tbody>\n</table>\n";
  }

  return out + "</body>\n</html>\n";
}

std::string formatReport(const AuditResult& result, ReportFormat format,
                         const ReportOptions& options) {
  switch (format) {
    case ReportFormat::Json:
      return formatJson(result);
    case ReportFormat::Csv:
      return formatCsv(result);
    case ReportFormat::Html:
      return formatHtml(result, options);
    case ReportFormat::Table:
      break;
  }
  return formatTable(result);
}

}  // namespace quarvel::audit
