#include <iostream>

#include "Commands.h"
#include "StandardStreams.h"
#include "audit/AuditCommand.h"
#include "format/DataFileFormat.h"

namespace quarvel::cli {

void addAuditCommand(CLI::App& app) {
  auto options = std::make_shared<audit::AuditCommandOptions>();
  auto json = std::make_shared<bool>(false);
  auto csv = std::make_shared<bool>(false);
  auto noFonts = std::make_shared<bool>(false);
  auto noProgress = std::make_shared<bool>(false);
  auto flushUrl = std::make_shared<std::optional<std::string>>();
  CLI::App* cmd = app.add_subcommand(
      "audit", "Look for listed commercial software and fonts on this machine (or in PATHs)");
  cmd->add_option("PATH", options->trees,
                  "Trees to scan instead of the usual places (every file is a candidate)");
  cmd->add_flag("--system", options->alsoSystem, "With PATHs: scan the usual places as well");
  cmd->add_option("--max-depth", options->treeDepth, "Folder levels scanned below each PATH")
      ->check(CLI::Range(0, 1000));
  cmd->add_option("--checklist", options->checkList, "Check list file (default: library folder)");
  cmd->add_option("--user-checklist", options->userCheckList, "User check list file");
  cmd->add_option("--filter", options->filterList, "Filter list file");
  cmd->add_option("--fontlist", options->fontList, "Font check list file");
  cmd->add_flag("--no-fonts", *noFonts, "Do not look for fonts");
  auto* jsonFlag = cmd->add_flag("--json", *json, "Report as JSON");
  auto* csvFlag = cmd->add_flag("--csv", *csv, "Report as CSV");
  jsonFlag->excludes(csvFlag);
  cmd->add_option("--html", options->htmlFile, "Also write the report as an HTML page to FILE");
  cmd->add_flag("--no-progress", *noProgress, "No progress line on standard error");
  auto* submit = cmd->add_option("--submit", options->submitUrl,
                                 "Also send the report to the collector at URL (reports still "
                                 "waiting in the spool go first)");
  auto* flush = cmd->add_option("--flush", *flushUrl,
                                "Only send the reports waiting in the spool to the collector at "
                                "URL; nothing is scanned");
  auto* secret = cmd->add_option("--secret-file", options->secretFile,
                                 "The site's enrolment secret, for --submit and --flush");
  flush->excludes(submit);
  submit->needs(secret);
  flush->needs(secret);
  cmd->footer(
      "Exit status: 0 done, 1 a list could not be opened, the HTML page could not be "
      "written, or the secret file is unusable, 2 usage error, 3 a report could not be "
      "delivered and waits in the spool for the next --submit or --flush, 4 the collector "
      "refused a report for good (kept in the spool's rejected folder). The report is "
      "printed whatever the delivery's outcome. A list option may be - for standard input.");
  cmd->callback([options, json, csv, noFonts, noProgress, flushUrl] {
    if (*flushUrl) {
      options->submitUrl = *flushUrl;
      options->flushOnly = true;
    }
    options->format = *json  ? audit::ReportFormat::Json
                      : *csv ? audit::ReportFormat::Csv
                             : audit::ReportFormat::Table;
    options->fonts = !*noFonts;
    const bool quiet = verbosity() == Verbosity::kQuiet;
    options->progress = !*noProgress && !quiet;
    options->summary = !quiet;
    for (std::optional<std::string>* list :
         {&options->checkList, &options->userCheckList, &options->filterList, &options->fontList}) {
      if (!*list) continue;
      *list = inputPath(**list, datafile::kMaxFileBytes, std::cerr);
      if (!*list) throw CLI::RuntimeError(1);
    }
    int status = audit::runAudit(*options, std::cout, std::cerr);
    std::cout.flush();
    if (status != 0) throw CLI::RuntimeError(status);
  });
}

}  // namespace quarvel::cli
