#pragma once
// The library's one way of writing a log line.
//
// Lines go to the system log (syslog, facility user) and, by default, are
// echoed to standard error, as the original platform's log does; a program
// may narrow the echo (setLogEcho). Tests can capture them with LogCapture.
// Safe to call from any thread.

#include <string>
#include <string_view>
#include <vector>

namespace quarvel {

// Writes one line, formatted printf-style. A trailing "\n" in the format is
// kept in the line as written (the system log shows it as a line end).
void logf(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Writes one already formatted line.
void logLine(std::string_view line);

// A line the user has to act on (a settings file put aside, a write that
// failed), at warning priority: echoed unless the echo is off.
void logWarningf(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Which lines reach standard error besides the system log: every line (the
// default), warnings only, or none. The system log receives all of them.
enum class LogEcho { kAll, kWarnings, kNone };
void setLogEcho(LogEcho echo);

// Trace lines (every line of a file being read, a whole deciphered text) go
// at debug priority. They are formatted and written only while debug
// logging is on or a LogCapture is active, so that reading a large file
// costs nothing for them by default.
void logDebugf(const char* format, ...) __attribute__((format(printf, 1, 2)));
void setDebugLogging(bool enabled);
bool debugLoggingEnabled();
// Whether a debug line would be written now (debug logging on, or a capture
// active): lets a caller skip the work of preparing one.
bool debugLinesWanted();

// While an instance lives, every line logged by any thread is also recorded
// here, and the echo to standard error is suppressed. Instances nest; the
// innermost receives the lines.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<std::string> lines() const;
  // True when some recorded line contains `needle`.
  bool contains(std::string_view needle) const;
  void clear();

 private:
  friend struct LogSink;
  LogCapture* previous_;
  std::vector<std::string> lines_;  // guarded by the log's mutex
};

}  // namespace quarvel
