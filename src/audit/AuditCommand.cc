#include "audit/AuditCommand.h"

#include <unistd.h>

#include <ctime>
#include <memory>
#include <utility>

#include "audit/ProgressLine.h"
#include "audit/ReportSpool.h"
#include "audit/ReportSubmitter.h"
#include "common/FileReplacement.h"
#include "common/Platform.h"
#include "quarvel/CVUserDefaults.h"

namespace quarvel::audit {

namespace {

using PathGetter = std::optional<std::string> (CVUserDefaults::*)() const;

// Opens one list, from the path given or else from the settings' library
// folder. A list that cannot be opened is noted on `err`; `namedFailed` is set
// when the user named it.
template <class Source>
std::unique_ptr<Source> openList(const char* what, const std::optional<std::string>& given,
                                 PathGetter fallback,
                                 std::unique_ptr<Source> (*open)(const std::string&),
                                 std::ostream& err, bool& namedFailed) {
  std::optional<std::string> path = given;
  if (!path) path = (CVUserDefaults::standardUserDefaults()->*fallback)();
  if (!path) return nullptr;
  std::unique_ptr<Source> list = open(*path);
  if (!list) {
    err << "audit: cannot open the " << what << " " << *path << "\n";
    if (given) namedFailed = true;
  }
  return list;
}

std::string localTimeStamp() {
  std::time_t now = std::chrono::system_clock::to_time_t(Platform::current()->wallNow());
  std::tm local{};
  ::localtime_r(&now, &local);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%d %H:%M", &local);
  return text;
}

std::string hostName() {
  char name[256] = {};
  if (::gethostname(name, sizeof name - 1) != 0) return "";
  return name;
}

// Sends the spool (with `report`, already in it or, when it could not be
// kept, sent on its own first) and answers the exit status.
int deliverReports(const AuditCommandOptions& options, const Collector& collector,
                   const std::optional<std::pair<std::string, std::string>>& report,
                   std::ostream& err) {
  std::optional<std::string> folder = options.spoolFolder;
  if (!folder) folder = ReportSpool::defaultFolder();
  std::optional<ReportSpool> spool;
  if (folder) spool.emplace(*folder);
  if (report && (!spool || !spool->add(report->first, report->second))) {
    // Without a place to keep it, the report has this one chance.
    const DeliveryAnswer answer = postReport(collector, report->first, report->second);
    if (answer.delivery != Delivery::Delivered) {
      err << "audit: the report could not be spooled nor delivered (" << answer.detail << ")\n";
      return 1;
    }
    err << "audit: report " << report->first << " delivered without being spooled\n";
  }
  if (!spool) {
    err << "audit: no work folder for the report spool\n";
    return 1;
  }
  const FlushOutcome outcome = flushSpool(*spool, collector, options.spoolWait);
  if (options.summary || outcome.left || outcome.refused) {
    err << "audit: " << outcome.delivered << " reports delivered";
    if (outcome.refused)
      err << ", " << outcome.refused << " refused (kept in " << spool->rejectedFolder() << ")";
    err << ", " << outcome.left << " waiting in " << spool->folder();
    if (outcome.busy) err << " (another audit is sending them)";
    if (!outcome.stopReason.empty()) err << " (" << outcome.stopReason << ")";
    err << "\n";
  }
  if (outcome.left) return kAuditExitNotDelivered;
  if (outcome.refused) return kAuditExitRefused;
  return 0;
}

}  // namespace

int runAudit(const AuditCommandOptions& options, std::ostream& out, std::ostream& err,
             std::FILE* progressStream) {
  std::optional<Collector> collector;
  if (options.submitUrl) {
    std::string error;
    std::optional<std::string> secret =
        options.secretFile ? readSecretFile(*options.secretFile, error) : std::nullopt;
    if (!secret) {
      err << "audit: " << (options.secretFile ? error : "no secret file") << "\n";
      return 1;
    }
    collector = Collector{.url = *options.submitUrl,
                          .secret = std::move(*secret),
                          .idleTimeout = options.collectorIdleTimeout};
    if (options.flushOnly) return deliverReports(options, *collector, std::nullopt, err);
  }

  // The settings object is created only when a list is not named, since its
  // start-up makes the work folders.
  bool namedListFailed = false;
  auto checkList = openList("check list", options.checkList, &CVUserDefaults::checkListFilePath,
                            openCheckListFile, err, namedListFailed);
  auto userCheckList =
      openList("user check list", options.userCheckList, &CVUserDefaults::userCheckListFilePath,
               openCheckListFile, err, namedListFailed);
  auto filter = openList("filter list", options.filterList, &CVUserDefaults::filterFilePath,
                         openFilterFile, err, namedListFailed);
  std::unique_ptr<ListSource> fontList;
  if (options.fonts)
    fontList = openList("font check list", options.fontList, &CVUserDefaults::fontListFilePath,
                        openFontListFile, err, namedListFailed);
  if (namedListFailed) return 1;
  if (!checkList && !userCheckList && !fontList) {
    err << "audit: no list to compare with\n";
    return 1;
  }

  ScanPlan plan;
  if (options.trees.empty() || options.alsoSystem)
    plan = systemScanPlan(options.environment.value_or(ScanEnvironment::current()));
  plan.trees = options.trees;
  plan.treeDepth = options.treeDepth;

  std::unique_ptr<FontconfigCatalog> fontconfig;
  if (options.fonts && (options.trees.empty() || options.alsoSystem)) {
    plan.fontCatalog = options.fontCatalog;
    if (!plan.fontCatalog) {
      fontconfig = std::make_unique<FontconfigCatalog>();
      plan.fontCatalog = fontconfig.get();
    }
  }

  Auditor auditor({.checkList = checkList.get(),
                   .userCheckList = userCheckList.get(),
                   .fontList = fontList.get(),
                   .filter = filter.get()});
  ProgressLine progress(progressStream, options.progress && progressStream &&
                                            ::isatty(::fileno(progressStream)) == 1);
  if (progress.enabled()) auditor.setProgress([&](const ScanStats& s) { progress.update(s); });
  const auto scannedAt = Platform::current()->wallNow();
  AuditResult result = auditor.run(plan);
  progress.finish();

  out << formatReport(result, options.format);
  if (options.summary) {
    err << "audit: " << result.stats.files << " files in " << result.stats.folders
        << " folders scanned";
    if (result.fontFilesListed) err << ", " << result.fontFilesListed << " font files listed";
    err << ", " << result.stats.unreadableFolders << " unreadable folders skipped, "
        << result.filteredHits << " filtered\n";
  }

  int status = 0;
  if (options.htmlFile) {
    ReportOptions page;
    page.generatedAt = localTimeStamp();
    page.host = hostName();
    if (!FileReplacement::replace(*options.htmlFile, formatHtml(result, page))) {
      err << "audit: cannot write " << *options.htmlFile << "\n";
      status = 1;  // the report is still delivered
    }
  }

  if (collector) {
    std::optional<std::string> reportId = newReportId();
    if (!reportId) {
      err << "audit: no random bytes for a report id\n";
      return 1;
    }
    auto versionOf = [](auto& list) { return list ? list->headerVersion() : std::nullopt; };
    FleetReportInfo info{.reportId = *reportId,
                         .machine = options.machine ? *options.machine : gatherMachineFacts(),
                         .scannedAt = scannedAt,
                         .lists = {.checkList = versionOf(checkList),
                                   .userCheckList = versionOf(userCheckList),
                                   .filter = versionOf(filter),
                                   .font = versionOf(fontList)}};
    const int delivered = deliverReports(
        options, *collector, std::make_pair(*reportId, formatFleetReport(result, info)), err);
    if (status == 0) status = delivered;
  }
  return status;
}

}  // namespace quarvel::audit
