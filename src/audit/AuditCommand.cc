#include "audit/AuditCommand.h"

#include <unistd.h>

#include <ctime>
#include <memory>

#include "audit/ProgressLine.h"
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

}  // namespace

int runAudit(const AuditCommandOptions& options, std::ostream& out, std::ostream& err,
             std::FILE* progressStream) {
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

  if (options.htmlFile) {
    ReportOptions page;
    page.generatedAt = localTimeStamp();
    page.host = hostName();
    if (!FileReplacement::replace(*options.htmlFile, formatHtml(result, page))) {
      err << "audit: cannot write " << *options.htmlFile << "\n";
      return 1;
    }
  }
  return 0;
}

}  // namespace quarvel::audit
