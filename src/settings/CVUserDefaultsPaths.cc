// Work folders and data-file paths of the settings object.
#include <sys/stat.h>

#include <filesystem>
#include <system_error>

#include "common/StringUtil.h"
#include "format/DataFileFormat.h"
#include "quarvel/CVUserDefaults.h"
#include "settings/WorkFolders.h"

namespace quarvel {

namespace {

std::optional<std::string> joined(const std::optional<std::string>& folder, std::string_view name) {
  if (!folder) return std::nullopt;
  return *folder + "/" + std::string(name);
}

bool existsAt(const std::string& path) {
  struct stat info;
  return ::stat(path.c_str(), &info) == 0;
}

void makeFolderIfMissing(const std::string& path) {
  if (existsAt(path)) return;
  std::error_code ignored;
  std::filesystem::create_directories(path, ignored);
}

}  // namespace

bool isPortableVolume(const std::optional<VolumeFacts>& facts) {
  if (!facts) return false;
  bool sharedVolume = facts->type && (*facts->type == "afpfs" || *facts->type == "smbfs");
  return facts->writable && facts->unmountable && (sharedVolume || facts->removable);
}

bool isPortableRun(const HostEnvironment& environment) {
  auto bundle = environment.bundlePath();
  if (!bundle) return false;
  return isPortableVolume(environment.volumeFacts(*bundle));
}

std::optional<std::string> chooseBasePath(const HostEnvironment& environment, bool isLite) {
  const char* name = isLite ? "Quarvel" : ".Quarvel";
  if (isPortableRun(environment)) {
    // Beside the program, on its volume: in the folder that holds the
    // program's folder, unless the program's folder is the volume's root,
    // where going up would put the work folder on another disk.
    const std::string bundle = *environment.bundlePath();
    const auto facts = environment.volumeFacts(bundle);
    const bool atRoot = facts && facts->isVolumeRoot;
    return (atRoot ? bundle : deletingLastPathComponent(bundle)) + "/" + name;
  }
  return joined(environment.documentsDirectory(), name);
}

void createWorkFolders(const std::optional<std::string>& base,
                       const std::optional<std::string>& userLibrary) {
  if (base) {
    for (const char* folder :
         {"/CheckOut/IPT", "/CheckOut/TLS", "/CheckOut/RST", "/CheckOut/TMP_IPT",
          "/CheckOut/TMP_TLS", "/CheckOut/TMP_RST", "/CheckOut/Logs"})
      makeFolderIfMissing(*base + folder);
  }
  if (userLibrary) makeFolderIfMissing(*userLibrary + "/Quarvel");
}

std::optional<std::string> CVUserDefaults::defaultPath() const {
  auto found = defaultsDic.find("DefaultPath");
  if (found == defaultsDic.end() || !found->second.asString()) return std::nullopt;
  return *found->second.asString();
}

std::optional<std::string> CVUserDefaults::checkOutPath() const {
  return joined(defaultPath(), "CheckOut");
}

std::optional<std::string> CVUserDefaults::IPTFolderPath() const {
  return joined(checkOutPath(), "IPT");
}
std::optional<std::string> CVUserDefaults::RSTFolderPath() const {
  return joined(checkOutPath(), "RST");
}
std::optional<std::string> CVUserDefaults::TLSFolderPath() const {
  return joined(checkOutPath(), "TLS");
}
std::optional<std::string> CVUserDefaults::tempIPTFolderPath() const {
  return joined(checkOutPath(), "TMP_IPT");
}
std::optional<std::string> CVUserDefaults::tempRSTFolderPath() const {
  return joined(checkOutPath(), "TMP_RST");
}
std::optional<std::string> CVUserDefaults::tempTLSFolderPath() const {
  return joined(checkOutPath(), "TMP_TLS");
}
std::optional<std::string> CVUserDefaults::LOGSFolderPath() const {
  return joined(checkOutPath(), "Logs");
}

std::optional<std::string> CVUserDefaults::libraryPath() const {
  auto environment = HostEnvironment::current();
  auto userLibrary = environment->userLibraryDirectory();
  if (isPortableRun(*environment)) return defaultPath();
  // Always the visible name, whatever the edition flag says.
  return joined(userLibrary, "Quarvel");
}

std::optional<std::string> CVUserDefaults::checkListFilePath() const {
  return joined(libraryPath(), datafile::kCheckListFileName);
}
std::optional<std::string> CVUserDefaults::filterFilePath() const {
  return joined(libraryPath(), datafile::kFilterFileName);
}
std::optional<std::string> CVUserDefaults::editionFilePath() const {
  return joined(libraryPath(), "edition.dat");
}
std::optional<std::string> CVUserDefaults::packageFilePath() const {
  return joined(libraryPath(), datafile::kPackageFileName);
}
std::optional<std::string> CVUserDefaults::windowPackageFilePath() const {
  return joined(libraryPath(), "package.dat");
}
std::optional<std::string> CVUserDefaults::verFilePath() const {
  return joined(libraryPath(), "ver.dat");
}
std::optional<std::string> CVUserDefaults::fontListFilePath() const {
  return joined(libraryPath(), datafile::kFontListFileName);
}

std::optional<std::string> CVUserDefaults::userCheckListFilePath() const {
  // Asks the volume test itself rather than going through libraryPath; the
  // answer is the same file.
  auto environment = HostEnvironment::current();
  if (isPortableRun(*environment)) return joined(defaultPath(), datafile::kUserCheckListFileName);
  return joined(joined(environment->userLibraryDirectory(), "Quarvel"),
                datafile::kUserCheckListFileName);
}

}  // namespace quarvel
