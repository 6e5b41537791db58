#pragma once
/// @file
/// The tool's one settings object per process.
///
/// Every setting lives in one in-memory dictionary, `defaultsDic`, mirroring
/// the private persistent domain "com.Corvane.Defaults" (a property-list file,
/// $XDG_CONFIG_HOME/com.Corvane.Defaults.plist), loaded once at start-up. Each
/// write replaces the file with the whole dictionary. The object also answers
/// the work-folder layout, the machine's network identity, and runs shell
/// commands and HTTP requests.
///
/// Threads: the first class call must come from one thread before any other
/// touches the store; the store itself takes no locks (callers must not write
/// concurrently). The network identity fields are safe from any thread.

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "quarvel/PlistValue.h"

namespace quarvel {

struct NetworkIdentityState;

class CVUserDefaults {
 public:
  static constexpr const char* kDomainName = "com.Corvane.Defaults";

  /// --- The shared instance ----------------------------------------------------
  /// The first call of either creates the instance and runs the start-up
  /// sequence (external-address lookup, load of the domain, choice and
  /// creation of the work folders, background network identity job); later
  /// calls return it and ignore the argument. The instance lives until the
  /// process ends.
  static CVUserDefaults* standardUserDefaults();
  static CVUserDefaults* standardUserDefaultsWithisLiteVer(bool isLiteVer);
  /// Replaces the shared instance by a bare one (no start-up work, isLite
  /// false); defaultsDic is kept. Pointers to the old instance stay valid.
  /// The old instance's start-up job is stopped and joined first, so it can
  /// take a moment when that job is still gathering the network identity.
  static void resetStandardUserDefaults();

  /// Where the external-address lookup asks: "host[:port]", answered as plain
  /// text at "/ip". The build sets the default (QUARVEL_ECHO_SERVER_HOST).
  static void setEchoServiceHost(std::string hostAndPort);
  static std::string echoServiceHost();

  ~CVUserDefaults();
  CVUserDefaults(const CVUserDefaults&) = delete;
  CVUserDefaults& operator=(const CVUserDefaults&) = delete;

  /// --- Generic key access (all on defaultsDic) ---------------------------------
  /// Getters answer a copy of the stored value; absent when the key is not
  /// stored or (the typed ones) its value is of another kind. Setters store
  /// the value and write the domain at once; a failed write is logged and
  /// shows in lastWriteFailed(). Setting a value of Kind::None removes the
  /// key; a value nested deeper than the store can read back is not stored,
  /// and counts as a failed write.
  std::optional<PlistValue> objectForKey(const std::string& key) const;
  void setObject(PlistValue value, const std::string& forKey);
  void removeObjectForKey(const std::string& key);
  std::optional<std::string> stringForKey(const std::string& key) const;
  std::optional<PlistArray> arrayForKey(const std::string& key) const;
  std::optional<PlistDictionary> dictionaryForKey(const std::string& key) const;
  std::optional<PlistData> dataForKey(const std::string& key) const;
  std::optional<PlistValue::URL> URLForKey(const std::string& key) const;
  /// The stored array when every element is a string (an empty array too).
  std::optional<std::vector<std::string>> stringArrayForKey(const std::string& key) const;
  /// Numbers only: anything else, a string of digits included, reads as 0.
  std::int64_t integerForKey(const std::string& key) const;
  float floatForKey(const std::string& key) const;
  double doubleForKey(const std::string& key) const;
  bool boolForKey(const std::string& key) const;
  void setInteger(std::int64_t value, const std::string& forKey);
  void setFloat(float value, const std::string& forKey);
  void setDouble(double value, const std::string& forKey);
  void setBool(bool value, const std::string& forKey);
  void setURL(PlistValue::URL value, const std::string& forKey);

  /// The platform store under the settings: the whole domain at once.
  /// A domain lives in $XDG_CONFIG_HOME/`<name>.plist` (default ~/.config). It
  /// reads XML and binary property lists; a file that cannot be parsed (or is
  /// larger than kMaxPropertyListBytes) is renamed aside
  /// (`<file>.corrupt-YYYYMMDD_HHMMSS`), logged, and reads as absent; a single
  /// unreadable value in it costs only that entry. Writing stores the whole
  /// dictionary (XML when XML holds every value exactly, binary otherwise) and
  /// replaces the file atomically (temporary file in the same folder, fsync,
  /// rename), so the file is never torn; it returns false, after logging,
  /// when it fails or when a value is nested too deep to be read back.
  /// Every write reaches the disk at once, so synchronize has nothing left to
  /// do and answers true.
  std::optional<PlistDictionary> persistentDomainForName(const std::string& name) const;
  bool setPersistentDomain(const PlistDictionary& domain, const std::string& forName);
  /// Kept for hosts that call it: every write already reaches the disk at
  /// once, so it has nothing to do and answers true. The setters do not
  /// call it.
  bool synchronize();
  /// Whether the latest write of the domain behind a setter (setObject,
  /// removeObjectForKey and every setter built on them) failed: the setters
  /// report nothing themselves. A value refused for its nesting counts as a
  /// failed write.
  static bool lastWriteFailed();
  /// Where the domain's file lies; absent when neither $XDG_CONFIG_HOME nor
  /// $HOME is known.
  static std::optional<std::string> persistentDomainPath(const std::string& name);

  /// --- Named settings ---------------------------------------------------------
  /// Boolean getters take the stored value's own boolean reading (a string
  /// "YES" reads true); absent reads false.
  bool precisionInspect() const;
  void setPrecisionInspect(bool value);
  bool closeAgterInspect() const;
  void setCloseAfterInspect(bool value);
  bool redundantProcessing() const;
  void setRedundantProcessing(bool value);
  bool searchFont() const;
  void setSearchFont(bool value);
  bool useHashCode() const;
  void setUseHashCode(bool value);
  bool startAtLaunch() const;
  void setStartAtLaunch(bool value);
  bool searchOnlyFont() const;
  void setSearchOnlyFont(bool value);

  /// Object settings answer the stored value as it is.
  std::optional<PlistValue> reguForm() const;
  void setReguForm(PlistValue value);
  std::optional<PlistValue> area() const;
  void setArea(PlistValue value);
  std::optional<PlistValue> leadAgency() const;
  void setLeadAgency(PlistValue value);
  std::optional<PlistValue> regulator() const;
  void setRegulator(PlistValue value);
  std::optional<PlistValue> selectedPathArrInPrecisionInspect() const;
  void setSelectedPathArrInPrecisionInspect(PlistValue value);
  std::optional<PlistValue> filterPathArrInPrecisionInspect() const;
  void setfilterPathArrInPrecisionInspect(PlistValue value);
  /// These setters also flush the store at once.
  std::optional<PlistValue> lastUpdateDate() const;
  void setUpdated(PlistValue value);
  std::optional<PlistValue> webQuarvelIPAddress() const;
  void setWebQuarvelIPAddress(PlistValue value);
  std::optional<PlistValue> webQuarvelUserName() const;
  void setWebQuarvelUserName(PlistValue value);
  std::optional<PlistValue> webQuarvelDepartmentName() const;
  void setWebQuarvelDepartmentName(PlistValue value);
  std::optional<PlistValue> webQuarvelIPAddressTemp() const;
  void setWebQuarvelIPAddressTemp(PlistValue value);
  std::optional<PlistValue> webQuarvelUserNameTemp() const;
  void setWebQuarvelUserNameTemp(PlistValue value);
  std::optional<PlistValue> webQuarvelDepartmentNameTemp() const;
  void setWebQuarvelDepartmentNameTemp(PlistValue value);
  std::optional<PlistValue> webQuarvelForceQuarvelTime() const;
  void setWebQuarvelForceQuarvelTime(PlistValue value);
  std::optional<PlistValue> webQuarvelDateQuarvelTime() const;
  void setWebQuarvelDateQuarvelTime(PlistValue value);
  /// The list maintainers' public key that the update run verifies every
  /// file against ("TrustedListKey"): a string holding the public key file's
  /// text. Absent: files are not verified unless the run is given a key.
  std::optional<PlistValue> trustedListKey() const;
  void setTrustedListKey(PlistValue value);

  /// The edition flag handed in by the host: visible ("Quarvel") or hidden
  /// (".Quarvel") work-folder name. Not stored in the domain.
  bool isLite() const;
  void setIsLite(bool value);

  /// --- Work folders and data-file paths ---------------------------------------
  /// Each is absent only when the path it derives from is absent.
  std::optional<std::string> defaultPath() const;
  std::optional<std::string> checkOutPath() const;
  std::optional<std::string> IPTFolderPath() const;
  std::optional<std::string> RSTFolderPath() const;
  std::optional<std::string> TLSFolderPath() const;
  std::optional<std::string> tempIPTFolderPath() const;
  std::optional<std::string> tempRSTFolderPath() const;
  std::optional<std::string> tempTLSFolderPath() const;
  std::optional<std::string> LOGSFolderPath() const;
  /// Where the data files live; follows the volume facts at every call.
  std::optional<std::string> libraryPath() const;
  std::optional<std::string> checkListFilePath() const;
  std::optional<std::string> filterFilePath() const;
  std::optional<std::string> editionFilePath() const;
  std::optional<std::string> packageFilePath() const;
  std::optional<std::string> windowPackageFilePath() const;
  std::optional<std::string> verFilePath() const;
  std::optional<std::string> fontListFilePath() const;
  std::optional<std::string> userCheckListFilePath() const;

  /// --- Network identity ---------------------------------------------------------
  /// The identity members may be called from any thread; the text is kept
  /// in state shared with the background jobs.
  /// Starts the external-address lookup and returns at once.
  void getOutIpAddress();
  /// Builds the network identity text (blocks; may wait 2 seconds for the
  /// external address).
  std::string getIpAddress();
  /// Re-reads the kernel's interface list.
  void refresh();
  /// Parses the service-list text ("(Hardware Port: Wi-Fi, Device: en0)"
  /// lines) into (device, hardware port) pairs in service order.
  std::vector<std::pair<std::string, std::string>> deviceName(const std::string& serviceList);
  /// The cached identity text; computed on this thread when not yet known.
  std::string IPAddress();
  void setIPAddress(const std::string& text);

  /// --- Command runner and HTTP ----------------------------------------------------
  /// Runs `/bin/sh -c command` and answers its standard output ("" when it
  /// could not be started or printed no valid UTF-8).
  std::string runCommand(const std::string& command);
  /// Sends `body` with a GET to `url` and calls `completetion` once, on a
  /// thread of the library's own, with the received text ("" on failure).
  void sendRequest(const std::string& url, const std::string& body, const void* sender,
                   std::function<void(const std::string&)> completetion);

 private:
  /// The library's network identity code reads the instance's state.
  friend struct CVUserDefaultsInternals;

  CVUserDefaults();
  static CVUserDefaults* createShared(std::optional<bool> isLiteVer);
  void persist();

  /// Start-up steps owned by the network identity code.
  void startExternalAddressLookup();
  void startNetworkIdentityJob();
  /// Stops the start-up jobs that are running and waits for them to end.
  static void stopBackgroundJobs();

  bool _isLite = false;

  /// The network identity's fields (the cached text, the external address,
  /// the last run's records) live in a state object shared with the
  /// external-address lookup and the background job, so that those never
  /// touch a retired instance. Set once, at construction.
  static std::shared_ptr<NetworkIdentityState> makeNetworkIdentityState();
  const std::shared_ptr<NetworkIdentityState> network_ = makeNetworkIdentityState();
};

/// The shared instance (null until the first class call) and the settings
/// dictionary behind it.
extern CVUserDefaults* userdefaultsInstance;
extern PlistDictionary defaultsDic;

}  // namespace quarvel
