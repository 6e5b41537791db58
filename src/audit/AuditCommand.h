#pragma once
// `quarvel audit`: scans, matches and reports (the command line only parses
// into AuditCommandOptions).

#include <cstdio>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "audit/AuditReport.h"
#include "audit/Auditor.h"

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
};

// Runs the audit and writes the report to `out`, notes and the scan summary
// to `err`. Answers the exit status: 0 done, 1 no list could be opened, a
// list named by an option could not, or the HTML file could not be written.
int runAudit(const AuditCommandOptions& options, std::ostream& out, std::ostream& err,
             std::FILE* progressStream = stderr);

}  // namespace quarvel::audit
