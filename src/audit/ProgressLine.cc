#include "audit/ProgressLine.h"

#include <unistd.h>

namespace quarvel::audit {

ProgressLine::ProgressLine(std::FILE* stream)
    : ProgressLine(stream, ::isatty(::fileno(stream)) == 1) {}

ProgressLine::ProgressLine(std::FILE* stream, bool enabled) : stream_(stream), enabled_(enabled) {}

ProgressLine::~ProgressLine() { finish(); }

void ProgressLine::update(const ScanStats& stats) {
  if (!enabled_) return;
  auto now = std::chrono::steady_clock::now();
  if (shown_ && now - last_ < std::chrono::milliseconds(100)) return;
  last_ = now;
  shown_ = true;
  std::fprintf(stream_, "\r\033[Kscanning: %llu files, %llu folders, %llu unreadable",
               static_cast<unsigned long long>(stats.files),
               static_cast<unsigned long long>(stats.folders),
               static_cast<unsigned long long>(stats.unreadableFolders));
  std::fflush(stream_);
}

void ProgressLine::finish() {
  if (!shown_) return;
  shown_ = false;
  std::fputs("\r\033[K", stream_);
  std::fflush(stream_);
}

}  // namespace quarvel::audit
