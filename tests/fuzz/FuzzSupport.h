#pragma once
// Shared body of the data-file open fuzzers. The input is taken as the
// plain (deciphered) text of a file, so that the fuzzer explores the format
// rather than the cipher, which maps every byte string to exactly one file;
// it is enciphered, written to a scratch file and opened. After a
// successful open the look-ups and the writer run over what was loaded.

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "common/Log.h"
#include "quarvel/CommonLib.h"
#include "quarvel/FileFramework.h"

namespace quarvel::fuzz {

// The scratch file, removed when the fuzzer exits.
inline const std::string& scratchPath() {
  static const std::string* path = [] {
    auto* made = new std::string("/tmp/quarvel-fuzz-" + std::to_string(::getpid()) + ".dat");
    std::atexit([] { std::remove(scratchPath().c_str()); });
    return made;
  }();
  return *path;
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

// Opens the input with a new File and, when it opens, hands it to `probe`.
template <typename File, typename Probe>
int openAndProbe(const std::uint8_t* data, std::size_t size, Probe&& probe) {
  static LogCapture* quiet = new LogCapture();  // keeps stderr clean
  quiet->clear();
  if (!writeEnciphered(data, size)) return 0;
  File file;
  if (file.openWithFileName(scratchPath(), true)) {
    probe(file);
    std::uint64_t length = 0;
    std::unique_ptr<unsigned char[]> contents = file.getContents(length);
    if (contents && contents[length] != 0) __builtin_trap();
  }
  return 0;
}

// A key made from the input's own bytes, to hit the indexes now and then.
inline std::string keyFrom(const std::uint8_t* data, std::size_t size) {
  const std::size_t n = size < 24 ? size : 24;
  return std::string(reinterpret_cast<const char*>(data), n);
}

}  // namespace quarvel::fuzz
