#include "audit/Auditor.h"

#include <climits>
#include <cstdlib>
#include <set>
#include <unordered_map>

#include "audit/DesktopEntry.h"
#include "common/StringUtil.h"
#include "format/DataFileFormat.h"

namespace quarvel::audit {

namespace {

namespace df = datafile;

bool endsWithCaseless(std::string_view name, std::string_view suffix) {
  if (name.size() < suffix.size()) return false;
  std::string_view tail = name.substr(name.size() - suffix.size());
  for (std::size_t i = 0; i < suffix.size(); ++i) {
    char c = tail[i];
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    if (c != suffix[i]) return false;
  }
  return true;
}

bool isExecutableFile(const FoundFile& file) {
  struct stat st {};
  return file.stat(st) && S_ISREG(st.st_mode) && (st.st_mode & 0111) != 0;
}

std::string propertyKey(ListSource& list, int row) {
  return lowercase(list.value(row, df::kFieldCompany) + "\t" + list.value(row, df::kFieldProduct) +
                   "\t" + list.value(row, df::kFieldVersionValue) + "\t" +
                   list.value(row, df::kFieldOriginalFile));
}

// Which lists hold a file name, one bit per list: the software lists in
// order, then the font list.
using ListBits = std::uint8_t;
constexpr ListBits kFontListBit = 0x80;

// Not noexcept, so that the map keeps each key's hash and a probe compares
// hashes before strings.
struct NameHash {
  using is_transparent = void;
  std::size_t operator()(std::string_view text) const {
    return std::hash<std::string_view>{}(text);
  }
};

// Lower-cased "EXE_FILE" values of all lists, with the lists that hold each:
// a name outside this map cannot match, so most names cost one look-up and
// never reach a list's own.
using NameMap = std::unordered_map<std::string, ListBits, NameHash, std::equal_to<>>;

// `name` lower-cased as the lists' keys are, into `out` (whose storage is
// reused): ASCII in place, anything else through lowercase().
void lowerInto(std::string_view name, std::string& out) {
  out.assign(name);
  for (char& c : out) {
    if (static_cast<unsigned char>(c) >= 0x80) {
      out = lowercase(name);
      return;
    }
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
}

void addFileNameKeys(ListSource& list, ListBits bit, NameMap& names) {
  const std::size_t count = list.recordCount();
  names.reserve(names.size() + count);
  std::string key;
  for (std::size_t row = 0; row < count && row <= INT_MAX; ++row) {
    lowerInto(list.value(static_cast<int>(row), df::kFieldExeFile), key);
    auto it = names.find(std::string_view(key));
    if (it == names.end()) it = names.emplace(key, 0).first;
    it->second |= bit;
  }
}

struct KnownList {
  ListSource* source;
  const char* name;
  int priority;  // lower wins when two lists name the same product
  ListBits bit;
};

struct PendingFinding {
  Finding finding;
  int priority = 0;
  std::set<std::string> places;
};

}  // namespace

struct Auditor::State {
  AuditSources sources;
  std::vector<KnownList> softwareLists;
  ListBits softwareBits = 0;
  NameMap names;
  std::string lowered;                                       // scratch for listsHolding
  std::unordered_map<std::string, PendingFinding> findings;  // kind letter + property key
  std::set<std::string> filtered;
  ScanStats stats;
  std::uint64_t fontFilesListed = 0;
  TreeWalker::ProgressCallback progress;
  FolderOpener opener;

  ListBits listsHolding(std::string_view name) {
    lowerInto(name, lowered);
    auto it = names.find(std::string_view(lowered));
    return it == names.end() ? 0 : it->second;
  }

  void addHit(FindingKind kind, const char* listName, int priority, ListSource& list, int row,
              const std::string& place) {
    std::string property = propertyKey(list, row);
    if (kind == FindingKind::Software && sources.filter && sources.filter->contains(property)) {
      filtered.insert(property);
      return;
    }
    std::string key = (kind == FindingKind::Software ? "S" : "F") + property;
    auto [it, added] = findings.try_emplace(key);
    PendingFinding& pending = it->second;
    bool better = added || priority < pending.priority ||
                  (priority == pending.priority && row < pending.finding.record);
    if (better) {
      Finding& f = pending.finding;
      f.kind = kind;
      f.list = listName;
      f.record = row;
      f.id = list.value(row, df::kFieldDbId);
      f.maker = list.value(row, df::kFieldDispCompany);
      f.product = list.value(row, df::kFieldDispProduct);
      f.version = list.value(row, df::kFieldVersionValue);
      f.priceText = list.value(row, "PRICE");
      f.price = Money::parse(f.priceText);
      f.softwareType = list.value(row, "SW_TYPE");
      f.group = list.value(row, "GRP_NAME");
      pending.priority = priority;
    }
    pending.places.insert(place);
  }

  void matchSoftware(const std::string& name, ListBits lists, const std::string& place) {
    for (KnownList& list : softwareLists) {
      if (!(lists & list.bit)) continue;
      int row = list.source->idByFileName(name);
      if (row >= 0)
        addHit(FindingKind::Software, list.name, list.priority, *list.source, row, place);
    }
  }

  void matchFont(const std::string& name, ListBits lists, const std::string& place) {
    if (!sources.fontList || !(lists & kFontListBit)) return;
    int row = sources.fontList->idByFileName(name);
    if (row >= 0) addHit(FindingKind::Font, "fontlist", 0, *sources.fontList, row, place);
  }

  // The strings are made only for names that some list holds.
  void softwareFile(const FoundFile& file, ListBits lists, bool needExecutable) {
    if (!(lists & softwareBits)) return;
    if (needExecutable && !isExecutableFile(file)) return;
    matchSoftware(std::string(file.name()), lists, std::string(file.path()));
  }

  void fontFile(const FoundFile& file, ListBits lists) {
    if (!(lists & kFontListBit)) return;
    matchFont(std::string(file.name()), lists, std::string(file.path()));
  }

  void desktopEntry(const FoundFile& file) {
    if (!endsWithCaseless(file.name(), ".desktop")) return;
    std::string place(file.path());
    for (const std::string& program : execProgramsOfFile(place))
      matchSoftware(program, listsHolding(program), place);
  }
};

Auditor::Auditor(const AuditSources& sources) : state_(std::make_unique<State>()) {
  State& s = *state_;
  s.sources = sources;
  if (sources.checkList) s.softwareLists.push_back({sources.checkList, "checklist", 0, 0x01});
  if (sources.userCheckList)
    s.softwareLists.push_back({sources.userCheckList, "userchecklist", 1, 0x02});
  for (const KnownList& list : s.softwareLists) {
    s.softwareBits |= list.bit;
    addFileNameKeys(*list.source, list.bit, s.names);
  }
  if (sources.fontList) addFileNameKeys(*sources.fontList, kFontListBit, s.names);
}

Auditor::~Auditor() = default;

void Auditor::setProgress(TreeWalker::ProgressCallback progress) {
  state_->progress = std::move(progress);
}

void Auditor::setFolderOpener(FolderOpener opener) { state_->opener = std::move(opener); }

void Auditor::considerSoftware(const std::string& name, const std::string& place) {
  state_->matchSoftware(name, state_->listsHolding(name), place);
}

void Auditor::considerFont(const std::string& name, const std::string& place) {
  state_->matchFont(name, state_->listsHolding(name), place);
}

AuditResult Auditor::run(const ScanPlan& plan) {
  State& s = *state_;
  TreeWalker walker(s.stats);
  walker.exclude(plan.excluded);
  if (s.opener) walker.setFolderOpener(s.opener);
  if (s.progress) walker.setProgress(s.progress);

  auto walkAll = [&](const std::vector<std::string>& roots, WalkOptions options,
                     const TreeWalker::FileCallback& onFile) {
    for (const std::string& root : roots) walker.walk(root, options, onFile);
  };
  const bool wantSoftware = !s.softwareLists.empty();
  const bool wantFonts = s.sources.fontList != nullptr;

  if (wantSoftware) {
    auto executable = [&](const FoundFile& f) {
      s.softwareFile(f, s.listsHolding(f.name()), true);
    };
    walkAll(plan.pathFolders, {.maxDepth = 0}, executable);
    walkAll(plan.softwareTrees, {.maxDepth = plan.softwareDepth}, executable);
    walkAll(plan.desktopFolders, {.maxDepth = plan.desktopDepth},
            [&](const FoundFile& f) { s.desktopEntry(f); });
    walkAll(plan.appImageFolders, {.maxDepth = plan.appImageDepth, .skipHidden = true},
            [&](const FoundFile& f) {
              if (endsWithCaseless(f.name(), ".appimage"))
                s.softwareFile(f, s.listsHolding(f.name()), false);
            });
  }
  if (wantFonts) {
    walkAll(plan.fontFolders, {.maxDepth = plan.fontDepth},
            [&](const FoundFile& f) { s.fontFile(f, s.listsHolding(f.name())); });
    if (plan.fontCatalog) {
      for (const std::string& path : plan.fontCatalog->fontFiles()) {
        ++s.fontFilesListed;
        considerFont(lastPathComponent(path), path);
      }
    }
  }
  walkAll(plan.trees, {.maxDepth = plan.treeDepth}, [&](const FoundFile& f) {
    const ListBits lists = s.listsHolding(f.name());
    if (wantSoftware) {
      s.desktopEntry(f);
      s.softwareFile(f, lists, !endsWithCaseless(f.name(), ".appimage"));
    }
    if (wantFonts) s.fontFile(f, lists);
  });
  return takeResult();
}

AuditResult Auditor::takeResult() {
  State& s = *state_;
  AuditResult result;
  for (auto& [key, pending] : s.findings) {
    pending.finding.places.assign(pending.places.begin(), pending.places.end());
    result.findings.push_back(std::move(pending.finding));
  }
  result.stats = std::move(s.stats);
  result.fontFilesListed = s.fontFilesListed;
  result.filteredHits = s.filtered.size();
  s.findings.clear();
  s.filtered.clear();
  s.stats = ScanStats{};
  s.fontFilesListed = 0;
  finishResult(result);
  return result;
}

// --- The system's places ------------------------------------------------------

namespace {

std::string env(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "";
}

// Appends the folder unless an earlier entry is the same folder (by its real
// path, so /bin and /usr/bin on a merged system count once).
void addFolder(std::vector<std::string>& folders, std::set<std::string>& seen,
               const std::string& folder) {
  if (folder.empty() || folder.front() != '/') return;
  char resolved[PATH_MAX];
  std::string key = ::realpath(folder.c_str(), resolved) ? resolved : folder;
  if (seen.insert(key).second) folders.push_back(folder);
}

}  // namespace

ScanEnvironment ScanEnvironment::current() {
  return {env("PATH"), env("HOME"), env("XDG_DATA_HOME"), env("XDG_DATA_DIRS")};
}

ScanPlan systemScanPlan(const ScanEnvironment& e) {
  ScanPlan plan;
  std::set<std::string> seen;
  for (const std::string& folder : split(e.path, ":")) addFolder(plan.pathFolders, seen, folder);

  seen.clear();
  addFolder(plan.softwareTrees, seen, "/opt");
  addFolder(plan.softwareTrees, seen, "/usr/local");

  const std::string dataHome = !e.xdgDataHome.empty() ? e.xdgDataHome
                               : !e.home.empty()      ? e.home + "/.local/share"
                                                      : "";
  std::vector<std::string> dataDirs;
  if (!dataHome.empty()) dataDirs.push_back(dataHome);
  for (const std::string& dir :
       split(e.xdgDataDirs.empty() ? "/usr/local/share:/usr/share" : e.xdgDataDirs, ":"))
    dataDirs.push_back(dir);

  seen.clear();
  for (const std::string& dir : dataDirs)
    addFolder(plan.desktopFolders, seen, dir + "/applications");
  addFolder(plan.desktopFolders, seen, "/var/lib/flatpak/exports/share/applications");
  if (!dataHome.empty())
    addFolder(plan.desktopFolders, seen, dataHome + "/flatpak/exports/share/applications");
  addFolder(plan.desktopFolders, seen, "/var/lib/snapd/desktop/applications");

  seen.clear();
  if (!e.home.empty()) addFolder(plan.appImageFolders, seen, e.home);

  seen.clear();
  for (const std::string& dir : dataDirs) addFolder(plan.fontFolders, seen, dir + "/fonts");
  if (!e.home.empty()) addFolder(plan.fontFolders, seen, e.home + "/.fonts");
  return plan;
}

}  // namespace quarvel::audit
