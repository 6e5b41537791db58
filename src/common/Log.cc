#include "quarvel/common/Log.h"

#include <syslog.h>

#include <cstdarg>
#include <cstdio>
#include <mutex>

namespace quarvel {
namespace {

std::mutex& logMutex() {
  static std::mutex m;
  return m;
}

LogCapture*& currentCapture() {
  static LogCapture* capture = nullptr;
  return capture;
}

}  // namespace

void logLine(std::string_view line) {
  std::lock_guard<std::mutex> lock(logMutex());
  syslog(LOG_USER | LOG_NOTICE, "%.*s", static_cast<int>(line.size()), line.data());
  if (LogCapture* capture = currentCapture()) {
    capture->lines_.emplace_back(line);
    return;
  }
  std::string echo(line);
  if (echo.empty() || echo.back() != '\n') echo.push_back('\n');
  std::fwrite(echo.data(), 1, echo.size(), stderr);
}

void logf(const char* format, ...) {
  char stackBuffer[1024];
  va_list args;
  va_start(args, format);
  va_list again;
  va_copy(again, args);
  int needed = std::vsnprintf(stackBuffer, sizeof stackBuffer, format, args);
  va_end(args);
  if (needed >= 0 && static_cast<size_t>(needed) < sizeof stackBuffer) {
    logLine(std::string_view(stackBuffer, static_cast<size_t>(needed)));
  } else if (needed >= 0) {
    std::string big(static_cast<size_t>(needed) + 1, '\0');
    std::vsnprintf(big.data(), big.size(), format, again);
    big.resize(static_cast<size_t>(needed));
    logLine(big);
  }
  va_end(again);
}

LogCapture::LogCapture() {
  std::lock_guard<std::mutex> lock(logMutex());
  previous_ = currentCapture();
  currentCapture() = this;
}

LogCapture::~LogCapture() {
  std::lock_guard<std::mutex> lock(logMutex());
  // Captures end in reverse order of creation; unlink wherever we are.
  for (LogCapture** link = &currentCapture(); *link; link = &(*link)->previous_)
    if (*link == this) {
      *link = previous_;
      break;
    }
}

std::vector<std::string> LogCapture::lines() const {
  std::lock_guard<std::mutex> lock(logMutex());
  return lines_;
}

bool LogCapture::contains(std::string_view needle) const {
  for (const auto& line : lines())
    if (line.find(needle) != std::string::npos) return true;
  return false;
}

void LogCapture::clear() {
  std::lock_guard<std::mutex> lock(logMutex());
  lines_.clear();
}

}  // namespace quarvel
