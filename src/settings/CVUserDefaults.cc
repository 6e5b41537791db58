// The settings store: the shared instance, its start-up sequence, the key
// access on defaultsDic and the domain file behind it.
#include "quarvel/CVUserDefaults.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

#include "common/FileReplacement.h"
#include "common/Log.h"
#include "common/Platform.h"
#include "common/StringUtil.h"
#include "settings/HostEnvironment.h"
#include "settings/PropertyList.h"
#include "settings/SettingsForTesting.h"
#include "settings/WorkFolders.h"

namespace quarvel {

CVUserDefaults* userdefaultsInstance = nullptr;
PlistDictionary defaultsDic;

namespace {

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

// Whether the latest write of the domain (by any instance) failed.
std::atomic<bool>& lastWriteFailedFlag() {
  static std::atomic<bool> failed{false};
  return failed;
}

std::string localStamp() {
  std::time_t now = std::chrono::system_clock::to_time_t(Platform::current()->wallNow());
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
    logWarningf("Settings domain %s could not be read; kept it as %s and started empty",
                path.c_str(), candidate.c_str());
  } else {
    logWarningf(
        "Settings domain %s could not be read and could not be moved aside (%s); started empty",
        path.c_str(), std::strerror(errno));
  }
}

// The domain file replaced whole (FileReplacement), its folder created when
// missing. A new domain file is the user's alone: created 0600.
bool replaceFileAtomically(const std::string& path, const std::string& bytes) {
  std::string folder = deletingLastPathComponent(path);
  if (folder.empty()) folder = ".";
  std::error_code ec;
  std::filesystem::create_directories(folder, ec);
  return FileReplacement::replace(path, bytes, 0600);
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
  stopNetworkIdentityJobs();
  std::lock_guard<std::recursive_mutex> lock(sharedMutex());
  if (userdefaultsInstance) retiredInstances().push_back(userdefaultsInstance);
  userdefaultsInstance = new CVUserDefaults();
}

void discardSharedSettingsForTesting() {
  stopNetworkIdentityJobs();
  std::lock_guard<std::recursive_mutex> lock(sharedMutex());
  if (userdefaultsInstance) retiredInstances().push_back(userdefaultsInstance);
  userdefaultsInstance = nullptr;
  defaultsDic.clear();
}

// --- Generic key access ----------------------------------------------------------

std::optional<PlistValue> CVUserDefaults::objectForKey(const std::string& key) const {
  return storedCopy(key);
}

void CVUserDefaults::setObject(PlistValue value, const std::string& forKey) {
  // A value the domain file cannot hold (the reader refuses documents nested
  // deeper than the limit) is refused here, store and file left as they were;
  // kept in memory it would make every later write fail.
  if (nestingDepth(value, kMaxPropertyListDepth) + 1 > kMaxPropertyListDepth) {
    logf("Setting %s not stored: its value is nested deeper than %d levels", forKey.c_str(),
         kMaxPropertyListDepth);
    lastWriteFailedFlag().store(true);
    return;
  }
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
  // Opened without blocking and examined through the descriptor: a pipe or
  // a device in the file's place must not hold the start-up for ever.
  const int fd = ::open(path->c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (fd < 0 && errno == ENOENT) return std::nullopt;  // no domain yet
  struct stat info {};
  if (fd >= 0 && (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode))) {
    logf("Settings domain %s is not a regular file", path->c_str());
    ::close(fd);
    moveAside(*path);
    return std::nullopt;
  }
  if (fd >= 0 && static_cast<std::uintmax_t>(info.st_size) > kMaxPropertyListBytes) {
    logf("Settings domain %s is larger than %zu bytes", path->c_str(), kMaxPropertyListBytes);
    ::close(fd);
    moveAside(*path);
    return std::nullopt;
  }
  // Read no more than the limit allows, even if the file grows meanwhile.
  std::string bytes;
  bool in = fd >= 0;
  if (in) {
    char chunk[65536];
    for (;;) {
      const ssize_t n = ::read(fd, chunk, sizeof chunk);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0 || bytes.size() + static_cast<std::size_t>(n) > kMaxPropertyListBytes) {
        in = n == 0;
        break;
      }
      bytes.append(chunk, static_cast<std::size_t>(n));
    }
    ::close(fd);
  }
  // Whatever cannot be loaded (not a dictionary, damaged, not even readable)
  // is kept aside, so that the next write does not replace it.
  std::optional<PlistValue> root = in ? readPropertyList(bytes) : std::nullopt;
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
    logWarningf("Settings domain %s not written: no configuration folder", forName.c_str());
    return false;
  }
  std::optional<std::string> bytes = writePropertyList(PlistValue::dictionary(domain));
  if (!bytes) {
    // The next start would refuse such a file and set every setting aside.
    logWarningf("Settings domain %s not written: a value is nested deeper than %d levels",
                path->c_str(), kMaxPropertyListDepth);
    return false;
  }
  return replaceFileAtomically(*path, *bytes);
}

bool CVUserDefaults::synchronize() { return true; }

// The file becomes this process's whole dictionary, replaced in one rename:
// whatever another process wrote since start-up is replaced too (last writer
// wins), and a reader sees either the old or the new file, never a mix.
void CVUserDefaults::persist() {
  lastWriteFailedFlag().store(!sharedOr(this)->setPersistentDomain(defaultsDic, kDomainName));
}

bool CVUserDefaults::lastWriteFailed() { return lastWriteFailedFlag().load(); }

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

QUARVEL_OBJECT_SETTING(lastUpdateDate, setUpdated, "lastUpdateDate")
QUARVEL_OBJECT_SETTING(webQuarvelIPAddress, setWebQuarvelIPAddress, "WebQuarvelIPAddress")
QUARVEL_OBJECT_SETTING(webQuarvelUserName, setWebQuarvelUserName, "WebQuarvelUserName")
QUARVEL_OBJECT_SETTING(webQuarvelDepartmentName, setWebQuarvelDepartmentName,
                       "WebQuarvelDepartmentName")
QUARVEL_OBJECT_SETTING(webQuarvelIPAddressTemp, setWebQuarvelIPAddressTemp,
                       "WebQuarvelIPAddressTemp")
QUARVEL_OBJECT_SETTING(webQuarvelUserNameTemp, setWebQuarvelUserNameTemp, "WebQuarvelUserNameTemp")
QUARVEL_OBJECT_SETTING(webQuarvelDepartmentNameTemp, setWebQuarvelDepartmentNameTemp,
                       "WebQuarvelDepartmentNameTemp")
QUARVEL_OBJECT_SETTING(webQuarvelForceQuarvelTime, setWebQuarvelForceQuarvelTime,
                       "forceQuarvelTime")
QUARVEL_OBJECT_SETTING(webQuarvelDateQuarvelTime, setWebQuarvelDateQuarvelTime, "dateQuarvelTime")
QUARVEL_OBJECT_SETTING(trustedListKey, setTrustedListKey, "TrustedListKey")

#undef QUARVEL_BOOL_SETTING
#undef QUARVEL_OBJECT_SETTING

bool CVUserDefaults::isLite() const { return _isLite; }
void CVUserDefaults::setIsLite(bool value) { _isLite = value; }

}  // namespace quarvel
