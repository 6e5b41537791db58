#pragma once
// The mount table (/proc/self/mountinfo) and the block-device facts in sysfs
// that the volume test needs. Every reader takes the folder that stands for
// "/" so that tests can hand it prepared files.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quarvel {

struct MountEntry {
  unsigned major = 0;
  unsigned minor = 0;
  std::string mountPoint;    // octal escapes (\040 ...) decoded
  std::string mountOptions;  // per-mount options, e.g. "rw,nosuid"
  std::string fsType;        // e.g. "ext4", "cifs", "fuse.sshfs"
  std::string source;        // e.g. "/dev/sdb1", "//server/share"
  std::string superOptions;  // per-superblock options

  // True when either option list holds the "ro" flag.
  bool readOnly() const;
};

// Parses mountinfo text; lines that do not have the expected fields are
// skipped.
std::vector<MountEntry> parseMountInfo(std::string_view text);

// Reads `root`/proc/self/mountinfo; empty when it cannot be read.
std::vector<MountEntry> readMountInfo(const std::string& root);

// The entry mounted over `path` (an absolute, normalised path): the one with
// the longest mount point that is `path` or one of its parent folders; the
// later entry wins for equal mount points, as the later mount hides the
// earlier. Null when none matches.
const MountEntry* findMountForPath(const std::vector<MountEntry>& table, std::string_view path);

// Whether the block device major:minor is removable: the device or a disk
// above it carries removable = 1 in sysfs, or it sits on a USB or MMC bus.
// Reads `root`/sys/dev/block/MAJ:MIN and the device folders it leads to.
// False when the device is not in sysfs (network and virtual file systems).
bool isRemovableBlockDevice(const std::string& root, unsigned major, unsigned minor);

// The type name the volume test compares: "cifs" and "smb3" answer "smbfs";
// every other name is kept.
std::string volumeTypeName(const std::string& fsType);

}  // namespace quarvel
