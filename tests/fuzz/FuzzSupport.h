#pragma once
// What the fuzz targets share: failing one of their own checks, a quiet log,
// a scratch folder and data file, and an input cut into parts. A data-file
// input is the plain text of a file, so that the fuzzer explores the format
// rather than the cipher (which maps every byte string to exactly one file).

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/Log.h"
#include "quarvel/CommonLib.h"

namespace quarvel::fuzz {

namespace fs = std::filesystem;

// A failed check, as opposed to a sanitizer report: says which (on what, when
// given) and aborts so that libFuzzer keeps the input.
[[noreturn]] inline void fail(const char* what, std::string_view on = {}) {
  std::fprintf(stderr, "fuzz check failed: %s%s%.*s\n", what, on.empty() ? "" : " for ",
               static_cast<int>(on.size()), on.data());
  std::abort();
}

// Captures the library's log lines, so that stderr stays clean; cleared at
// every call.
inline LogCapture& quietLog() {
  static LogCapture* log = new LogCapture();
  log->clear();
  return *log;
}

// An empty folder of the process's own, removed when the fuzzer exits.
inline const fs::path& scratchFolder() {
  static const fs::path* folder = [] {
    auto* made =
        new fs::path(fs::temp_directory_path() / ("quarvel-fuzz-" + std::to_string(::getpid())));
    fs::remove_all(*made);
    fs::create_directories(*made);
    std::atexit([] { fs::remove_all(scratchFolder()); });
    return made;
  }();
  return *folder;
}

inline std::string scratchPath() { return (scratchFolder() / "input.dat").string(); }

inline std::string_view asText(const std::uint8_t* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

// Writes `bytes` to `path`; false when it cannot.
inline bool writeFile(const fs::path& path, std::string_view bytes) {
  std::ofstream out(path, std::ios::binary);
  return static_cast<bool>(out << bytes << std::flush);
}

// Writes `plain` enciphered to the scratch data file.
inline bool writeEnciphered(std::string_view plain) {
  std::string bytes(plain);
  if (!bytes.empty())
    CommonLib::Encrypt(reinterpret_cast<unsigned char*>(bytes.data()),
                       static_cast<std::uint32_t>(bytes.size()));
  return writeFile(scratchPath(), bytes);
}

// The parts of `input` between the bytes `at`, at most `most` (the last ends
// at the next `at` too); none for no input.
inline std::vector<std::string_view> parts(std::string_view input, char at, std::size_t most) {
  std::vector<std::string_view> out;
  while (out.size() < most && input.data() != nullptr) {
    const std::size_t end = input.find(at);
    out.push_back(input.substr(0, end));
    input = end == std::string_view::npos ? std::string_view() : input.substr(end + 1);
  }
  return out;
}

}  // namespace quarvel::fuzz
