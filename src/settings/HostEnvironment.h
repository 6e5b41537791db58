#pragma once
// The platform facts the settings object needs: where the host program lies,
// what the volume under it is like, and where the user's folders are.
//
// The system implementation reads the process, the environment, the mount
// table and sysfs; a Platform may answer another (common/Platform.h).

#include <memory>
#include <optional>
#include <string>

namespace quarvel {

// What the volume holding a path is like.
struct VolumeFacts {
  bool removable = false;    // a removable disk, or one on a USB or MMC bus
  bool writable = false;     // mounted read-write and writable by this user
  bool unmountable = false;  // anything but the root file system
  // The file-system type: "smbfs" for cifs and smb3, else the kernel's name.
  std::optional<std::string> type;
  // The path asked about is the volume's mount point: its parent folder lies
  // on another volume.
  bool isVolumeRoot = false;
};

class HostEnvironment {
 public:
  virtual ~HostEnvironment() = default;

  // The host program: the folder holding the running executable, or the
  // AppImage file when the program runs from one. Absent when unknown.
  virtual std::optional<std::string> bundlePath() const = 0;
  // The facts of the volume holding `path`; absent when they cannot be had
  // (callers then take every flag as false and the type as absent).
  virtual std::optional<VolumeFacts> volumeFacts(const std::string& path) const = 0;
  // $HOME (the system one falls back to the account's home folder).
  virtual std::optional<std::string> homeDirectory() const = 0;
  // The XDG documents folder (home + "/Documents" unless configured).
  virtual std::optional<std::string> documentsDirectory() const = 0;
  // The user Library folder: $XDG_DATA_HOME, by default home + "/.local/share".
  virtual std::optional<std::string> userLibraryDirectory() const = 0;

  // The environment in use: the current Platform's, else the system one.
  static std::shared_ptr<const HostEnvironment> current();
};

// The real platform. `systemRoot` is where /proc and /sys are looked for
// ("/" normally; tests point it at a prepared folder).
class SystemHostEnvironment : public HostEnvironment {
 public:
  explicit SystemHostEnvironment(std::string systemRoot = "/");

  std::optional<std::string> bundlePath() const override;
  std::optional<VolumeFacts> volumeFacts(const std::string& path) const override;
  std::optional<std::string> homeDirectory() const override;
  std::optional<std::string> documentsDirectory() const override;
  std::optional<std::string> userLibraryDirectory() const override;

 private:
  std::string systemRoot_;
};

// The XDG documents folder for `home`, from $XDG_DOCUMENTS_DIR when set to an
// absolute path, else from XDG_DOCUMENTS_DIR in `configHome`/user-dirs.dirs
// ("$HOME/..." or an absolute path), else home + "/Documents".
std::string xdgDocumentsDirectory(const std::string& home, const std::string& configHome);

// $XDG_CONFIG_HOME when set to an absolute path, else home + "/.config".
std::optional<std::string> xdgConfigHome();

}  // namespace quarvel
