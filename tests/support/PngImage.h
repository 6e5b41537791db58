#pragma once
// Pages in a real browser: where the headless Chromium is, and enough of
// PNG to measure its screenshots.

#include <unistd.h>
#include <zlib.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

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
  std::vector<unsigned char> rgb;  // 3 bytes per pixel
};

inline std::uint32_t bigEndian(const unsigned char* p) {
  return (std::uint32_t{p[0]} << 24) | (std::uint32_t{p[1]} << 16) | (std::uint32_t{p[2]} << 8) |
         p[3];
}

// Enough of PNG for a browser's screenshot: 8-bit RGB or RGBA, not interlaced.
inline std::optional<Image> readPng(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::vector<unsigned char> file((std::istreambuf_iterator<char>(in)),
                                  std::istreambuf_iterator<char>());
  if (file.size() < 33 || std::memcmp(file.data(), "\x89PNG\r\n\x1a\n", 8) != 0)
    return std::nullopt;
  Image image;
  int channels = 0;
  std::vector<unsigned char> packed;
  for (std::size_t at = 8; at + 12 <= file.size();) {
    std::uint32_t length = bigEndian(&file[at]);
    std::string type(reinterpret_cast<const char*>(&file[at + 4]), 4);
    const unsigned char* data = &file[at + 8];
    if (at + 12 + length > file.size()) return std::nullopt;
    if (type == "IHDR") {
      image.width = static_cast<int>(bigEndian(data));
      image.height = static_cast<int>(bigEndian(data + 4));
      if (data[8] != 8 || data[12] != 0) return std::nullopt;
      channels = data[9] == 6 ? 4 : data[9] == 2 ? 3 : 0;
      if (!channels) return std::nullopt;
    } else if (type == "IDAT") {
      packed.insert(packed.end(), data, data + length);
    }
    at += 12 + length;
  }
  const std::size_t stride = static_cast<std::size_t>(image.width) * channels;
  std::vector<unsigned char> raw((stride + 1) * static_cast<std::size_t>(image.height));
  uLongf rawSize = raw.size();
  if (uncompress(raw.data(), &rawSize, packed.data(), packed.size()) != Z_OK ||
      rawSize != raw.size())
    return std::nullopt;

  std::vector<unsigned char> previous(stride, 0), line(stride);
  image.rgb.reserve(static_cast<std::size_t>(image.width) * image.height * 3);
  for (int y = 0; y < image.height; ++y) {
    const unsigned char* row = &raw[y * (stride + 1)];
    const int filter = row[0];
    for (std::size_t i = 0; i < stride; ++i) {
      const int a = i >= static_cast<std::size_t>(channels) ? line[i - channels] : 0;
      const int b = previous[i];
      const int c = i >= static_cast<std::size_t>(channels) ? previous[i - channels] : 0;
      // The five filters: none, sub, up, average, Paeth.
      const int p = a + b - c, pa = std::abs(p - a), pb = std::abs(p - b), pc = std::abs(p - c);
      const int paeth = (pa <= pb && pa <= pc) ? a : pb <= pc ? b : c;
      const int predictor = filter == 1   ? a
                            : filter == 2 ? b
                            : filter == 3 ? (a + b) / 2
                            : filter == 4 ? paeth
                                          : 0;
      line[i] = static_cast<unsigned char>(row[1 + i] + predictor);
    }
    for (int x = 0; x < image.width; ++x)
      image.rgb.insert(image.rgb.end(), &line[x * channels], &line[x * channels] + 3);
    previous.swap(line);
  }
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
  for (int y = 0; y < image.height; ++y) {
    int count = 0;
    for (int x = 0; x < image.width; ++x) {
      const unsigned char* p = &image.rgb[(static_cast<std::size_t>(y) * image.width + x) * 3];
      if (p[0] == (rgb >> 16 & 0xff) && p[1] == (rgb >> 8 & 0xff) && p[2] == (rgb & 0xff)) ++count;
    }
    if (count > 0 && lastRowWidth == 0) widths.push_back(count);
    lastRowWidth = count;
  }
  return widths;
}

}  // namespace quarvel::testing
