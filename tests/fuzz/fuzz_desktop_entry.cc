// The desktop-entry reader of the audit on arbitrary text: every program it
// names is a non-empty name, named once, and a lone Exec line names what
// its value alone starts.

#include <algorithm>
#include <string>
#include <string_view>

#include "FuzzSupport.h"
#include "audit/DesktopEntry.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quarvel::audit;
  using quarvel::fuzz::fail;
  const std::string_view text(reinterpret_cast<const char*>(data), size);

  const std::vector<std::string> programs = execPrograms(text);
  for (auto it = programs.begin(); it != programs.end(); ++it) {
    if (it->empty()) fail("an empty program");
    if (std::find(programs.begin(), it, *it) != it) fail("a program named twice");
  }

  // The whole input as one Exec value, when it fits on one line.
  if (text.find('\n') == std::string_view::npos && !text.ends_with('\r')) {
    const std::optional<std::string> program = programOfExec(text);
    if (program && program->empty()) fail("an empty program for a value");
    const std::vector<std::string> line = execPrograms("Exec=" + std::string(text));
    if (line != (program ? std::vector<std::string>{*program} : std::vector<std::string>{}))
      fail("an Exec line names other than its value");
  }
  return 0;
}
