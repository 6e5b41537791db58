#pragma once
// The report a machine sends to its organisation's collector: the audit's
// JSON (findings, totals, scan) with the machine, the scan time, the lists'
// versions and a report id that makes a repeated delivery harmless.
//
// Every function may be called from any thread, but gatherMachineFacts()
// starts the shared settings object when it is not running yet, which must
// then happen on one thread first (see CVUserDefaults).

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

#include "audit/AuditResult.h"

namespace quarvel::audit {

struct MachineFacts {
  std::string hostName;
  std::string networkIdentity;  // the settings' text, "<br>" line ends
  std::string osVersion;
};

// The "#HEADER" Version of each list used; nothing for a list not used.
struct ListVersions {
  std::optional<std::string> checkList;
  std::optional<std::string> userCheckList;
  std::optional<std::string> filter;
  std::optional<std::string> font;
};

struct FleetReportInfo {
  std::string reportId;  // newReportId()
  MachineFacts machine;
  std::chrono::system_clock::time_point scannedAt;
  ListVersions lists;
};

// This machine's facts: the host name (gethostname), the settings' network
// identity text (may wait up to two seconds for the external address when
// it is not cached yet) and CommonLib's system version. A fact that cannot
// be had is "".
MachineFacts gatherMachineFacts();

// A random (version 4) UUID in lower-case hex, 36 characters, from
// getrandom(2); nothing when the system gives no random bytes.
std::optional<std::string> newReportId();

// Whether `text` is a version-4 UUID in lower-case hex, as newReportId()
// makes them; spool file names are checked with it.
bool isReportId(std::string_view text);

// "2026-11-25T04:12:00Z": the time in UTC to the second, RFC 3339.
std::string utcTimeStamp(std::chrono::system_clock::time_point when);

// The report's JSON text (UTF-8; bytes of a file name that are not UTF-8
// become U+FFFD, as in the audit's own JSON). Members, in order: format,
// reportId, machine, scannedAt, lists, then findings, totals and scan
// exactly as formatJson() writes them.
std::string formatFleetReport(const AuditResult& result, const FleetReportInfo& info);

}  // namespace quarvel::audit
