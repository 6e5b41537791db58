#include "settings/MountTable.h"

#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

#include "common/StringUtil.h"

namespace quarvel {

namespace fs = std::filesystem;

namespace {

// mountinfo writes space, tab, newline and backslash in paths as \ooo.
std::string decodeOctalEscapes(std::string_view field) {
  std::string out;
  out.reserve(field.size());
  for (std::size_t i = 0; i < field.size(); ++i) {
    auto isOctal = [](char c) { return c >= '0' && c <= '7'; };
    if (field[i] == '\\' && i + 3 < field.size() && isOctal(field[i + 1]) &&
        isOctal(field[i + 2]) && isOctal(field[i + 3])) {
      int value = (field[i + 1] - '0') * 64 + (field[i + 2] - '0') * 8 + (field[i + 3] - '0');
      out.push_back(static_cast<char>(value & 0xFF));
      i += 3;
      continue;
    }
    out.push_back(field[i]);
  }
  return out;
}

std::vector<std::string_view> fieldsOf(std::string_view line) {
  std::vector<std::string_view> fields;
  std::size_t i = 0;
  while (i < line.size()) {
    while (i < line.size() && line[i] == ' ') ++i;
    std::size_t start = i;
    while (i < line.size() && line[i] != ' ') ++i;
    if (i > start) fields.push_back(line.substr(start, i - start));
  }
  return fields;
}

bool parseUnsigned(std::string_view text, unsigned& value) {
  if (text.empty() || text.size() > 9) return false;
  unsigned v = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    v = v * 10 + static_cast<unsigned>(c - '0');
  }
  value = v;
  return true;
}

bool hasOption(const std::string& options, std::string_view flag) {
  for (const std::string& option : split(options, ","))
    if (option == flag) return true;
  return false;
}

std::string readSmallFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return {};
  std::string text(64, '\0');
  in.read(text.data(), static_cast<std::streamsize>(text.size()));
  text.resize(static_cast<std::size_t>(in.gcount()));
  return trimWhitespaceAndNewlines(text);
}

}  // namespace

bool MountEntry::readOnly() const {
  return hasOption(mountOptions, "ro") || hasOption(superOptions, "ro");
}

std::vector<MountEntry> parseMountInfo(std::string_view text) {
  // id parent major:minor root mount-point options [optional...] - type source super-options
  std::vector<MountEntry> table;
  for (const std::string& line : split(text, "\n")) {
    std::vector<std::string_view> f = fieldsOf(line);
    if (f.size() < 10) continue;
    std::size_t dash = 6;
    while (dash < f.size() && f[dash] != "-") ++dash;
    if (dash + 2 >= f.size()) continue;  // no type and source after "-"
    MountEntry entry;
    std::string_view device = f[2];
    std::size_t colon = device.find(':');
    if (colon == std::string_view::npos || !parseUnsigned(device.substr(0, colon), entry.major) ||
        !parseUnsigned(device.substr(colon + 1), entry.minor))
      continue;
    entry.mountPoint = decodeOctalEscapes(f[4]);
    if (entry.mountPoint.empty() || entry.mountPoint[0] != '/') continue;
    entry.mountOptions = std::string(f[5]);
    entry.fsType = decodeOctalEscapes(f[dash + 1]);
    entry.source = decodeOctalEscapes(f[dash + 2]);
    if (dash + 3 < f.size()) entry.superOptions = std::string(f[dash + 3]);
    table.push_back(std::move(entry));
  }
  return table;
}

std::vector<MountEntry> readMountInfo(const std::string& root) {
  std::ifstream in(fs::path(root) / "proc/self/mountinfo", std::ios::binary);
  if (!in) return {};
  std::ostringstream text;
  text << in.rdbuf();
  return parseMountInfo(text.str());
}

const MountEntry* findMountForPath(const std::vector<MountEntry>& table, std::string_view path) {
  const MountEntry* best = nullptr;
  for (const MountEntry& entry : table) {
    const std::string& point = entry.mountPoint;
    bool covers = point == "/" || (path.substr(0, point.size()) == point &&
                                   (path.size() == point.size() || path[point.size()] == '/'));
    if (covers && (!best || point.size() >= best->mountPoint.size())) best = &entry;
  }
  return best;
}

bool isRemovableBlockDevice(const std::string& root, unsigned major, unsigned minor) {
  std::error_code ec;
  fs::path sys = fs::path(root) / "sys";
  fs::path link = sys / "dev/block" / (std::to_string(major) + ":" + std::to_string(minor));
  fs::path device = fs::canonical(link, ec);
  if (ec) return false;
  fs::path devices = fs::canonical(sys / "devices", ec);
  if (ec) return false;
  // Walk from the device (a partition or a whole disk) up through the disk
  // and its controllers to /sys/devices.
  for (fs::path at = device; !at.empty(); at = at.parent_path()) {
    if (readSmallFile(at / "removable") == "1") return true;
    fs::path subsystem = fs::read_symlink(at / "subsystem", ec);
    if (!ec) {
      std::string bus = subsystem.filename().string();
      if (bus == "usb" || bus == "mmc") return true;
    }
    ec.clear();
    if (at == devices || at == at.root_path() || at.parent_path() == at) break;
  }
  return false;
}

std::string volumeTypeName(const std::string& fsType) {
  if (fsType == "cifs" || fsType == "smb3") return "smbfs";
  return fsType;
}

}  // namespace quarvel
