#pragma once
// `quarvel audit`: scans, matches and reports (the command line only parses
// into AuditCommandOptions).

#include <chrono>
#include <cstdio>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "audit/AuditReport.h"
#include "audit/Auditor.h"
#include "audit/FleetReport.h"

namespace quarvel::audit {

struct AuditCommandOptions {
  // Trees to scan. None: the usual places of the machine.
  std::vector<std::string> trees;
  bool alsoSystem = false;  // with trees: scan the usual places as well
  int treeDepth = 40;
  // List files (full paths). Absent: the settings' library folder.
  std::optional<std::string> checkList;
  std::optional<std::string> userCheckList;
  std::optional<std::string> filterList;
  std::optional<std::string> fontList;
  bool fonts = true;  // look for fonts at all
  ReportFormat format = ReportFormat::Table;
  std::optional<std::string> htmlFile;  // also write the page there, replaced whole
  bool progress = true;                 // on standard error when it is a terminal
  bool summary = true;                  // the scan's counts as a note on `err`
  // Where a system scan looks (tests set these); defaults to the process's.
  std::optional<ScanEnvironment> environment;
  FontCatalog* fontCatalog = nullptr;  // null: fontconfig (system scans only)

  // Delivery to the organisation's collector: with `submitUrl` and
  // `secretFile` the report is also sent there (spooled first, after the
  // reports still waiting); with `flushOnly` too, only the waiting reports
  // are sent and nothing is scanned.
  std::optional<std::string> submitUrl;
  std::optional<std::string> secretFile;
  bool flushOnly = false;
  std::optional<std::string> spoolFolder;  // default: ReportSpool::defaultFolder()
  std::optional<MachineFacts> machine;     // default: gatherMachineFacts()
  std::chrono::milliseconds collectorIdleTimeout{std::chrono::seconds(15)};
  // How long to wait for another audit that is sending from the spool.
  std::chrono::milliseconds spoolWait{std::chrono::seconds(30)};
};

// Exit statuses of delivery, beside 0 and 1.
inline constexpr int kAuditExitNotDelivered = 3;  // a report waits in the spool
inline constexpr int kAuditExitRefused = 4;       // a report was refused for good

// Runs the audit and writes the report to `out`, notes and the scan summary
// to `err`. Answers the exit status: 0 done, 1 no list could be opened, a
// list named by an option could not, the HTML file could not be written, or
// (when delivering) the secret file is unusable or the report could neither
// be delivered nor kept; kAuditExitNotDelivered when a report (this one or
// an earlier) stays in the spool for a later attempt; kAuditExitRefused when
// everything left the spool but a report was refused (kept in rejected/).
int runAudit(const AuditCommandOptions& options, std::ostream& out, std::ostream& err,
             std::FILE* progressStream = stderr);

}  // namespace quarvel::audit
