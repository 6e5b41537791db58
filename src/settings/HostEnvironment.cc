#include "settings/HostEnvironment.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <system_error>
#include <vector>

#include "common/Platform.h"
#include "common/StringUtil.h"
#include "settings/MountTable.h"

namespace quarvel {

namespace fs = std::filesystem;

namespace {

std::optional<std::string> environmentValue(const char* name) {
  const char* value = std::getenv(name);
  if (!value || !*value) return std::nullopt;
  return std::string(value);
}

// An XDG variable counts only when it holds an absolute path.
std::optional<std::string> absoluteEnvironmentPath(const char* name) {
  auto value = environmentValue(name);
  if (!value || (*value)[0] != '/') return std::nullopt;
  return value;
}

// One value of user-dirs.dirs: XDG_DOCUMENTS_DIR="$HOME/Documents".
std::optional<std::string> userDirsEntry(const std::string& file, const std::string& key,
                                         const std::string& home) {
  std::ifstream in(file);
  std::string line;
  while (std::getline(in, line)) {
    std::string text = trimWhitespace(line);
    if (text.rfind(key + "=", 0) != 0) continue;
    std::string value = text.substr(key.size() + 1);
    if (value.size() < 2 || value.front() != '"' || value.back() != '"') continue;
    value = value.substr(1, value.size() - 2);
    if (value.rfind("$HOME", 0) == 0) {
      std::string rest = value.substr(5);
      if (!rest.empty() && rest[0] != '/') continue;
      value = home + rest;
    } else if (value.empty() || value[0] != '/') {
      continue;
    }
    while (value.size() > 1 && value.back() == '/') value.pop_back();
    return value;
  }
  return std::nullopt;
}

}  // namespace

std::shared_ptr<const HostEnvironment> HostEnvironment::current() {
  if (auto environment = Platform::current()->hostEnvironment()) return environment;
  static const auto system = std::make_shared<const SystemHostEnvironment>();
  return system;
}

SystemHostEnvironment::SystemHostEnvironment(std::string systemRoot)
    : systemRoot_(std::move(systemRoot)) {}

std::optional<std::string> SystemHostEnvironment::bundlePath() const {
  if (auto appImage = absoluteEnvironmentPath("APPIMAGE")) return appImage;
  std::error_code ec;
  fs::path executable = fs::read_symlink(fs::path(systemRoot_) / "proc/self/exe", ec);
  if (ec || executable.empty()) return std::nullopt;
  std::string folder = deletingLastPathComponent(executable.string());
  if (folder.empty()) return std::nullopt;
  return folder;
}

std::optional<VolumeFacts> SystemHostEnvironment::volumeFacts(const std::string& path) const {
  std::error_code ec;
  fs::path real = fs::canonical(path, ec);
  if (ec) return std::nullopt;
  std::vector<MountEntry> table = readMountInfo(systemRoot_);
  const MountEntry* mount = findMountForPath(table, real.string());
  if (!mount) return std::nullopt;
  VolumeFacts facts;
  facts.writable = !mount->readOnly() && ::access(real.c_str(), W_OK) == 0;
  facts.unmountable = mount->mountPoint != "/";
  facts.removable =
      mount->major != 0 && isRemovableBlockDevice(systemRoot_, mount->major, mount->minor);
  facts.type = volumeTypeName(mount->fsType);
  facts.isVolumeRoot = real.string() == mount->mountPoint;
  return facts;
}

std::optional<std::string> SystemHostEnvironment::homeDirectory() const {
  if (auto home = environmentValue("HOME")) return home;
  // Without $HOME (a service, a cleared environment) the account's own.
  std::vector<char> buffer(16384);
  passwd entry{};
  passwd* found = nullptr;
  if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found &&
      found->pw_dir && found->pw_dir[0] == '/')
    return std::string(found->pw_dir);
  return std::nullopt;
}

std::optional<std::string> SystemHostEnvironment::documentsDirectory() const {
  auto home = homeDirectory();
  if (!home) return std::nullopt;
  std::string config = xdgConfigHome().value_or(*home + "/.config");
  return xdgDocumentsDirectory(*home, config);
}

std::optional<std::string> SystemHostEnvironment::userLibraryDirectory() const {
  if (auto dataHome = absoluteEnvironmentPath("XDG_DATA_HOME")) return dataHome;
  auto home = homeDirectory();
  if (!home) return std::nullopt;
  return *home + "/.local/share";
}

std::string xdgDocumentsDirectory(const std::string& home, const std::string& configHome) {
  if (auto explicitFolder = absoluteEnvironmentPath("XDG_DOCUMENTS_DIR")) return *explicitFolder;
  if (auto configured = userDirsEntry(configHome + "/user-dirs.dirs", "XDG_DOCUMENTS_DIR", home))
    return *configured;
  return home + "/Documents";
}

std::optional<std::string> xdgConfigHome() {
  if (auto config = absoluteEnvironmentPath("XDG_CONFIG_HOME")) return config;
  auto home = SystemHostEnvironment().homeDirectory();
  if (!home) return std::nullopt;
  return *home + "/.config";
}

}  // namespace quarvel
