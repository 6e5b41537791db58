// Feeds arbitrary bytes, as a raw request target, through the list server's
// decoding and routing to the file it opens, over a folder that holds plain
// files, a link to a file outside it, a FIFO and a subfolder. Checks that a
// file is opened exactly when the routing names a regular file lying
// directly in the folder, that it is that file, and that the target's log
// form holds no control character, quote or malformed UTF-8.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <fstream>
#include <map>
#include <string>

#include "FuzzSupport.h"
#include "common/StringUtil.h"
#include "server/ListServer.h"

namespace {

namespace fs = std::filesystem;

using quarvel::fuzz::fail;

void writeFile(const fs::path& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

// The served folder, made once: the regular files directly in it and what
// they hold.
struct Folder {
  fs::path root = quarvel::fuzz::scratchFolder();
  fs::path served = root / "served";
  std::map<std::string, std::string> files{{"macchecklist.dat", "check list"},
                                           {"macpcklist.dat", "package list"},
                                           {"package.dat", "windows package"},
                                           {"a b%.dat", "odd name"}};
  int fd = -1;

  Folder() {
    fs::create_directories(served / "sub");
    for (const auto& [name, text] : files) writeFile(served / name, text);
    writeFile(root / "outside.dat", "outside the folder");
    writeFile(served / "sub" / "inner.dat", "inside a subfolder");
    fs::create_symlink("../outside.dat", served / "link.dat");
    ::mkfifo((served / "fifo").c_str(), 0600);
    fd = ::open(served.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  }

  static const Folder& folder() {
    static const Folder* made = new Folder();
    return *made;
  }
};

// Well-formed UTF-8 without control characters, DEL or '"', in which every
// '\' starts an escape \xHH.
bool quotable(const std::string& text) {
  const auto hex = [&](std::size_t at) {
    return at < text.size() && std::isxdigit(static_cast<unsigned char>(text[at]));
  };
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    if (c < 0x20 || c == 0x7f || c == '"') return false;
    if (c != '\\') continue;
    if (text.compare(i + 1, 1, "x") != 0 || !hex(i + 2) || !hex(i + 3)) return false;
    i += 3;
  }
  return quarvel::isValidUtf8(text);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const Folder& folder = Folder::folder();
  const std::string target(reinterpret_cast<const char*>(data), size);
  const auto parsed = quarvel::server::parseRequestTarget(target);
  const auto name = quarvel::server::listFileForRequest(parsed.path, parsed.params);
  const auto expected = name ? folder.files.find(*name) : folder.files.end();
  const auto file = quarvel::server::openListFile(folder.fd, target);
  if (file.has_value() != (expected != folder.files.end()))
    fail("opened other than a plain file", parsed.path);
  if (file) {
    std::string bytes(file->size(), '\0');
    if (file->size() != expected->second.size() ||
        ::pread(file->fd(), bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size()) ||
        bytes != expected->second)
      fail("opened the wrong file", parsed.path);
  }
  if (!quotable(quarvel::server::escapeForLog(target))) fail("left unquotable bytes", parsed.path);
  return 0;
}
