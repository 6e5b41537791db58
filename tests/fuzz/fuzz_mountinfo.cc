// The mountinfo parser and the mount lookup on arbitrary text. The first
// line doubles as the path to look up.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "settings/MountTable.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string text(reinterpret_cast<const char*>(data), size);
  std::vector<quarvel::MountEntry> table = quarvel::parseMountInfo(text);
  std::string path = text.substr(0, text.find('\n'));
  for (const std::string& p : {path, std::string("/"), std::string("/media/usb/app")}) {
    const quarvel::MountEntry* found = quarvel::findMountForPath(table, p);
    if (found && found->mountPoint != "/" &&
        p.compare(0, found->mountPoint.size(), found->mountPoint) != 0)
      std::abort();
  }
  for (const quarvel::MountEntry& entry : table) {
    if (entry.mountPoint.empty() || entry.mountPoint[0] != '/') std::abort();
    (void)entry.readOnly();
    (void)quarvel::volumeTypeName(entry.fsType);
  }
  return 0;
}
