// Arbitrary bytes as a raw request target through the list server's routing
// to the file it opens, over a folder with plain files, a link out, a FIFO
// and a subfolder: a file opens exactly when the routing names a regular file
// directly in the folder, and it is that one; the target's log form holds no
// control character, quote or malformed UTF-8.

#include <fcntl.h>
#include <sys/stat.h>

#include <cctype>
#include <map>

#include "FuzzSupport.h"
#include "common/StringUtil.h"
#include "server/ListServer.h"

namespace {

using namespace quarvel;
using fuzz::fail;

// The served folder, made once, and the regular files directly in it.
struct Folder {
  fuzz::fs::path root = fuzz::scratchFolder(), served = root / "served";
  std::map<std::string, std::string> files{{"macchecklist.dat", "check list"},
                                           {"macpcklist.dat", "package list"},
                                           {"package.dat", "windows package"},
                                           {"a b%.dat", "odd name"}};
  int fd = -1;

  Folder() {
    fuzz::fs::create_directories(served / "sub");
    for (const auto& [name, text] : files) fuzz::writeFile(served / name, text);
    fuzz::writeFile(root / "outside.dat", "outside the folder");
    fuzz::writeFile(served / "sub" / "inner.dat", "inside a subfolder");
    fuzz::fs::create_symlink("../outside.dat", served / "link.dat");
    ::mkfifo((served / "fifo").c_str(), 0600);
    fd = ::open(served.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
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
  return isValidUtf8(text);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const Folder& folder = *new Folder();
  const std::string_view target = fuzz::asText(data, size);
  const auto parsed = server::parseRequestTarget(target);
  const auto name = server::listFileForRequest(parsed.path, parsed.params);
  const auto expected = name ? folder.files.find(*name) : folder.files.end();
  const auto file = server::openListFile(folder.fd, target);
  if (file.has_value() != (expected != folder.files.end()))
    fail("opened other than a plain file", parsed.path);
  if (file) {
    std::string bytes(file->size(), '\0');
    if (file->size() != expected->second.size() ||
        ::pread(file->fd(), bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size()) ||
        bytes != expected->second)
      fail("opened the wrong file", parsed.path);
  }
  if (!quotable(server::escapeForLog(target))) fail("left unquotable bytes", parsed.path);
  return 0;
}
