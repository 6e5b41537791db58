// The host readers over a scratch root laid out from arbitrary bytes: the
// input's parts, split at zero bytes, are an interface's ifindex, iflink,
// type, flags and uevent, its device's bus, the USB product, a disk's
// removable flag, its controller's bus, the mount table, user-dirs.dirs and
// os-release (a missing part leaves its file out, a bus that is no plain name
// its link). The readers must agree with one another.

#include <array>

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
using fuzz::fail;

// The parts that the checks read again, by their place in the input.
constexpr std::size_t kUevent = 4, kDeviceBus = 5, kRemovable = 7, kDiskBus = 8, kMountInfo = 9;
constexpr std::size_t kOsRelease = 11;

// The scratch root and the places the parts go, made once.
struct Tree {
  fs::path root = fuzz::scratchFolder(), sys = root / "sys", interface = sys / "class/net/eth0";
  fs::path usbDevice = sys / "devices/usb1/1-1", usbInterface = usbDevice / "1-1:1.0";
  fs::path controller = sys / "devices/pci0", disk = controller / "host0/block/sdb",
           config = root / "config";
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
};

bool isPlainName(std::string_view name) {
  return !name.empty() && name.size() < 200 && name != "." && name != ".." &&
         name.find('/') == std::string::npos;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const Tree& tree = *new Tree();
  const std::vector<std::string_view> given =
      fuzz::parts(fuzz::asText(data, size), '\0', kOsRelease + 1);
  const auto part = [&](std::size_t p) {
    return p < given.size() ? std::optional(given[p]) : std::nullopt;
  };
  const auto bus = [&](std::size_t p) {
    return part(p) && isPlainName(*part(p)) ? std::string(*part(p)) : "";
  };
  for (std::size_t i = 0; i < tree.files.size(); ++i) {
    std::error_code ec;
    fs::remove(tree.files[i], ec);
    if (i == kDeviceBus || i == kDiskBus) {
      if (!bus(i).empty())
        fs::create_directory_symlink(
            std::string(i == kDeviceBus ? "../../../../" : "../../") + "bus/" + bus(i),
            tree.files[i], ec);
    } else if (part(i)) {
      fuzz::writeFile(tree.files[i], *part(i));
    }
  }

  // The interface.
  const DeviceFacts facts = readDeviceFacts(tree.interface);
  if (!facts.hasDevice || facts.name != "eth0" || facts.bus != bus(kDeviceBus))
    fail("device link misread");
  const auto values = part(kUevent) ? parseUevent(*part(kUevent)) : decltype(parseUevent("")){};
  const auto devtype = values.find("DEVTYPE");
  if (facts.devtype != (devtype == values.end() ? "" : devtype->second))
    fail("DEVTYPE differs from the uevent parser");
  if (trimWhitespaceAndNewlines(facts.product) != facts.product) fail("product not trimmed");
  if (!facts.product.empty() && facts.bus != "usb") fail("product read off a USB bus");
  if (const auto port = hardwarePortName(facts); port && port->empty()) fail("empty port name");
  const bool cellular = KernelRouteSource::isCellularLink(tree.sys.string(), "eth0",
                                                          static_cast<std::uint16_t>(facts.type));
  if (facts.devtype == "wwan" && !cellular) fail("a wwan device is not cellular");

  // The disk: removable when its flag says 1 or its controller sits on a USB
  // or MMC bus, and not when neither can be read so.
  const bool removable = isRemovableBlockDevice(tree.root.string(), 8, 17);
  const std::string flag = trimWhitespaceAndNewlines(part(kRemovable).value_or(""));
  if ((flag == "1" && part(kRemovable)->size() <= 64) || bus(kDiskBus) == "usb" ||
      bus(kDiskBus) == "mmc") {
    if (!removable) fail("removable disk not seen");
  } else if (!flag.starts_with('1') && removable) {
    fail("fixed disk taken for removable");
  }

  // The mount table and the volume under the scratch root.
  const std::vector<MountEntry> table = readMountInfo(tree.root.string());
  if (table.size() != (part(kMountInfo) ? parseMountInfo(*part(kMountInfo)).size() : 0))
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
  if (!documents.starts_with('/') || (documents.size() > 1 && documents.ends_with('/')))
    fail("documents folder not absolute or ending in '/'");

  // The system's name and version, one line ending in the kernel's release.
  const std::string version = detail::systemVersionText(part(kOsRelease).value_or(""), "6.1.0");
  if (!version.ends_with(" (Kernel 6.1.0)") || version.size() == 15 ||
      version.find('\n') != std::string::npos)
    fail("system version text malformed");
  return 0;
}
