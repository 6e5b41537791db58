#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>

#include "settings/HostEnvironment.h"
#include "settings/MountTable.h"
#include "support/ScratchDir.h"

namespace quarvel {
namespace {

namespace fs = std::filesystem;

TEST(MountTableTest, ParsesFieldsEscapesAndOptionalTags) {
  const std::string text =
      "22 1 8:2 / / rw,relatime shared:1 - ext4 /dev/sda2 rw,errors=remount-ro\n"
      "95 22 8:17 / /media/user/MY\\040STICK rw,nosuid,nodev shared:50 master:3 - vfat /dev/sdb1 "
      "rw,uid=1000\n"
      "96 22 0:55 / /mnt/share rw,relatime - cifs //server/share rw,vers=3.0\n"
      "97 22 0:56 / /mnt/cd ro,relatime - iso9660 /dev/sr0 ro\n"
      "98 22 0:57 / /mnt/late rw - ext4 /dev/sdc1 ro\n"
      "99 22 0:58 / /mnt/a\\134b rw - ext4 /dev/sdd1 rw\n";
  std::vector<MountEntry> table = parseMountInfo(text);
  ASSERT_EQ(table.size(), 6u);
  EXPECT_EQ(table[0].mountPoint, "/");
  EXPECT_EQ(table[0].major, 8u);
  EXPECT_EQ(table[0].minor, 2u);
  EXPECT_EQ(table[1].mountPoint, "/media/user/MY STICK");
  EXPECT_EQ(table[1].fsType, "vfat");
  EXPECT_EQ(table[1].source, "/dev/sdb1");
  EXPECT_EQ(table[1].superOptions, "rw,uid=1000");
  EXPECT_FALSE(table[1].readOnly());
  EXPECT_EQ(table[2].fsType, "cifs");
  EXPECT_TRUE(table[3].readOnly());
  EXPECT_TRUE(table[4].readOnly()) << "read-only superblock under a read-write mount";
  EXPECT_EQ(table[5].mountPoint, "/mnt/a\\b");
}

TEST(MountTableTest, SkipsMalformedLines) {
  const std::string lines[] = {
      "",
      "22 1 8:2 / / rw shared:1 ext4 /dev/sda2 rw",           // no separator
      "22 1 8:2 / / rw - ext4",                               // no source
      "22 1 8:2 / / rw shared:1 master:2 unbindable - ext4",  // tags, then no source
      "22 1 eight:2 / / rw - ext4 /dev/sda2 rw",              // bad device number
      "22 1 8:2 / relative rw - ext4 /dev/sda2 rw",           // mount point not absolute
      "22 1 8 / / rw - ext4 /dev/sda2 rw",                    // no minor
  };
  for (const std::string& line : lines) {
    SCOPED_TRACE(line);
    EXPECT_TRUE(parseMountInfo(line).empty());
  }
}

TEST(MountTableTest, FindsTheDeepestAndLatestMount) {
  std::vector<MountEntry> table = parseMountInfo(
      "1 0 8:1 / / rw - ext4 /dev/sda1 rw\n"
      "2 1 8:17 / /media/usb rw - vfat /dev/sdb1 rw\n"
      "3 1 8:33 / /media/usb rw - exfat /dev/sdc1 rw\n"  // mounted over the one above
      "4 1 8:49 / /media/usb/inner rw - ext4 /dev/sdd1 rw\n");
  struct Case {
    const char* path;
    const char* type;
  } cases[] = {
      {"/", "ext4"},
      {"/home/user", "ext4"},
      {"/media/usb", "exfat"},
      {"/media/usb/app", "exfat"},
      {"/media/usbother", "ext4"},  // shares a prefix, not a folder
      {"/media/usb/inner/x", "ext4"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path);
    const MountEntry* found = findMountForPath(table, c.path);
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->fsType, c.type);
  }
  EXPECT_EQ(findMountForPath({}, "/x"), nullptr);
}

// A sysfs tree under a temporary root, shaped as the kernel lays it out:
// /sys/dev/block/MAJ:MIN links into /sys/devices, partitions sit inside their
// disk, "subsystem" links name the bus.
class SysfsTree : public ::testing::Test {
 protected:
  SysfsTree() {
    for (const char* folder :
         {"sys/dev/block", "sys/bus/usb", "sys/bus/mmc", "sys/bus/pci", "proc/self"})
      fs::create_directories(root_ / folder);
  }
  // Adds a disk folder (relative to /sys/devices) with its removable flag
  // and one partition; links both device numbers.
  void addDisk(const std::string& diskFolder, const char* removable, const std::string& diskNumber,
               const std::string& partitionNumber) {
    fs::path disk = root_ / "sys/devices" / diskFolder;
    fs::create_directories(disk / "part1");
    std::ofstream(disk / "removable") << removable << "\n";
    link(diskFolder, diskNumber);
    link(diskFolder + "/part1", partitionNumber);
  }
  void link(const std::string& deviceFolder, const std::string& number) {
    fs::create_directory_symlink("../../devices/" + deviceFolder, root_ / "sys/dev/block" / number);
  }
  void markBus(const std::string& deviceFolder, const std::string& bus) {
    fs::create_directory_symlink(
        fs::relative(root_ / "sys/bus" / bus, root_ / "sys/devices" / deviceFolder),
        root_ / "sys/devices" / deviceFolder / "subsystem");
  }
  testing::ScratchDir scratch_;
  fs::path root_ = scratch_.path();
};

TEST_F(SysfsTree, RemovableDisksAndBuses) {
  addDisk("pci0000:00/ata1/host0/block/sda", "0", "8:0", "8:1");
  markBus("pci0000:00", "pci");
  addDisk("virtual/block/sdb", "1", "8:16", "8:17");
  fs::create_directories(root_ / "sys/devices/pci0000:00/usb2/2-1");
  markBus("pci0000:00/usb2/2-1", "usb");
  addDisk("pci0000:00/usb2/2-1/host6/block/sdc", "0", "8:32", "8:33");
  fs::create_directories(root_ / "sys/devices/platform/mmc_host/mmc0/mmc0:0001");
  markBus("platform/mmc_host/mmc0/mmc0:0001", "mmc");
  addDisk("platform/mmc_host/mmc0/mmc0:0001/block/mmcblk0", "0", "179:0", "179:1");

  struct Case {
    unsigned major, minor;
    bool removable;
    const char* why;
  } cases[] = {
      {8, 0, false, "internal disk"},
      {8, 1, false, "its partition"},
      {8, 16, true, "disk flagged removable"},
      {8, 17, true, "partition of a removable disk"},
      {8, 33, true, "partition of a disk on a USB bus"},
      {179, 1, true, "partition of an MMC card"},
      {0, 55, false, "no block device (network file system)"},
      {9, 9, false, "unknown device"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.why);
    EXPECT_EQ(isRemovableBlockDevice(root_.string(), c.major, c.minor), c.removable);
  }
}

TEST_F(SysfsTree, SystemEnvironmentCombinesMountsAndSysfs) {
  addDisk("virtual/block/sdb", "1", "8:16", "8:17");
  // Three folders stand for three volumes; the mount table is written with
  // their real (canonical) paths.
  fs::path usb = root_ / "volumes/usb", share = root_ / "volumes/share", cd = root_ / "volumes/cd";
  for (const fs::path& p : {usb, share, cd}) fs::create_directories(p);
  auto real = [](const fs::path& p) { return fs::canonical(p).string(); };
  std::ofstream(root_ / "proc/self/mountinfo")
      << "1 0 8:1 / / rw - ext4 /dev/sda1 rw\n"
      << "2 1 8:17 / " << real(usb) << " rw - vfat /dev/sdb1 rw\n"
      << "3 1 0:60 / " << real(share) << " rw - smb3 //host/share rw\n"
      << "4 1 0:61 / " << real(cd) << " ro - iso9660 /dev/sr0 ro\n";
  fs::create_directories(share / "tools");
  SystemHostEnvironment environment(root_.string());
  const struct {
    fs::path path;
    std::optional<VolumeFacts> facts;
  } cases[] = {
      {usb, VolumeFacts{true, true, true, "vfat", true}},
      {share, VolumeFacts{false, true, true, "smbfs", true}},
      // A folder inside the share is not the share's root.
      {share / "tools", VolumeFacts{false, true, true, "smbfs", false}},
      {cd, VolumeFacts{false, false, true, "iso9660", true}},
      {root_ / "missing", std::nullopt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.path);
    const auto facts = environment.volumeFacts(c.path.string());
    ASSERT_EQ(facts.has_value(), c.facts.has_value());
    if (!facts) continue;
    EXPECT_EQ(facts->removable, c.facts->removable);
    EXPECT_EQ(facts->writable, c.facts->writable);
    EXPECT_EQ(facts->unmountable, c.facts->unmountable);
    EXPECT_EQ(facts->type, c.facts->type);
    EXPECT_EQ(facts->isVolumeRoot, c.facts->isVolumeRoot);
  }
}

TEST(HostEnvironmentTest, DocumentsFolderFromUserDirs) {
  testing::ScratchDir config;
  const char* saved = std::getenv("XDG_DOCUMENTS_DIR");
  const std::string savedValue = saved ? saved : "";
  ::unsetenv("XDG_DOCUMENTS_DIR");
  struct Case {
    const char* userDirs;  // null: no file
    const char* expected;
  } cases[] = {
      {nullptr, "/home/u/Documents"},
      {"# written by xdg-user-dirs-update\nXDG_DESKTOP_DIR=\"$HOME/Desktop\"\n"
       "XDG_DOCUMENTS_DIR=\"$HOME/문서\"\n",
       "/home/u/문서"},
      {"XDG_DOCUMENTS_DIR=\"/srv/docs\"\n", "/srv/docs"},
      {"XDG_DOCUMENTS_DIR=\"relative\"\n", "/home/u/Documents"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.expected);
    if (c.userDirs) std::ofstream(config / "user-dirs.dirs") << c.userDirs;
    EXPECT_EQ(xdgDocumentsDirectory("/home/u", config.path()), c.expected);
  }
  ::setenv("XDG_DOCUMENTS_DIR", "/explicit", 1);
  EXPECT_EQ(xdgDocumentsDirectory("/home/u", config.path()), "/explicit");
  if (saved)
    ::setenv("XDG_DOCUMENTS_DIR", savedValue.c_str(), 1);
  else
    ::unsetenv("XDG_DOCUMENTS_DIR");
}

}  // namespace
}  // namespace quarvel
