#include "audit/DesktopEntry.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "common/StringUtil.h"

namespace quarvel::audit {

namespace {

constexpr std::size_t kMaxEntrySize = 1 << 20;

// The escapes every string value of a desktop entry may hold.
std::string unescapeValue(std::string_view value) {
  std::string out;
  out.reserve(value.size());
  for (std::size_t i = 0; i < value.size(); ++i) {
    char c = value[i];
    if (c == '\\' && i + 1 < value.size()) {
      char next = value[++i];
      switch (next) {
        case 's':
          out.push_back(' ');
          break;
        case 'n':
          out.push_back('\n');
          break;
        case 't':
          out.push_back('\t');
          break;
        case 'r':
          out.push_back('\r');
          break;
        case '\\':
          out.push_back('\\');
          break;
        default:
          out.push_back('\\');
          out.push_back(next);
      }
    } else {
      out.push_back(c);
    }
  }
  return out;
}

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

std::vector<std::string> splitArguments(std::string_view command) {
  std::vector<std::string> args;
  std::string current;
  bool inArgument = false;
  bool quoted = false;
  for (std::size_t i = 0; i < command.size(); ++i) {
    char c = command[i];
    if (quoted) {
      if (c == '\\' && i + 1 < command.size()) {
        current.push_back(command[++i]);
      } else if (c == '"') {
        quoted = false;
      } else {
        current.push_back(c);
      }
    } else if (c == '"') {
      quoted = true;
      inArgument = true;
    } else if (isBlank(c)) {
      if (inArgument) args.push_back(std::move(current));
      current.clear();
      inArgument = false;
    } else {
      current.push_back(c);
      inArgument = true;
    }
  }
  if (inArgument) args.push_back(std::move(current));
  return args;
}

bool isAssignment(const std::string& arg) {
  std::size_t eq = arg.find('=');
  return eq != std::string::npos && eq > 0 && arg.find('/') > eq;
}

}  // namespace

std::optional<std::string> programOfExec(std::string_view value) {
  std::vector<std::string> args = splitArguments(unescapeValue(value));
  std::size_t i = 0;
  if (i < args.size() && lastPathComponent(args[i]) == "env") {
    ++i;
    while (i < args.size() && (args[i].starts_with('-') || isAssignment(args[i]))) {
      // The options that take the next argument as their value.
      bool takesValue =
          args[i] == "-u" || args[i] == "--unset" || args[i] == "-C" || args[i] == "--chdir";
      i += takesValue ? 2 : 1;
    }
  }
  if (i >= args.size()) return std::nullopt;
  if (lastPathComponent(args[i]) == "flatpak" && i + 1 < args.size() && args[i + 1] == "run") {
    std::optional<std::string> appId;
    // An empty command or app id names nothing; the search goes on.
    for (std::size_t j = i + 2; j < args.size(); ++j) {
      if (args[j].starts_with("--command=")) {
        if (std::string command = lastPathComponent(args[j].substr(10)); !command.empty())
          return command;
        continue;
      }
      if (!appId && !args[j].empty() && !args[j].starts_with('-') && !args[j].starts_with('@') &&
          !args[j].starts_with('%'))
        appId = args[j];
    }
    if (appId) return appId;
  }
  std::string program = lastPathComponent(args[i]);
  if (program.empty()) return std::nullopt;
  return program;
}

std::vector<std::string> execPrograms(std::string_view text) {
  std::vector<std::string> programs;
  std::size_t start = 0;
  while (start < text.size()) {
    std::size_t end = text.find('\n', start);
    if (end == std::string_view::npos) end = text.size();
    std::string_view line = text.substr(start, end - start);
    start = end + 1;
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    if (!line.starts_with("Exec")) continue;
    std::string_view rest = line.substr(4);
    while (!rest.empty() && isBlank(rest.front())) rest.remove_prefix(1);
    if (!rest.starts_with('=')) continue;  // another key, such as "Executable"
    rest.remove_prefix(1);
    std::optional<std::string> program = programOfExec(rest);
    if (program && std::find(programs.begin(), programs.end(), *program) == programs.end())
      programs.push_back(*program);
  }
  return programs;
}

std::vector<std::string> execProgramsOfFile(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
  if (fd < 0) return {};
  // Entries are a few hundred bytes: room for the size the file says it has
  // (and a byte more, to see it grown), enlarged only when it was not enough.
  struct stat st {};
  std::size_t room = 4096;
  if (::fstat(fd, &st) == 0 && st.st_size > 0)
    room = std::min(static_cast<std::size_t>(st.st_size) + 1, kMaxEntrySize);
  std::string text(room, '\0');
  std::size_t length = 0;
  for (;;) {
    if (length == text.size()) {
      if (text.size() >= kMaxEntrySize) break;
      text.resize(std::min(text.size() * 2, kMaxEntrySize));
    }
    const ssize_t got = ::read(fd, text.data() + length, text.size() - length);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;  // what was read before an error still counts
    length += static_cast<std::size_t>(got);
  }
  ::close(fd);
  text.resize(length);
  return execPrograms(text);
}

}  // namespace quarvel::audit
