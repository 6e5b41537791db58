#include "common/Log.h"

#include <syslog.h>

#include <atomic>
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

std::atomic<bool> debugEnabled{false};
std::atomic<LogEcho> echoLevel{LogEcho::kAll};
std::atomic<int> activeCaptures{0};

}  // namespace

// The one place lines are written; a friend of LogCapture.
struct LogSink {
  static void write(int priority, std::string_view line);
};

void LogSink::write(int priority, std::string_view line) {
  std::lock_guard<std::mutex> lock(logMutex());
  syslog(LOG_USER | priority, "%.*s", static_cast<int>(line.size()), line.data());
  if (LogCapture* capture = currentCapture()) {
    capture->lines_.emplace_back(line);
    return;
  }
  const LogEcho echoing = echoLevel.load(std::memory_order_relaxed);
  if (echoing == LogEcho::kNone || (echoing == LogEcho::kWarnings && priority > LOG_WARNING))
    return;
  std::string echo(line);
  if (echo.empty() || echo.back() != '\n') echo.push_back('\n');
  std::fwrite(echo.data(), 1, echo.size(), stderr);
}

namespace {

void write(int priority, std::string_view line) { LogSink::write(priority, line); }

void vwrite(int priority, const char* format, va_list args) {
  char stackBuffer[1024];
  va_list again;
  va_copy(again, args);
  int needed = std::vsnprintf(stackBuffer, sizeof stackBuffer, format, args);
  if (needed >= 0 && static_cast<size_t>(needed) < sizeof stackBuffer) {
    write(priority, std::string_view(stackBuffer, static_cast<size_t>(needed)));
  } else if (needed >= 0) {
    std::string big(static_cast<size_t>(needed) + 1, '\0');
    std::vsnprintf(big.data(), big.size(), format, again);
    big.resize(static_cast<size_t>(needed));
    write(priority, big);
  }
  va_end(again);
}

}  // namespace

void logLine(std::string_view line) { write(LOG_NOTICE, line); }

void logf(const char* format, ...) {
  va_list args;
  va_start(args, format);
  vwrite(LOG_NOTICE, format, args);
  va_end(args);
}

void logDebugf(const char* format, ...) {
  if (!debugLinesWanted()) return;
  va_list args;
  va_start(args, format);
  vwrite(LOG_DEBUG, format, args);
  va_end(args);
}

void logWarningf(const char* format, ...) {
  va_list args;
  va_start(args, format);
  vwrite(LOG_WARNING, format, args);
  va_end(args);
}

void setLogEcho(LogEcho echo) { echoLevel = echo; }

void setDebugLogging(bool enabled) { debugEnabled = enabled; }
bool debugLoggingEnabled() { return debugEnabled; }

bool debugLinesWanted() {
  return debugEnabled.load(std::memory_order_relaxed) ||
         activeCaptures.load(std::memory_order_relaxed) != 0;
}

LogCapture::LogCapture() {
  ++activeCaptures;
  std::lock_guard<std::mutex> lock(logMutex());
  previous_ = currentCapture();
  currentCapture() = this;
}

LogCapture::~LogCapture() {
  --activeCaptures;
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
