#pragma once
// What the fuzz targets share: failing one of their own checks, a quiet
// log, a scratch folder and a scratch data file.
//
// A data-file input is taken as the plain (deciphered) text of a file, so
// that the fuzzer explores the format rather than the cipher, which maps
// every byte string to exactly one file; it is enciphered and written to
// the scratch file.

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "common/Log.h"
#include "quarvel/CommonLib.h"
#include "quarvel/FileFramework.h"

namespace quarvel::fuzz {

// A failed check, as opposed to a sanitizer report: says which check (and
// on what, when given) and aborts so that libFuzzer keeps the input.
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

// An empty folder of the process's own, made at first use and removed when
// the fuzzer exits.
inline const std::filesystem::path& scratchFolder() {
  static const std::filesystem::path* folder = [] {
    auto* made = new std::filesystem::path(std::filesystem::temp_directory_path() /
                                           ("quarvel-fuzz-" + std::to_string(::getpid())));
    std::filesystem::remove_all(*made);
    std::filesystem::create_directories(*made);
    std::atexit([] { std::filesystem::remove_all(scratchFolder()); });
    return made;
  }();
  return *folder;
}

// The scratch data file.
inline const std::string& scratchPath() {
  static const std::string path = (scratchFolder() / "input.dat").string();
  return path;
}

// Writes `data` enciphered to the scratch file; false when it cannot.
inline bool writeEnciphered(const std::uint8_t* data, std::size_t size) {
  std::vector<unsigned char> bytes(data, data + size);
  if (!bytes.empty()) CommonLib::Encrypt(bytes.data(), static_cast<std::uint32_t>(bytes.size()));
  std::FILE* file = std::fopen(scratchPath().c_str(), "wb");
  if (file == nullptr) return false;
  const bool ok = std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
  return std::fclose(file) == 0 && ok;
}

}  // namespace quarvel::fuzz
