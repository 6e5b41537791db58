#pragma once
// An UpdateView that records what an update run shows, for tests to compare
// afterwards. The run calls it from its worker thread, the test reads it from
// its own, so every member is behind one lock.

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "quarvel/UpdateView.h"

namespace quarvel::testing {

class RecordingView : public UpdateView {
 public:
  void setStatusText(const std::string& text) override {
    std::lock_guard lock(mutex_);
    statuses_.push_back(text);
  }
  void setProgress(double value) override {
    std::lock_guard lock(mutex_);
    progress_.push_back(value);
  }
  void setBytesReceived(std::uint64_t bytes) override {
    std::lock_guard lock(mutex_);
    bytes_.push_back(bytes);
  }
  void errorAlert(const std::string& code) override {
    std::lock_guard lock(mutex_);
    alerts_.push_back(code);
  }
  void close() override {
    std::lock_guard lock(mutex_);
    ++closes_;
  }

  // Every status text in order, and the last one ("" before any).
  std::vector<std::string> statuses() const {
    std::lock_guard lock(mutex_);
    return statuses_;
  }
  std::string status() const {
    std::lock_guard lock(mutex_);
    return statuses_.empty() ? std::string() : statuses_.back();
  }
  std::vector<double> progress() const {
    std::lock_guard lock(mutex_);
    return progress_;
  }
  // Every count of bytes received, in order.
  std::vector<std::uint64_t> bytes() const {
    std::lock_guard lock(mutex_);
    return bytes_;
  }
  std::vector<std::string> alerts() const {
    std::lock_guard lock(mutex_);
    return alerts_;
  }
  int closes() const {
    std::lock_guard lock(mutex_);
    return closes_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> statuses_;
  std::vector<double> progress_;
  std::vector<std::uint64_t> bytes_;
  std::vector<std::string> alerts_;
  int closes_ = 0;
};

}  // namespace quarvel::testing
