#include <gtest/gtest.h>

#include <filesystem>

#include "quarvel/CVUserDefaults.h"
#include "settings/WorkFolders.h"
#include "support/SettingsSandbox.h"
#include "support/TestPlatform.h"

namespace quarvel {
namespace {

namespace fs = std::filesystem;

// Answers fixed facts: the host program lies at bundle, its volume has
// `facts`, and the user's folders are those of the sandbox.
class FakeHostEnvironment : public HostEnvironment {
 public:
  FakeHostEnvironment(const std::string& root, std::optional<VolumeFacts> facts)
      : root_(root), facts_(std::move(facts)) {}
  std::optional<std::string> bundlePath() const override { return root_ + "/volume/QuarvelApp"; }
  std::optional<VolumeFacts> volumeFacts(const std::string& path) const override {
    EXPECT_EQ(path, *bundlePath());
    return facts_;
  }
  std::optional<std::string> homeDirectory() const override { return root_ + "/home"; }
  std::optional<std::string> documentsDirectory() const override {
    return root_ + "/home/Documents";
  }
  std::optional<std::string> userLibraryDirectory() const override { return root_ + "/data"; }

 private:
  std::string root_;
  std::optional<VolumeFacts> facts_;
};

using F = VolumeFacts;  // removable, writable, unmountable, type, isVolumeRoot

TEST(WorkFoldersTest, PortableRule) {
  struct Case {
    const char* why;
    std::optional<VolumeFacts> facts;
    bool portable;
  } cases[] = {
      {"network share, not removable", F{false, true, true, "smbfs"}, true},
      {"AFP share", F{false, true, true, "afpfs"}, true},
      {"removable local disk", F{true, true, true, "vfat"}, true},
      {"removable but read-only", F{true, false, true, "vfat"}, false},
      {"removable but the root file system", F{true, true, false, "ext4"}, false},
      {"share spelt in capitals", F{false, true, true, "SMBFS"}, false},
      {"no type", F{false, true, true, std::nullopt}, false},
      {"query failed", std::nullopt, false},
  };
  for (const Case& c : cases) EXPECT_EQ(isPortableVolume(c.facts), c.portable) << c.why;
}

// The whole start-up against each kind of volume: where the work folder,
// the library folder and a data file end up. A portable run keeps its
// library in its work folder, any other in the user's Library folder, and
// so does a run whose volume turns read-only.
TEST(WorkFoldersTest, StartUpPlacesFoldersByVolume) {
  struct Case {
    const char* why;
    std::optional<VolumeFacts> facts;
    bool isLite;
    std::string base;  // relative to the sandbox root
  } cases[] = {
      {"share, hidden name", F{false, true, true, "smbfs"}, false, "/volume/.Quarvel"},
      {"removable disk, visible name", F{true, true, true, "exfat"}, true, "/volume/Quarvel"},
      // The program's folder is the share itself: its parent is another disk.
      {"program at the root of a share", F{false, true, true, "smbfs", true}, false,
       "/volume/QuarvelApp/.Quarvel"},
      {"program at the root of a removable disk", F{true, true, true, "vfat", true}, true,
       "/volume/QuarvelApp/Quarvel"},
      {"start-up disk mounted at the program's folder", F{false, true, false, "ext4", true}, false,
       "/home/Documents/.Quarvel"},
      {"start-up disk, visible name", F{false, true, false, "ext4"}, true,
       "/home/Documents/Quarvel"},
  };
  for (const Case& c : cases) {
    testing::SettingsSandbox sandbox;
    const std::string& root = sandbox.root();
    const std::string library = c.base.starts_with("/volume") ? c.base : "/data/Quarvel";
    testing::TestPlatform platform;
    platform->host = std::make_shared<FakeHostEnvironment>(root, c.facts);
    CVUserDefaults* defaults = CVUserDefaults::standardUserDefaultsWithisLiteVer(c.isLite);

    EXPECT_EQ(defaults->defaultPath(), root + c.base) << c.why;
    EXPECT_EQ(defaults->libraryPath(), root + library);
    EXPECT_EQ(defaults->checkListFilePath(), root + library + "/macchecklist.dat");
    EXPECT_EQ(defaults->userCheckListFilePath(), root + library + "/userchecklist.dat");
    EXPECT_EQ(defaults->LOGSFolderPath(), root + c.base + "/CheckOut/Logs");
    for (const char* folder : {"IPT", "TLS", "RST", "TMP_IPT", "TMP_TLS", "TMP_RST", "Logs"})
      EXPECT_TRUE(fs::is_directory(root + c.base + "/CheckOut/" + folder)) << folder;
    // The user Library folder is made in every run, portable or not.
    EXPECT_TRUE(fs::is_directory(root + "/data/Quarvel"));

    // The volume turns read-only: data files move home; the base path stays.
    F readOnly = *c.facts;
    readOnly.writable = false;
    platform->host = std::make_shared<FakeHostEnvironment>(root, readOnly);
    EXPECT_EQ(defaults->libraryPath(), root + "/data/Quarvel");
    EXPECT_EQ(defaults->verFilePath(), root + "/data/Quarvel/ver.dat");
    EXPECT_EQ(defaults->defaultPath(), root + c.base);
  }
}

}  // namespace
}  // namespace quarvel
