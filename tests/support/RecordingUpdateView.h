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
  void setStatusText(const std::string& text) override { add(statuses_, text); }
  void setProgress(double value) override { add(progress_, value); }
  void setBytesReceived(std::uint64_t) override {}
  void errorAlert(const std::string& code) override { add(alerts_, code); }
  void close() override {
    std::lock_guard lock(mutex_);
    ++closes_;
  }

  // Every status text in order, and the last one ("" before any).
  std::vector<std::string> statuses() const { return copy(statuses_); }
  std::string status() const {
    std::lock_guard lock(mutex_);
    return statuses_.empty() ? std::string() : statuses_.back();
  }
  std::vector<double> progress() const { return copy(progress_); }
  std::vector<std::string> alerts() const { return copy(alerts_); }
  int closes() const {
    std::lock_guard lock(mutex_);
    return closes_;
  }

 private:
  template <typename T>
  void add(std::vector<T>& to, const T& value) {
    std::lock_guard lock(mutex_);
    to.push_back(value);
  }
  template <typename T>
  std::vector<T> copy(const std::vector<T>& from) const {
    std::lock_guard lock(mutex_);
    return from;
  }

  mutable std::mutex mutex_;
  std::vector<std::string> statuses_;
  std::vector<double> progress_;
  std::vector<std::string> alerts_;
  int closes_ = 0;
};

}  // namespace quarvel::testing
