#pragma once
// Pages in a real browser: where the headless Chromium is, and enough of
// PNG to measure its screenshots.

#include <unistd.h>
#include <zlib.h>

#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "support/FileText.h"

namespace quarvel::testing {

// The headless shell the dependency script installs, else a full Chromium.
inline std::string chromium() {
  for (const char* candidate : {"/usr/bin/chromium-headless-shell", "/usr/bin/chromium"})
    if (::access(candidate, X_OK) == 0) return candidate;
  return {};
}

struct Image {
  int width = 0;
  int height = 0;
  int channels = 0;                   // 3 (RGB) or 4 (RGBA)
  std::vector<unsigned char> pixels;  // row by row, `channels` bytes per pixel
};

inline std::uint32_t bigEndian(const char* p) {
  const auto* u = reinterpret_cast<const unsigned char*>(p);
  return (std::uint32_t{u[0]} << 24) | (std::uint32_t{u[1]} << 16) | (std::uint32_t{u[2]} << 8) |
         u[3];
}

// Enough of PNG for a browser's screenshot: 8-bit RGB or RGBA, not interlaced.
inline std::optional<Image> readPng(const std::string& path) {
  const std::string file = readBytes(path);
  if (file.size() < 33 || !file.starts_with("\x89PNG\r\n\x1a\n")) return std::nullopt;
  Image image;
  std::string packed;
  for (std::size_t at = 8; at + 12 <= file.size();) {
    const std::uint32_t length = bigEndian(&file[at]);
    const std::string_view type(&file[at + 4], 4);
    const char* data = &file[at + 8];
    if (at + 12 + length > file.size()) return std::nullopt;
    if (type == "IHDR") {
      image.width = static_cast<int>(bigEndian(data));
      image.height = static_cast<int>(bigEndian(data + 4));
      image.channels = data[9] == 6 ? 4 : data[9] == 2 ? 3 : 0;
      if (data[8] != 8 || data[12] != 0 || !image.channels) return std::nullopt;
    } else if (type == "IDAT") {
      packed.append(data, length);
    }
    at += 12 + length;
  }
  const std::size_t channels = static_cast<std::size_t>(image.channels);
  const std::size_t stride = static_cast<std::size_t>(image.width) * channels;
  std::vector<unsigned char> raw((stride + 1) * static_cast<std::size_t>(image.height));
  uLongf rawSize = raw.size();
  if (uncompress(raw.data(), &rawSize, reinterpret_cast<const Bytef*>(packed.data()),
                 packed.size()) != Z_OK ||
      rawSize != raw.size())
    return std::nullopt;
  // Each row is filtered against the row above (zeros for the first).
  image.pixels.assign(stride * static_cast<std::size_t>(image.height) + stride, 0);
  for (std::size_t y = 0; y < static_cast<std::size_t>(image.height); ++y) {
    const unsigned char* row = &raw[y * (stride + 1)];
    unsigned char* line = &image.pixels[(y + 1) * stride];
    const unsigned char* previous = line - stride;
    if (row[0] > 4) return std::nullopt;
    for (std::size_t i = 0; i < stride; ++i) {
      const int a = i >= channels ? line[i - channels] : 0, b = previous[i];
      const int c = i >= channels ? previous[i - channels] : 0;
      const int p = a + b - c, pa = std::abs(p - a), pb = std::abs(p - b), pc = std::abs(p - c);
      // The five filters: none, sub, up, average, Paeth.
      const int predictors[] = {0, a, b, (a + b) / 2, pa <= pb && pa <= pc ? a : pb <= pc ? b : c};
      line[i] = static_cast<unsigned char>(row[1 + i] + predictors[row[0]]);
    }
  }
  image.pixels.erase(image.pixels.begin(), image.pixels.begin() + static_cast<long>(stride));
  return image;
}

// Headless `browser` draws `url` in a 900x700 window at scale 1 into the
// PNG `shot`, with a fresh profile in `profile`; at most 120 s. Answers
// std::system's status (0: drawn).
inline int screenshot(const std::string& browser, const std::string& url, const std::string& shot,
                      const std::string& profile) {
  const std::string command =
      "timeout 120 " + browser +
      " --headless --no-sandbox --disable-gpu --disable-background-networking"
      " --hide-scrollbars --force-device-scale-factor=1 --window-size=900,700 --user-data-dir=" +
      profile + " --screenshot=" + shot + " " + url + " >/dev/null 2>&1";
  return std::system(command.c_str());
}

// The width of each bar drawn in `rgb` (0xRRGGBB), top to bottom: a bar is
// a run of rows that hold that colour, measured at its first row.
inline std::vector<int> barWidths(const Image& image, std::uint32_t rgb) {
  std::vector<int> widths;
  int lastRowWidth = 0;
  for (std::size_t at = 0; at < image.pixels.size(); at += image.width * image.channels) {
    int count = 0;
    for (int x = 0; x < image.width; ++x) {
      const unsigned char* p = &image.pixels[at + static_cast<std::size_t>(x * image.channels)];
      count += (std::uint32_t{p[0]} << 16 | std::uint32_t{p[1]} << 8 | p[2]) == rgb;
    }
    if (count > 0 && lastRowWidth == 0) widths.push_back(count);
    lastRowWidth = count;
  }
  return widths;
}

}  // namespace quarvel::testing
