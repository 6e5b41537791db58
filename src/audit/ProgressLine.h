#pragma once
// A one-line progress indicator for long scans, rewritten in place ("\r").
// It writes only when enabled, at most ten times a second, and clears its
// line when finished, so that the report that follows starts clean.

#include <chrono>
#include <cstdio>

#include "audit/TreeWalker.h"

namespace quarvel::audit {

class ProgressLine {
 public:
  // Enabled when `stream` is a terminal; `stream` must outlive the line.
  explicit ProgressLine(std::FILE* stream);
  ProgressLine(std::FILE* stream, bool enabled);
  ~ProgressLine();
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;

  bool enabled() const { return enabled_; }
  void update(const ScanStats& stats);
  void finish();

 private:
  std::FILE* stream_;
  bool enabled_;
  bool shown_ = false;
  std::chrono::steady_clock::time_point last_{};
};

}  // namespace quarvel::audit
