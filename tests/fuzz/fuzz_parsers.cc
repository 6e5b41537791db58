// The text and message parsers on arbitrary bytes, each held to what it
// promises of its results: service list, uevent, route table, mountinfo and
// the mount look-up, netlink batches, the settings domain reader (what it
// accepts must be written and read back equal, or the next start would lose
// settings) and the audit's desktop-entry reader.

#include <span>

#include "FuzzSupport.h"
#include "audit/DesktopEntry.h"
#include "settings/MountTable.h"
#include "settings/NetworkIdentity.h"
#include "settings/PropertyList.h"
#include "settings/SysfsServices.h"
#include "update/RouteMessages.h"

namespace {

using namespace quarvel;
using fuzz::fail;

void services(const std::string& text) {
  // Parentheses are deleted and the parts are split at commas and lines.
  for (const auto& [device, port] : parseServiceList(text))
    if ((device + port).find_first_of("(),\n") != std::string::npos)
      fail("a service list part unsplit");
  for (const auto& [key, value] : parseUevent(text))
    if (key.empty() || key.find_first_of("=\n") != std::string::npos ||
        value.find('\n') != std::string::npos)
      fail("a uevent key or value malformed");
  // Every device with facts taken from the text gets a port name or none,
  // and the ordering keeps exactly the named ones.
  const auto metrics = parseDefaultRouteMetrics(text);
  std::vector<DeviceFacts> devices;
  std::size_t named = 0;
  for (const auto& [name, metric] : metrics) {
    if (name.empty() || name.find_first_of(" \t\n") != std::string::npos)
      fail("a route's device name malformed");
    DeviceFacts& d = devices.emplace_back();
    d.name = d.devtype = d.product = name;
    d.ifindex = static_cast<int>(metric % 64);
    d.iflink = static_cast<int>(name.size());
    d.type = static_cast<int>(metric >> 8) & 0xffff;
    d.flags = metric;
    d.hasDevice = metric & 1;
    d.bus = metric & 2 ? "usb" : "pci";
    named += hardwarePortName(d).has_value();
  }
  if (orderServices(devices, metrics).size() != named) fail("ordering dropped a named service");
}

// The first line doubles as the path to look up.
void mounts(const std::string& text) {
  const std::vector<MountEntry> table = parseMountInfo(text);
  for (const std::string& p :
       {text.substr(0, text.find('\n')), std::string("/"), std::string("/media/usb/app")}) {
    const MountEntry* found = findMountForPath(table, p);
    if (found && found->mountPoint != "/" && !p.starts_with(found->mountPoint))
      fail("a mount found for a path outside it");
  }
  for (const MountEntry& entry : table) {
    if (!entry.mountPoint.starts_with('/')) fail("a relative mount point");
    (void)entry.readOnly();
    (void)volumeTypeName(entry.fsType);
  }
}

void routes(std::span<const std::uint8_t> bytes) {
  const netlink::Batch batch = netlink::parseBatch(bytes);
  for (const auto& route : batch.routes) {
    (void)netlink::flagsForRoute(route, netlink::LinkTraits{.up = true});
    (void)netlink::flagsForRoute(route, std::nullopt);
  }
  (void)netlink::defaultRoutes(batch.routes);
}

void propertyList(std::string_view bytes) {
  const std::optional<PlistValue> value = readPropertyList(bytes);
  if (!value) return;
  const std::optional<std::string> written = writePropertyList(*value);
  if (!written) fail("a value the reader accepted is refused by the writer");
  const std::optional<PlistValue> back = readPropertyList(*written);
  if (!back || !(*back == *value)) fail("the written document does not read back equal");
  if (writePropertyList(*back) != written) fail("a second write differs from the first");
  const std::optional<PlistValue> binary = readPropertyList(writeBinaryPropertyList(*value));
  if (!binary || !(*binary == *value)) fail("the binary form does not read back equal");
}

// Every program named is a non-empty name, named once, and the whole input
// as a lone Exec line, when it fits on one, names what its value alone starts.
void desktopEntry(std::string_view text) {
  const std::vector<std::string> programs = audit::execPrograms(text);
  for (auto it = programs.begin(); it != programs.end(); ++it)
    if (it->empty() || std::find(programs.begin(), it, *it) != it)
      fail("an empty program or one named twice");
  if (text.find('\n') != std::string_view::npos || text.ends_with('\r')) return;
  const std::optional<std::string> program = audit::programOfExec(text);
  if (program && program->empty()) fail("an empty program for a value");
  if (audit::execPrograms("Exec=" + std::string(text)) !=
      (program ? std::vector<std::string>{*program} : std::vector<std::string>{}))
    fail("an Exec line names other than its value");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::quietLog();  // dropped property-list values log a line each
  const std::string text(fuzz::asText(data, size));
  services(text);
  mounts(text);
  routes(std::span(data, size));
  propertyList(text);
  desktopEntry(text);
  return 0;
}
