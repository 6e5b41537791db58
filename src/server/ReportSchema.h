#pragma once
// The audit report a machine submits to the collector: its reading from a
// request body, validated against the JSON Schema kept beside this file
// (report.schema.json, compiled in), and the parts of it the store keeps.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "format/DataFileFormat.h"

namespace quarvel::server {

// The largest request body the collector reads, a report included: the
// same bound the sending side keeps.
inline constexpr std::size_t kMaxReportBytes = datafile::kMaxReportBytes;
// Arrays and objects nested deeper than this are refused before parsing.
inline constexpr int kMaxReportNesting = 32;

struct ReportFinding {
  std::string kind;  // "software" or "font"
  std::string list;
  std::int64_t record = -1;
  std::string id;
  std::string maker;
  std::string product;
  std::string version;
  std::optional<std::int64_t> priceHundredths;  // nothing for a null price
  std::string priceText;
  std::string type;
  std::string group;
  std::vector<std::string> where;
};

struct Report {
  std::string reportId;  // lower-case UUID v4
  std::string hostName;
  std::string networkIdentity;
  std::string osVersion;
  std::string scannedAt;                // as sent: "YYYY-MM-DDTHH:MM:SSZ"
  std::int64_t scannedAtSeconds = 0;    // the same, in seconds since 1970
  std::string listsJson;                // the "lists" object, compact JSON
  std::vector<ReportFinding> findings;  // in the order sent
};

// A report read from `body`, or why it was refused (a text fit to send back
// in a 400 answer): not UTF-8 JSON, nested deeper than kMaxReportNesting,
// not valid against the schema, an impossible date, or a text holding
// U+0000 (which PostgreSQL cannot store). Pure and thread-safe; the
// compiled schema is shared, built on first use.
struct ReportReading {
  std::optional<Report> report;
  std::string error;
};
ReportReading readReport(std::string_view body);

// The schema document as compiled in.
std::string_view reportSchemaText();

// The deepest nesting of arrays and objects in `json`, counting strings
// as flat; stops counting past `limit` and answers limit + 1. Does not
// validate the text.
int jsonNesting(std::string_view json, int limit);

// "YYYY-MM-DDTHH:MM:SSZ" in seconds since 1970; nothing when a field is out
// of range (month 13, 31 February, hour 24).
std::optional<std::int64_t> parseUtcTimestamp(std::string_view text);
// Seconds since 1970 as "YYYY-MM-DDTHH:MM:SSZ".
std::string formatUtcTimestamp(std::int64_t seconds);

}  // namespace quarvel::server
