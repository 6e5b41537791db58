// The settings store: the shared instance, its start-up sequence, the key
// access on defaultsDic and the domain file behind it.
#include "quarvel/settings/CVUserDefaults.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>
#include <thread>

#include "quarvel/common/Log.h"
#include "quarvel/common/StringUtil.h"
#include "quarvel/settings/HostEnvironment.h"
#include "quarvel/settings/PropertyList.h"
#include "quarvel/settings/WorkFolders.h"

namespace quarvel {

CVUserDefaults* userdefaultsInstance = nullptr;
PlistDictionary defaultsDic;

namespace {

// The domain as this process last read or wrote it, twice: as it stood in
// defaultsDic and as the file holds it (where a URL is a string and dates
// keep whole seconds). A write compares defaultsDic with the first to find
// this process's own changes, and the file with the second to find another
// process's.
struct LastSeenDomain {
  PlistDictionary inMemory;
  PlistDictionary onDisk;
};
LastSeenDomain& lastSeen() {
  static auto* seen = new LastSeenDomain();
  return *seen;
}

// Guards the creation and replacement of the shared instance. Recursive so
// that a start-up step may itself ask for the shared instance.
std::recursive_mutex& sharedMutex() {
  static std::recursive_mutex mutex;
  return mutex;
}

// Instances replaced by resetStandardUserDefaults or discarded by tests stay
// alive until the process ends: callers (and background jobs) may still hold
// them. Deliberately never freed.
std::vector<CVUserDefaults*>& retiredInstances() {
  static auto* retired = new std::vector<CVUserDefaults*>();
  return *retired;
}

CVUserDefaults* sharedOr(CVUserDefaults* fallback) {
  std::lock_guard<std::recursive_mutex> lock(sharedMutex());
  return userdefaultsInstance ? userdefaultsInstance : fallback;
}

const PlistValue* storedValue(const std::string& key) {
  auto found = defaultsDic.find(key);
  return found == defaultsDic.end() ? nullptr : &found->second;
}

std::optional<PlistValue> storedCopy(const std::string& key) {
  const PlistValue* value = storedValue(key);
  if (!value) return std::nullopt;
  return *value;
}

std::string localStamp() {
  std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  char text[32];
  std::snprintf(text, sizeof text, "%d%.2d%.2d_%.2d%.2d%.2d", local.tm_year + 1900,
                local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
  return text;
}

// Renames a damaged domain file out of the way, never over another file.
void moveAside(const std::string& path) {
  std::string target = path + ".corrupt-" + localStamp();
  std::string candidate = target;
  struct stat info;
  for (int n = 2; ::lstat(candidate.c_str(), &info) == 0 && n < 1000; ++n)
    candidate = target + "-" + std::to_string(n);
  if (std::rename(path.c_str(), candidate.c_str()) == 0) {
    logf("Settings domain %s could not be read; kept it as %s and started empty", path.c_str(),
         candidate.c_str());
  } else {
    logf("Settings domain %s could not be read and could not be moved aside (%s); started empty",
         path.c_str(), std::strerror(errno));
  }
}

bool writeAll(int fd, const std::string& bytes) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<std::size_t>(n);
  }
  return true;
}

// Temporary file beside the target, flushed to disk, renamed over it, and the
// folder flushed so the rename itself survives a crash.
bool replaceFileAtomically(const std::string& path, const std::string& bytes) {
  std::string folder = deletingLastPathComponent(path);
  if (folder.empty()) folder = ".";
  std::error_code ec;
  std::filesystem::create_directories(folder, ec);
  std::string temporary = path + ".XXXXXX";
  int fd = ::mkstemp(temporary.data());
  if (fd < 0) {
    logf("Settings domain %s not written: cannot create a temporary file (%s)", path.c_str(),
         std::strerror(errno));
    return false;
  }
  ::fchmod(fd, 0600);
  bool ok = writeAll(fd, bytes) && ::fsync(fd) == 0;
  int savedErrno = errno;
  if (::close(fd) != 0) ok = false;
  if (ok && std::rename(temporary.c_str(), path.c_str()) != 0) {
    savedErrno = errno;
    ok = false;
  }
  if (!ok) {
    ::unlink(temporary.c_str());
    logf("Settings domain %s not written (%s)", path.c_str(), std::strerror(savedErrno));
    return false;
  }
  int dirFd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dirFd >= 0) {
    ::fsync(dirFd);
    ::close(dirFd);
  }
  return true;
}

// Holds an exclusive flock on the folder of the domain files while one
// process re-reads and replaces a domain, so that two processes writing in
// turn never lose each other's keys. The folder is locked rather than the
// file because the file is replaced by a rename. The wait is bounded: after
// kWait the write goes ahead unlocked (it stays atomic; only a key written by
// the other process at that moment may be lost) and that is logged.
class DomainFolderLock {
 public:
  static constexpr std::chrono::seconds kWait{5};

  explicit DomainFolderLock(const std::string& domainPath) {
    std::string folder = deletingLastPathComponent(domainPath);
    if (folder.empty()) folder = ".";
    std::error_code ec;
    std::filesystem::create_directories(folder, ec);
    fd_ = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd_ < 0) return;
    const auto deadline = std::chrono::steady_clock::now() + kWait;
    while (::flock(fd_, LOCK_EX | LOCK_NB) != 0) {
      const int error = errno;
      if ((error != EWOULDBLOCK && error != EINTR) || std::chrono::steady_clock::now() > deadline) {
        logf("Settings domain %s: folder not locked (%s); writing without the lock",
             domainPath.c_str(), std::strerror(error == EWOULDBLOCK ? ETIMEDOUT : error));
        ::close(fd_);
        fd_ = -1;
        return;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }
  ~DomainFolderLock() {
    if (fd_ >= 0) ::close(fd_);  // closing releases the lock
  }
  DomainFolderLock(const DomainFolderLock&) = delete;
  DomainFolderLock& operator=(const DomainFolderLock&) = delete;

 private:
  int fd_ = -1;
};

const PlistValue* find(const PlistDictionary& dictionary, const std::string& key) {
  auto found = dictionary.find(key);
  return found == dictionary.end() ? nullptr : &found->second;
}

bool same(const PlistValue* a, const PlistValue* b) { return a && b ? *a == *b : a == b; }

// defaultsDic, except for the keys that another process changed on disk
// since this one last saw the file: those take the disk's value (or go),
// unless this process changed them as well, in which case its own value wins
// as the later write.
PlistDictionary mergeChanges(const PlistDictionary& mine, const PlistDictionary& disk,
                             const LastSeenDomain& seen) {
  PlistDictionary merged = mine;
  auto takeFromDisk = [&](const std::string& key) {
    if (same(find(disk, key), find(seen.onDisk, key))) return;     // nobody else touched it
    if (!same(find(mine, key), find(seen.inMemory, key))) return;  // ours is newer
    if (const PlistValue* value = find(disk, key))
      merged.insert_or_assign(key, *value);
    else
      merged.erase(key);
  };
  for (const auto& entry : disk) takeFromDisk(entry.first);
  for (const auto& entry : seen.onDisk)
    if (!disk.count(entry.first)) takeFromDisk(entry.first);
  return merged;
}

}  // namespace

// --- The shared instance -------------------------------------------------------

CVUserDefaults::CVUserDefaults() = default;
CVUserDefaults::~CVUserDefaults() = default;

CVUserDefaults* CVUserDefaults::standardUserDefaults() { return createShared(std::nullopt); }

CVUserDefaults* CVUserDefaults::standardUserDefaultsWithisLiteVer(bool isLiteVer) {
  return createShared(isLiteVer);
}

CVUserDefaults* CVUserDefaults::createShared(std::optional<bool> isLiteVer) {
  std::lock_guard<std::recursive_mutex> lock(sharedMutex());
  if (userdefaultsInstance) return userdefaultsInstance;

  auto* self = new CVUserDefaults();
  userdefaultsInstance = self;
  self->startExternalAddressLookup();

  defaultsDic = self->persistentDomainForName(kDomainName).value_or(PlistDictionary{});
  lastSeen() = {defaultsDic, defaultsDic};

  auto environment = HostEnvironment::current();
  if (isLiteVer) self->_isLite = *isLiteVer;
  // chooseBasePath makes the volume test on the host program's volume.
  auto base = chooseBasePath(*environment, self->_isLite);
  // Kept in memory only; it reaches the domain with the next write.
  if (base)
    defaultsDic.insert_or_assign("DefaultPath", PlistValue::string(*base));
  else
    defaultsDic.erase("DefaultPath");

  createWorkFolders(base, environment->userLibraryDirectory());
  self->startNetworkIdentityJob();
  return self;
}

void CVUserDefaults::resetStandardUserDefaults() {
  std::lock_guard<std::recursive_mutex> lock(sharedMutex());
  if (userdefaultsInstance) retiredInstances().push_back(userdefaultsInstance);
  userdefaultsInstance = new CVUserDefaults();
}

void CVUserDefaults::discardSharedInstanceForTesting() {
  std::lock_guard<std::recursive_mutex> lock(sharedMutex());
  if (userdefaultsInstance) retiredInstances().push_back(userdefaultsInstance);
  userdefaultsInstance = nullptr;
  defaultsDic.clear();
  lastSeen() = {};
}

// --- Generic key access ----------------------------------------------------------

std::optional<PlistValue> CVUserDefaults::objectForKey(const std::string& key) const {
  return storedCopy(key);
}

void CVUserDefaults::setObject(PlistValue value, const std::string& forKey) {
  // Storing nothing removes the key, as a nil object does on the platform.
  if (value.isNone())
    defaultsDic.erase(forKey);
  else
    defaultsDic.insert_or_assign(forKey, std::move(value));
  persist();
}

void CVUserDefaults::removeObjectForKey(const std::string& key) {
  defaultsDic.erase(key);
  persist();
}

std::optional<std::string> CVUserDefaults::stringForKey(const std::string& key) const {
  const PlistValue* value = storedValue(key);
  if (!value || !value->asString()) return std::nullopt;
  return *value->asString();
}

std::optional<PlistArray> CVUserDefaults::arrayForKey(const std::string& key) const {
  const PlistValue* value = storedValue(key);
  if (!value || !value->asArray()) return std::nullopt;
  return *value->asArray();
}

std::optional<PlistDictionary> CVUserDefaults::dictionaryForKey(const std::string& key) const {
  const PlistValue* value = storedValue(key);
  if (!value || !value->asDictionary()) return std::nullopt;
  return *value->asDictionary();
}

std::optional<PlistData> CVUserDefaults::dataForKey(const std::string& key) const {
  const PlistValue* value = storedValue(key);
  if (!value || !value->asData()) return std::nullopt;
  return *value->asData();
}

std::optional<PlistValue::URL> CVUserDefaults::URLForKey(const std::string& key) const {
  const PlistValue* value = storedValue(key);
  if (!value) return std::nullopt;
  if (value->asURL()) return *value->asURL();
  // The domain file keeps a URL as its text, so after a reload it is a
  // string: an absolute path reads as a file URL and a text with a scheme
  // ("http://...") as that URL, as the platform reads stored strings.
  if (const std::string* text = value->asString()) {
    if (!text->empty() && (*text)[0] == '/') return PlistValue::URL{"file://" + *text};
    std::size_t colon = text->find("://");
    if (colon != std::string::npos && colon > 0) return PlistValue::URL{*text};
  }
  return std::nullopt;
}

std::optional<std::vector<std::string>> CVUserDefaults::stringArrayForKey(
    const std::string& key) const {
  const PlistValue* value = storedValue(key);
  if (!value || !value->asArray()) return std::nullopt;
  std::vector<std::string> strings;
  for (const PlistValue& item : *value->asArray()) {
    if (!item.asString()) return std::nullopt;
    strings.push_back(*item.asString());
  }
  return strings;
}

std::int64_t CVUserDefaults::integerForKey(const std::string& key) const {
  const PlistValue* value = storedValue(key);
  return value && value->isNumber() ? value->integerValue() : 0;
}

float CVUserDefaults::floatForKey(const std::string& key) const {
  return static_cast<float>(doubleForKey(key));
}

double CVUserDefaults::doubleForKey(const std::string& key) const {
  const PlistValue* value = storedValue(key);
  return value && value->isNumber() ? value->doubleValue() : 0.0;
}

bool CVUserDefaults::boolForKey(const std::string& key) const {
  const PlistValue* value = storedValue(key);
  return value && value->isNumber() && value->boolValue();
}

void CVUserDefaults::setInteger(std::int64_t value, const std::string& forKey) {
  setObject(PlistValue::integer(value), forKey);
}

void CVUserDefaults::setFloat(float value, const std::string& forKey) {
  setObject(PlistValue::real(value), forKey);
}

void CVUserDefaults::setDouble(double value, const std::string& forKey) {
  setObject(PlistValue::real(value), forKey);
}

void CVUserDefaults::setBool(bool value, const std::string& forKey) {
  setObject(PlistValue::boolean(value), forKey);
}

void CVUserDefaults::setURL(PlistValue::URL value, const std::string& forKey) {
  setObject(PlistValue::url(std::move(value.text)), forKey);
}

// --- The domain file ------------------------------------------------------------

std::optional<std::string> CVUserDefaults::persistentDomainPath(const std::string& name) {
  auto config = xdgConfigHome();
  if (!config) return std::nullopt;
  return *config + "/" + name + ".plist";
}

std::optional<PlistDictionary> CVUserDefaults::persistentDomainForName(
    const std::string& name) const {
  auto path = persistentDomainPath(name);
  if (!path) return std::nullopt;
  struct stat info;
  if (::stat(path->c_str(), &info) != 0) return std::nullopt;  // no domain yet
  std::ifstream in(*path, std::ios::binary);
  std::ostringstream bytes;
  if (in) bytes << in.rdbuf();
  // Whatever cannot be loaded (not a dictionary, damaged, not even readable)
  // is kept aside, so that the next write does not replace it.
  std::optional<PlistValue> root = in ? readPropertyList(bytes.str()) : std::nullopt;
  if (!root || !root->asDictionary()) {
    moveAside(*path);
    return std::nullopt;
  }
  return *root->asDictionary();
}

bool CVUserDefaults::setPersistentDomain(const PlistDictionary& domain,
                                         const std::string& forName) {
  auto path = persistentDomainPath(forName);
  if (!path) {
    logf("Settings domain %s not written: no configuration folder", forName.c_str());
    return false;
  }
  return replaceFileAtomically(*path, writeXmlPropertyList(PlistValue::dictionary(domain)));
}

bool CVUserDefaults::synchronize() { return true; }

// Another process may have written the domain since this one loaded it, so
// the file is read again under the folder lock and merged (mergeChanges):
// writing one key never drops a key another process wrote meanwhile, and
// defaultsDic takes that process's values. Without a readable file the whole
// of defaultsDic is written, as on the first write. A failed write leaves
// defaultsDic and the last-seen copies alone.
void CVUserDefaults::persist() {
  CVUserDefaults* shared = sharedOr(this);
  auto path = persistentDomainPath(kDomainName);
  std::optional<DomainFolderLock> lock;
  if (path) lock.emplace(*path);
  auto disk = path ? shared->persistentDomainForName(kDomainName) : std::nullopt;
  PlistDictionary merged = disk ? mergeChanges(defaultsDic, *disk, lastSeen()) : defaultsDic;
  if (!shared->setPersistentDomain(merged, kDomainName)) return;
  auto written = readPropertyList(writeXmlPropertyList(PlistValue::dictionary(merged)));
  lastSeen() = {merged, written && written->asDictionary() ? *written->asDictionary() : merged};
  defaultsDic = std::move(merged);
}

// --- Named settings ---------------------------------------------------------------

namespace {

bool storedBool(const char* key) {
  const PlistValue* value = storedValue(key);
  return value && value->boolValue();
}

}  // namespace

#define QUARVEL_BOOL_SETTING(getter, setter, key)                 \
  bool CVUserDefaults::getter() const { return storedBool(key); } \
  void CVUserDefaults::setter(bool value) { setObject(PlistValue::boolean(value), key); }

#define QUARVEL_OBJECT_SETTING(getter, setter, key)                                    \
  std::optional<PlistValue> CVUserDefaults::getter() const { return storedCopy(key); } \
  void CVUserDefaults::setter(PlistValue value) { setObject(std::move(value), key); }

// These also flush the shared instance's store at once.
#define QUARVEL_SYNCED_SETTING(getter, setter, key)                                    \
  std::optional<PlistValue> CVUserDefaults::getter() const { return storedCopy(key); } \
  void CVUserDefaults::setter(PlistValue value) {                                      \
    setObject(std::move(value), key);                                                  \
    sharedOr(this)->synchronize();                                                     \
  }

QUARVEL_BOOL_SETTING(precisionInspect, setPrecisionInspect, "precisionInspect")
QUARVEL_BOOL_SETTING(closeAgterInspect, setCloseAfterInspect, "closeAfterInspect")
QUARVEL_BOOL_SETTING(redundantProcessing, setRedundantProcessing, "redundantProcessing")
QUARVEL_BOOL_SETTING(searchFont, setSearchFont, "searchFont")
QUARVEL_BOOL_SETTING(useHashCode, setUseHashCode, "useHashCode")
QUARVEL_BOOL_SETTING(startAtLaunch, setStartAtLaunch, "startAtLaunch")
QUARVEL_BOOL_SETTING(searchOnlyFont, setSearchOnlyFont, "searchOnlyFont")

QUARVEL_OBJECT_SETTING(reguForm, setReguForm, "reguForm")
QUARVEL_OBJECT_SETTING(area, setArea, "area")
QUARVEL_OBJECT_SETTING(leadAgency, setLeadAgency, "leadAgency")
QUARVEL_OBJECT_SETTING(regulator, setRegulator, "regulator")
QUARVEL_OBJECT_SETTING(selectedPathArrInPrecisionInspect, setSelectedPathArrInPrecisionInspect,
                       "selectedArr")
QUARVEL_OBJECT_SETTING(filterPathArrInPrecisionInspect, setfilterPathArrInPrecisionInspect,
                       "filterArr")

QUARVEL_SYNCED_SETTING(lastUpdateDate, setUpdated, "lastUpdateDate")
QUARVEL_SYNCED_SETTING(webQuarvelIPAddress, setWebQuarvelIPAddress, "WebQuarvelIPAddress")
QUARVEL_SYNCED_SETTING(webQuarvelUserName, setWebQuarvelUserName, "WebQuarvelUserName")
QUARVEL_SYNCED_SETTING(webQuarvelDepartmentName, setWebQuarvelDepartmentName,
                       "WebQuarvelDepartmentName")
QUARVEL_SYNCED_SETTING(webQuarvelIPAddressTemp, setWebQuarvelIPAddressTemp,
                       "WebQuarvelIPAddressTemp")
QUARVEL_SYNCED_SETTING(webQuarvelUserNameTemp, setWebQuarvelUserNameTemp, "WebQuarvelUserNameTemp")
QUARVEL_SYNCED_SETTING(webQuarvelDepartmentNameTemp, setWebQuarvelDepartmentNameTemp,
                       "WebQuarvelDepartmentNameTemp")
QUARVEL_SYNCED_SETTING(webQuarvelForceQuarvelTime, setWebQuarvelForceQuarvelTime,
                       "forceQuarvelTime")
QUARVEL_SYNCED_SETTING(webQuarvelDateQuarvelTime, setWebQuarvelDateQuarvelTime, "dateQuarvelTime")

#undef QUARVEL_BOOL_SETTING
#undef QUARVEL_OBJECT_SETTING
#undef QUARVEL_SYNCED_SETTING

bool CVUserDefaults::isLite() const { return _isLite; }
void CVUserDefaults::setIsLite(bool value) { _isLite = value; }

}  // namespace quarvel
