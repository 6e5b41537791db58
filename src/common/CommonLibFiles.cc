// CommonLib's date stamps, file tests, folder creation and system version.

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <map>
#include <sstream>
#include <string>

#include "common/Platform.h"
#include "common/detail/CommonLibDetail.h"
#include "quarvel/CommonLib.h"

namespace quarvel {
namespace detail {
namespace {

std::string stamp(std::time_t when, const char* format) {
  struct tm local {};
  if (localtime_r(&when, &local) == nullptr) return "";
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, format, local.tm_year + 1900, local.tm_mon + 1,
                local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
  return buffer;
}

// Unquotes an os-release value: "..." with backslash escapes, '...' as is.
std::string unquote(std::string_view value) {
  if (value.size() >= 2 && value.front() == '\'' && value.back() == '\'')
    return std::string(value.substr(1, value.size() - 2));
  if (value.size() >= 2 && value.front() == '"' && value.back() == '"') {
    std::string out;
    value = value.substr(1, value.size() - 2);
    for (std::size_t i = 0; i < value.size(); ++i) {
      if (value[i] == '\\' && i + 1 < value.size()) ++i;
      out += value[i];
    }
    return out;
  }
  return std::string(value);
}

std::map<std::string, std::string> parseOsRelease(std::string_view text) {
  std::map<std::string, std::string> fields;
  std::istringstream lines{std::string(text)};
  std::string line;
  while (std::getline(lines, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    const auto equals = line.find('=');
    if (line.empty() || line[0] == '#' || equals == std::string::npos) continue;
    fields[line.substr(0, equals)] = unquote(std::string_view(line).substr(equals + 1));
  }
  return fields;
}

std::string readOsRelease() {
  for (const char* path : {"/etc/os-release", "/usr/lib/os-release"}) {
    std::ifstream in(path);
    if (!in) continue;
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
  }
  return "";
}

bool statxOf(const char* path, unsigned mask, struct statx& info) {
  return path != nullptr && statx(AT_FDCWD, path, AT_STATX_SYNC_AS_STAT, mask, &info) == 0;
}

}  // namespace

std::string fileDateStamp(std::time_t when) { return stamp(when, "%d%.2d%.2d_%.2d%.2d%.2d"); }

std::time_t creationTime(const struct statx& info) {
  if ((info.stx_mask & STATX_BTIME) && (info.stx_btime.tv_sec != 0 || info.stx_btime.tv_nsec != 0))
    return static_cast<std::time_t>(info.stx_btime.tv_sec);
  return static_cast<std::time_t>(info.stx_mtime.tv_sec);
}

std::string systemVersionText(std::string_view osRelease, std::string_view kernelRelease) {
  auto fields = parseOsRelease(osRelease);
  auto field = [&](const char* key) {
    auto it = fields.find(key);
    return it == fields.end() ? std::string() : it->second;
  };
  std::string text = field("NAME");
  std::string version = field("VERSION");
  if (version.empty()) version = field("VERSION_ID");
  if (text.empty()) {
    text = field("PRETTY_NAME");
    if (!text.empty()) version.clear();  // the pretty name carries its version
  }
  if (text.empty()) text = "Linux";
  if (!version.empty()) text += " " + version;
  if (!kernelRelease.empty()) text += " (Kernel " + std::string(kernelRelease) + ")";
  return text;
}

}  // namespace detail

std::string CommonLib::getToday() {
  return detail::stamp(std::chrono::system_clock::to_time_t(Platform::current()->wallNow()),
                       "%d%.2d%.2d%.2d%.2d%.2d");
}

std::string CommonLib::getFileCreateDate(const char* path) {
  struct statx info {};
  if (!detail::statxOf(path, STATX_BTIME | STATX_MTIME, info)) return "";
  return detail::fileDateStamp(detail::creationTime(info));
}

std::string CommonLib::getFileAccessDate(const char* path) {
  struct stat info {};
  if (path == nullptr || stat(path, &info) != 0) return "";
  return detail::fileDateStamp(info.st_atime);
}

bool CommonLib::isExists(const char* path) { return path != nullptr && access(path, F_OK) == 0; }

bool CommonLib::isDirectory(const char* path) {
  struct stat info {};
  return path != nullptr && stat(path, &info) == 0 && S_ISDIR(info.st_mode);
}

void CommonLib::mkdirs(const char* path) { mkdirs(path, true); }

void CommonLib::mkdirs(const char* path, bool makeLastPath) {
  if (path == nullptr) return;
  constexpr std::size_t kLimit = 1024;
  char buffer[kLimit + 1];
  const std::size_t length = strnlen(path, kLimit);  // never reads past a shorter path
  std::memcpy(buffer, path, length);
  buffer[length] = '\0';
  for (std::size_t i = 0; i < length; ++i) {
    if (buffer[i] != '/' || i == 0) continue;  // the empty prefix before a leading '/' is skipped
    buffer[i] = '\0';
    if (access(buffer, F_OK) != 0) mkdir(buffer, 0755);
    buffer[i] = '/';
  }
  if (makeLastPath && access(buffer, F_OK) != 0) mkdir(buffer, 0755);
}

std::string CommonLib::getOSXVersion() {
  struct utsname names {};
  const std::string release = uname(&names) == 0 ? names.release : "";
  return detail::systemVersionText(detail::readOsRelease(), release);
}

}  // namespace quarvel
