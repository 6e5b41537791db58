#pragma once
// Scans the machine (or given trees) and matches what it finds with the lists.
//
// Software: executable files in the PATH folders and in the software trees
// (/opt, /usr/local), the programs of the Exec lines of desktop entries, and
// AppImages; each file name is looked up by "EXE_FILE" in the check list and
// in the user check list. A hit whose product (company, product, version,
// original file) is on the filter list is left out.
// Fonts: every font file the font catalog knows plus every file in the font
// folders, looked up by file name in the font check list.
//
// One finding per product: hits with the same company, product, version and
// original file (letter case ignored) merge into one finding that lists every
// place; a product on both check lists takes the check list's record.
//
// Only names that some list holds cost more than a name comparison: the
// executable bit of a file is checked after its name has matched.

#include <memory>
#include <string>
#include <vector>

#include "audit/AuditLists.h"
#include "audit/AuditResult.h"
#include "audit/FontCatalog.h"
#include "audit/TreeWalker.h"

namespace quarvel::audit {

// The lists to match with; any may be null (that list is not used). Borrowed:
// they must outlive the Auditor.
struct AuditSources {
  ListSource* checkList = nullptr;
  ListSource* userCheckList = nullptr;
  ListSource* fontList = nullptr;
  FilterSource* filter = nullptr;
};

// Where to look. Depths count folder levels below each root.
struct ScanPlan {
  std::vector<std::string> pathFolders;    // executables directly inside
  std::vector<std::string> softwareTrees;  // executables, down to softwareDepth
  int softwareDepth = 5;
  std::vector<std::string> desktopFolders;  // ".desktop" files
  int desktopDepth = 3;
  std::vector<std::string> appImageFolders;  // "*.AppImage", hidden folders skipped
  int appImageDepth = 3;
  std::vector<std::string> fontFolders;  // every file is a font candidate
  int fontDepth = 8;
  // Trees named by the user: every file is a candidate of every kind
  // (executable, AppImage, desktop entry, font).
  std::vector<std::string> trees;
  int treeDepth = 40;
  FontCatalog* fontCatalog = nullptr;  // borrowed; null: none
  std::vector<std::string> excluded{"/proc", "/sys", "/dev"};
};

// The environment a system scan plan is made from.
struct ScanEnvironment {
  std::string path;         // $PATH
  std::string home;         // $HOME
  std::string xdgDataHome;  // $XDG_DATA_HOME, "" when unset
  std::string xdgDataDirs;  // $XDG_DATA_DIRS, "" when unset
  static ScanEnvironment current();
};

// The usual places of a Linux machine: PATH folders, /opt and /usr/local,
// the applications folders of the data folders, Flatpak (system and user)
// and Snap exports, the home folder for AppImages, the font folders. The
// font catalog is left for the caller to set.
ScanPlan systemScanPlan(const ScanEnvironment& env);

class Auditor {
 public:
  explicit Auditor(const AuditSources& sources);
  ~Auditor();
  Auditor(const Auditor&) = delete;
  Auditor& operator=(const Auditor&) = delete;

  // Called now and then during the scan with the counts so far.
  void setProgress(TreeWalker::ProgressCallback progress);
  // For tests: how folders are opened (see TreeWalker).
  void setFolderOpener(FolderOpener opener);

  // Scans the plan's places and answers the sorted findings with totals.
  AuditResult run(const ScanPlan& plan);

  // The pieces of run(), for callers that find names in their own way.
  // `place` is what the report shows as where the name was found.
  void considerSoftware(const std::string& name, const std::string& place);
  void considerFont(const std::string& name, const std::string& place);
  AuditResult takeResult();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace quarvel::audit
