// The files the host readers take from sysfs, /proc, /etc and the user's
// config, from arbitrary bytes: the parts of the input, split at zero bytes,
// are in turn a network interface's ifindex, iflink, type, flags and uevent,
// the bus of its device, the USB product name, a disk's removable flag, the
// bus of its controller, the mount table, user-dirs.dirs and os-release. All
// but the last are laid out under a scratch root; a missing part leaves its
// file out, a bus that is no plain name leaves its link out. The readers run
// over the tree as they would over the machine's and must agree with one
// another.

#include <unistd.h>

#include <array>
#include <fstream>
#include <optional>
#include <string>
#include <string_view>

#include "FuzzSupport.h"
#include "common/StringUtil.h"
#include "common/detail/CommonLibDetail.h"
#include "settings/HostEnvironment.h"
#include "settings/MountTable.h"
#include "settings/SysfsServices.h"
#include "update/KernelRouteSource.h"

namespace {

namespace fs = std::filesystem;
using namespace quarvel;

enum Part {
  kIfindex,
  kIflink,
  kType,
  kFlags,
  kUevent,
  kDeviceBus,
  kProduct,
  kRemovable,
  kDiskBus,
  kMountInfo,
  kUserDirs,
  kOsRelease,
  kPartCount
};

using quarvel::fuzz::fail;

// The scratch root and the places the parts go, made once.
struct Tree {
  fs::path root = quarvel::fuzz::scratchFolder();
  fs::path sys = root / "sys";
  fs::path interface = sys / "class/net/eth0";
  fs::path usbDevice = sys / "devices/usb1/1-1";
  fs::path usbInterface = usbDevice / "1-1:1.0";
  fs::path controller = sys / "devices/pci0";
  fs::path disk = controller / "host0/block/sdb";
  fs::path config = root / "config";
  std::array<fs::path, kOsRelease> files;  // where the parts that are files go

  Tree() {
    for (const fs::path& dir :
         {interface, usbInterface, disk / "sdb1", sys / "dev/block", root / "proc/self", config})
      fs::create_directories(dir);
    fs::create_directory_symlink("../../../devices/usb1/1-1/1-1:1.0", interface / "device");
    fs::create_directory_symlink("../../devices/pci0/host0/block/sdb/sdb1", sys / "dev/block/8:17");
    files = {interface / "ifindex",        interface / "iflink",     interface / "type",
             interface / "flags",          interface / "uevent",     usbInterface / "subsystem",
             usbDevice / "product",        disk / "removable",       controller / "subsystem",
             root / "proc/self/mountinfo", config / "user-dirs.dirs"};
    root = fs::canonical(root);
    ::unsetenv("XDG_DOCUMENTS_DIR");
  }

  static const Tree& tree() {
    static const Tree* made = new Tree();
    return *made;
  }
};

bool isPlainName(const std::string& name) {
  return !name.empty() && name.size() < 200 && name != "." && name != ".." &&
         name.find('/') == std::string::npos;
}

// Puts each part in place; answers the parts (absent ones unset).
std::array<std::optional<std::string>, kPartCount> layOut(std::string_view input) {
  const Tree& tree = Tree::tree();
  std::array<std::optional<std::string>, kPartCount> parts;
  for (std::size_t i = 0; i < kPartCount && input.data() != nullptr; ++i) {
    const std::size_t end = input.find('\0');
    parts[i] = std::string(input.substr(0, end));
    input = end == std::string_view::npos ? std::string_view() : input.substr(end + 1);
  }
  for (std::size_t i = 0; i < tree.files.size(); ++i) {
    std::error_code ec;
    fs::remove(tree.files[i], ec);
    if (!parts[i]) continue;
    if (i == kDeviceBus || i == kDiskBus) {
      const int up = i == kDeviceBus ? 4 : 2;
      std::string target;
      for (int j = 0; j < up; ++j) target += "../";
      if (isPlainName(*parts[i]))
        fs::create_directory_symlink(target + "bus/" + *parts[i], tree.files[i], ec);
      continue;
    }
    std::ofstream(tree.files[i], std::ios::binary) << *parts[i];
  }
  return parts;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const Tree& tree = Tree::tree();
  const auto parts = layOut(std::string_view(reinterpret_cast<const char*>(data), size));
  const auto bus = [&](Part part) {
    return parts[part] && isPlainName(*parts[part]) ? *parts[part] : std::string();
  };

  // The interface.
  const DeviceFacts facts = readDeviceFacts(tree.interface);
  if (!facts.hasDevice || facts.name != "eth0" || facts.bus != bus(kDeviceBus))
    fail("device link misread");
  const auto values = parts[kUevent] ? parseUevent(*parts[kUevent]) : decltype(parseUevent("")){};
  const auto devtype = values.find("DEVTYPE");
  if (facts.devtype != (devtype == values.end() ? "" : devtype->second))
    fail("DEVTYPE differs from the uevent parser");
  if (trimWhitespaceAndNewlines(facts.product) != facts.product) fail("product not trimmed");
  if (!facts.product.empty() && facts.bus != "usb") fail("product read off a USB bus");
  if (const auto port = hardwarePortName(facts); port && port->empty()) fail("empty port name");
  const bool cellular = KernelRouteSource::isCellularLink(tree.sys.string(), "eth0",
                                                          static_cast<std::uint16_t>(facts.type));
  if (facts.devtype == "wwan" && !cellular) fail("a wwan device is not cellular");

  // The disk: removable when its flag says 1 or its controller sits on a
  // USB or MMC bus, and not when neither can be read so.
  const bool removable = isRemovableBlockDevice(tree.root.string(), 8, 17);
  const std::string flag = parts[kRemovable] ? trimWhitespaceAndNewlines(*parts[kRemovable]) : "";
  const bool removableBus = bus(kDiskBus) == "usb" || bus(kDiskBus) == "mmc";
  if ((flag == "1" && parts[kRemovable]->size() <= 64) || removableBus) {
    if (!removable) fail("removable disk not seen");
  } else if (!flag.starts_with('1') && removable) {
    fail("fixed disk taken for removable");
  }

  // The mount table and the volume under the scratch root.
  const std::vector<MountEntry> table = readMountInfo(tree.root.string());
  if (table.size() != (parts[kMountInfo] ? parseMountInfo(*parts[kMountInfo]).size() : 0))
    fail("mount table read differs from the parser");
  for (const MountEntry& entry : table)
    if (!(entry.major == 8 && entry.minor == 17) &&
        isRemovableBlockDevice(tree.root.string(), entry.major, entry.minor))
      fail("a device missing from sysfs taken for removable");
  const auto volume = SystemHostEnvironment(tree.root.string()).volumeFacts(tree.root.string());
  const MountEntry* mount = findMountForPath(table, tree.root.string());
  if (volume.has_value() != (mount != nullptr)) fail("volume facts without a mount");
  if (volume && volume->removable && !(mount->major == 8 && mount->minor == 17 && removable))
    fail("volume removable without its disk");

  // The documents folder named by user-dirs.dirs.
  const std::string documents = xdgDocumentsDirectory("/home/fuzz", tree.config.string());
  if (documents.empty() || documents[0] != '/') fail("documents folder not absolute");
  if (documents.size() > 1 && documents.back() == '/') fail("documents folder ends in '/'");

  // The system's name and version, one line ending in the kernel's release.
  const std::string version = detail::systemVersionText(parts[kOsRelease].value_or(""), "6.1.0");
  if (!version.ends_with(" (Kernel 6.1.0)") || version.size() == 15 ||
      version.find('\n') != std::string::npos)
    fail("system version text malformed");
  return 0;
}
