#include "server/ReportSchema.h"

#include <rapidjson/document.h>
#include <rapidjson/error/en.h>
#include <rapidjson/schema.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <cmath>
#include <cstdio>
#include <ctime>

namespace quarvel::server {

extern const std::string_view kReportSchemaText;

namespace {

using Document = rapidjson::Document;
using Value = rapidjson::Value;

// The compiled schema; the text is ours, so a failure to read it is a
// build fault and leaves every report refused rather than unchecked.
const rapidjson::SchemaDocument* compiledSchema() {
  struct Compiled {
    Document document;
    std::optional<rapidjson::SchemaDocument> schema;
    Compiled() {
      document.Parse(kReportSchemaText.data(), kReportSchemaText.size());
      if (!document.HasParseError()) schema.emplace(document);
    }
  };
  static const Compiled compiled;
  return compiled.schema ? &*compiled.schema : nullptr;
}

std::string text(const Value& value) { return {value.GetString(), value.GetStringLength()}; }

bool holdsNul(const std::string& value) { return value.find('\0') != std::string::npos; }

}  // namespace

std::string_view reportSchemaText() { return kReportSchemaText; }

int jsonNesting(std::string_view json, int limit) {
  int depth = 0;
  int deepest = 0;
  bool inString = false;
  for (std::size_t i = 0; i < json.size(); ++i) {
    const char c = json[i];
    if (inString) {
      if (c == '\\')
        ++i;
      else if (c == '"')
        inString = false;
    } else if (c == '"') {
      inString = true;
    } else if (c == '[' || c == '{') {
      deepest = std::max(deepest, ++depth);
      if (deepest > limit) return limit + 1;
    } else if ((c == ']' || c == '}') && depth > 0) {
      --depth;
    }
  }
  return deepest;
}

std::optional<std::int64_t> parseUtcTimestamp(std::string_view value) {
  int year, month, day, hour, minute, second;
  char zone = 0;
  const std::string copy(value);
  if (copy.size() != 20 ||
      std::sscanf(copy.c_str(), "%4d-%2d-%2dT%2d:%2d:%2d%c", &year, &month, &day, &hour, &minute,
                  &second, &zone) != 7 ||
      zone != 'Z')
    return std::nullopt;
  static constexpr int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
  if (year < 1970 || month < 1 || month > 12 || day < 1 ||
      day > kDays[month - 1] + (month == 2 && leap ? 1 : 0) || hour > 23 || minute > 59 ||
      second > 59)
    return std::nullopt;
  std::tm fields{};
  fields.tm_year = year - 1900;
  fields.tm_mon = month - 1;
  fields.tm_mday = day;
  fields.tm_hour = hour;
  fields.tm_min = minute;
  fields.tm_sec = second;
  return static_cast<std::int64_t>(::timegm(&fields));
}

std::string formatUtcTimestamp(std::int64_t seconds) {
  const auto time = static_cast<std::time_t>(seconds);
  std::tm fields{};
  ::gmtime_r(&time, &fields);
  char out[32];
  std::strftime(out, sizeof out, "%Y-%m-%dT%H:%M:%SZ", &fields);
  return out;
}

ReportReading readReport(std::string_view body) {
  ReportReading reading;
  // Checked first, so that neither the parser nor the document's
  // destructor, which recurse, ever meet a hostile depth.
  if (jsonNesting(body, kMaxReportNesting) > kMaxReportNesting) {
    reading.error = "nested too deeply";
    return reading;
  }
  Document document;
  document.Parse<rapidjson::kParseValidateEncodingFlag | rapidjson::kParseIterativeFlag>(
      body.data(), body.size());
  if (document.HasParseError()) {
    char where[64];
    std::snprintf(where, sizeof where, " at byte %zu", document.GetErrorOffset());
    reading.error =
        std::string("not JSON: ") + rapidjson::GetParseError_En(document.GetParseError()) + where;
    return reading;
  }
  const rapidjson::SchemaDocument* schema = compiledSchema();
  if (!schema) {
    reading.error = "the collector's schema is unreadable";
    return reading;
  }
  rapidjson::SchemaValidator validator(*schema);
  if (!document.Accept(validator)) {
    rapidjson::StringBuffer where;
    validator.GetInvalidDocumentPointer().StringifyUriFragment(where);
    reading.error = std::string("not a report: ") + validator.GetInvalidSchemaKeyword() + " at " +
                    where.GetString();
    return reading;
  }

  Report report;
  report.reportId = text(document["reportId"]);
  const Value& machine = document["machine"];
  report.hostName = text(machine["hostName"]);
  report.networkIdentity = text(machine["networkIdentity"]);
  report.osVersion = text(machine["osVersion"]);
  report.scannedAt = text(document["scannedAt"]);
  const auto scanned = parseUtcTimestamp(report.scannedAt);
  if (!scanned) {
    reading.error = "scannedAt is not a date";
    return reading;
  }
  report.scannedAtSeconds = *scanned;
  rapidjson::StringBuffer lists;
  rapidjson::Writer<rapidjson::StringBuffer> writer(lists);
  document["lists"].Accept(writer);
  report.listsJson = lists.GetString();
  bool nul = holdsNul(report.hostName) || holdsNul(report.networkIdentity) ||
             holdsNul(report.osVersion) || report.listsJson.find("\\u0000") != std::string::npos;

  const Value& findings = document["findings"];
  report.findings.reserve(findings.Size());
  for (const Value& item : findings.GetArray()) {
    ReportFinding finding;
    finding.kind = text(item["kind"]);
    finding.list = text(item["list"]);
    finding.record = item["record"].GetInt64();
    finding.id = text(item["id"]);
    finding.maker = text(item["maker"]);
    finding.product = text(item["product"]);
    finding.version = text(item["version"]);
    const Value& price = item["price"];
    // The schema bounds the amount, so hundredths fit with room to sum.
    if (price.IsNumber()) finding.priceHundredths = std::llround(price.GetDouble() * 100.0);
    finding.priceText = text(item["priceText"]);
    finding.type = text(item["type"]);
    finding.group = text(item["group"]);
    for (const Value& place : item["where"].GetArray()) finding.where.push_back(text(place));
    for (const std::string* field :
         {&finding.list, &finding.id, &finding.maker, &finding.product, &finding.version,
          &finding.priceText, &finding.type, &finding.group})
      nul = nul || holdsNul(*field);
    for (const std::string& place : finding.where) nul = nul || holdsNul(place);
    report.findings.push_back(std::move(finding));
  }
  if (nul) {
    reading.error = "a text holds U+0000";
    return reading;
  }
  reading.report = std::move(report);
  return reading;
}

}  // namespace quarvel::server
