#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>

#include "settings/HostEnvironment.h"
#include "settings/MountTable.h"
#include "support/ScratchDir.h"
#include "support/SettingsSandbox.h"

namespace quarvel {
namespace {

namespace fs = std::filesystem;

// Malformed lines (the ones after an empty line) are skipped.
TEST(MountTableTest, ParsesFieldsEscapesAndOptionalTagsAndSkipsMalformedLines) {
  std::vector<std::string> read;
  for (const MountEntry& e : parseMountInfo(
           "22 1 8:2 / / rw,relatime shared:1 - ext4 /dev/sda2 rw,errors=remount-ro\n"
           "95 22 8:17 / /media/user/MY\\040STICK rw,nosuid,nodev shared:50 master:3 - vfat "
           "/dev/sdb1 rw,uid=1000\n"
           "96 22 0:55 / /mnt/share rw,relatime - cifs //server/share rw,vers=3.0\n"
           "97 22 0:56 / /mnt/cd ro,relatime - iso9660 /dev/sr0 ro\n"
           "98 22 0:57 / /mnt/late rw - ext4 /dev/sdc1 ro\n"
           "99 22 0:58 / /mnt/a\\134b rw - ext4 /dev/sdd1 rw\n"
           "\n"
           "22 1 8:2 / / rw shared:1 ext4 /dev/sda2 rw\n"           // no separator
           "22 1 8:2 / / rw - ext4\n"                               // no source
           "22 1 8:2 / / rw shared:1 master:2 unbindable - ext4\n"  // tags, then no source
           "22 1 eight:2 / / rw - ext4 /dev/sda2 rw\n"              // bad device number
           "22 1 8:2 / relative rw - ext4 /dev/sda2 rw\n"           // mount point not absolute
           "22 1 8 / / rw - ext4 /dev/sda2 rw"))                    // no minor
    read.push_back(std::to_string(e.major) + ":" + std::to_string(e.minor) + " " + e.mountPoint +
                   " " + e.fsType + " " + e.source + " " + e.superOptions +
                   (e.readOnly() ? " (read-only)" : ""));
  EXPECT_EQ(read, (std::vector<std::string>{
                      "8:2 / ext4 /dev/sda2 rw,errors=remount-ro",
                      "8:17 /media/user/MY STICK vfat /dev/sdb1 rw,uid=1000",
                      "0:55 /mnt/share cifs //server/share rw,vers=3.0",
                      "0:56 /mnt/cd iso9660 /dev/sr0 ro (read-only)",
                      // A read-only superblock under a read-write mount.
                      "0:57 /mnt/late ext4 /dev/sdc1 ro (read-only)",
                      "0:58 /mnt/a\\b ext4 /dev/sdd1 rw",
                  }));
}

TEST(MountTableTest, FindsTheDeepestAndLatestMount) {
  std::vector<MountEntry> table = parseMountInfo(
      "1 0 8:1 / / rw - ext4 /dev/sda1 rw\n"
      "2 1 8:17 / /media/usb rw - vfat /dev/sdb1 rw\n"
      "3 1 8:33 / /media/usb rw - exfat /dev/sdc1 rw\n"  // mounted over the one above
      "4 1 8:49 / /media/usb/inner rw - ext4 /dev/sdd1 rw\n");
  const std::pair<const char*, const char*> cases[] = {
      {"/", "/dev/sda1"},
      {"/media/usb", "/dev/sdc1"},
      {"/media/usb/app", "/dev/sdc1"},
      {"/media/usbother", "/dev/sda1"},  // shares a prefix, not a folder
      {"/media/usb/inner/x", "/dev/sdd1"},
  };
  for (const auto& [path, source] : cases) {
    const MountEntry* found = findMountForPath(table, path);
    EXPECT_EQ(found ? found->source : "none", source) << path;
  }
  EXPECT_EQ(findMountForPath({}, "/x"), nullptr);
}

// A sysfs tree under a temporary root, shaped as the kernel lays it out:
// /sys/dev/block/MAJ:MIN links into /sys/devices, partitions sit inside their
// disk, "subsystem" links name the bus. Then volumes mounted from it.
TEST(SysfsTree, RemovableDisksBusesAndVolumes) {
  testing::ScratchDir scratch;
  const fs::path root = scratch.path();
  for (const char* folder : {"sys/dev/block", "sys/bus/usb", "sys/bus/mmc", "sys/bus/pci"})
    fs::create_directories(root / folder);
  // A disk folder (relative to /sys/devices) with its removable flag and one
  // partition, on a bus when `bus` names one (at `busFolder`, its ancestor).
  auto addDisk = [&](const std::string& folder, const char* removable, const std::string& number,
                     const std::string& partition, const char* bus = nullptr,
                     const std::string& busFolder = "") {
    const fs::path disk = root / "sys/devices" / folder;
    fs::create_directories(disk / "part1");
    std::ofstream(disk / "removable") << removable << "\n";
    for (const auto& [target, name] : {std::pair{folder, number}, {folder + "/part1", partition}})
      fs::create_directory_symlink("../../devices/" + target, root / "sys/dev/block" / name);
    if (bus)
      fs::create_directory_symlink(
          fs::relative(root / "sys/bus" / bus, root / "sys/devices" / busFolder),
          root / "sys/devices" / busFolder / "subsystem");
  };
  addDisk("pci0000:00/ata1/host0/block/sda", "0", "8:0", "8:1", "pci", "pci0000:00");
  addDisk("virtual/block/sdb", "1", "8:16", "8:17");
  addDisk("pci0000:00/usb2/2-1/host6/block/sdc", "0", "8:32", "8:33", "usb", "pci0000:00/usb2/2-1");
  addDisk("platform/mmc_host/mmc0/mmc0:0001/block/mmcblk0", "0", "179:0", "179:1", "mmc",
          "platform/mmc_host/mmc0/mmc0:0001");
  const struct {
    unsigned major, minor;
    bool removable;
    const char* why;
  } disks[] = {
      {8, 1, false, "partition of an internal disk"},
      {8, 16, true, "disk flagged removable"},
      {8, 33, true, "partition of a disk on a USB bus"},
      {179, 1, true, "partition of an MMC card"},
      {0, 55, false, "no block device (network file system)"},
  };
  for (const auto& c : disks)
    EXPECT_EQ(isRemovableBlockDevice(root.string(), c.major, c.minor), c.removable) << c.why;

  // Three folders stand for three volumes; the mount table is written with
  // their real (canonical) paths.
  const fs::path usb = root / "volumes/usb", share = root / "volumes/share",
                 cd = root / "volumes/cd";
  for (const fs::path& p : {usb, share / "tools", cd}) fs::create_directories(p);
  auto real = [](const fs::path& p) { return fs::canonical(p).string(); };
  fs::create_directories(root / "proc/self");
  std::ofstream(root / "proc/self/mountinfo")
      << "1 0 8:1 / / rw - ext4 /dev/sda1 rw\n"
      << "2 1 8:17 / " << real(usb) << " rw - vfat /dev/sdb1 rw\n"
      << "3 1 0:60 / " << real(share) << " rw - smb3 //host/share rw\n"
      << "4 1 0:61 / " << real(cd) << " ro - iso9660 /dev/sr0 ro\n";
  SystemHostEnvironment environment(root.string());
  // removable, writable, unmountable, type, the volume's root; or "none"
  auto describe = [](const std::optional<VolumeFacts>& f) -> std::string {
    if (!f) return "none";
    return std::to_string(f->removable) + std::to_string(f->writable) +
           std::to_string(f->unmountable) + " " + f->type.value_or("?") +
           (f->isVolumeRoot ? " root" : "");
  };
  const std::pair<fs::path, const char*> volumes[] = {
      {usb, "111 vfat root"},         {share, "011 smbfs root"},
      {share / "tools", "011 smbfs"},  // a folder inside the share is not its root
      {cd, "001 iso9660 root"},       {root / "missing", "none"},
  };
  for (const auto& [path, facts] : volumes)
    EXPECT_EQ(describe(environment.volumeFacts(path.string())), facts) << path;
}

TEST(HostEnvironmentTest, DocumentsFolderFromUserDirs) {
  testing::SettingsSandbox sandbox;  // puts the environment back at the end
  const std::string config = sandbox.root() + "/config";
  ::unsetenv("XDG_DOCUMENTS_DIR");
  const std::pair<const char*, const char*> cases[] = {
      {nullptr, "/home/u/Documents"},  // no file
      {"# written by xdg-user-dirs-update\nXDG_DESKTOP_DIR=\"$HOME/Desktop\"\n"
       "XDG_DOCUMENTS_DIR=\"$HOME/문서\"\n",
       "/home/u/문서"},
      {"XDG_DOCUMENTS_DIR=\"/srv/docs\"\n", "/srv/docs"},
      {"XDG_DOCUMENTS_DIR=\"relative\"\n", "/home/u/Documents"},
  };
  for (const auto& [userDirs, expected] : cases) {
    if (userDirs) std::ofstream(config + "/user-dirs.dirs") << userDirs;
    EXPECT_EQ(xdgDocumentsDirectory("/home/u", config), expected);
  }
  ::setenv("XDG_DOCUMENTS_DIR", "/explicit", 1);
  EXPECT_EQ(xdgDocumentsDirectory("/home/u", config), "/explicit");
}

}  // namespace
}  // namespace quarvel
