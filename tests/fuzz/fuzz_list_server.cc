// Feeds arbitrary request targets ("path?query") through the list server's
// routing, decoded the way the HTTP server decodes them, and checks that
// every answer names a plain entry directly in the served folder.

#include <httplib.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "ListServer.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string target(reinterpret_cast<const char*>(data), size);
  const auto mark = target.find('?');
  const std::string path = httplib::detail::decode_url(target.substr(0, mark), false);
  httplib::Params params;
  if (mark != std::string::npos) httplib::detail::parse_query_text(target.substr(mark + 1), params);

  auto name = quarvel::cli::listFileForRequest(path, params);
  if (name) {
    if (name->empty() || *name == "." || *name == ".." || name->find('/') != std::string::npos ||
        name->find('\0') != std::string::npos || !quarvel::cli::isPlainFileName(*name)) {
      __builtin_trap();
    }
  }
  return 0;
}
