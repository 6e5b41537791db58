#pragma once
// What the soaks watch: the process's resident memory and open file
// descriptors, sampled once a warm-up is over. They stayed flat when the
// descriptors are the same at every sample and the last quarter's peak of
// resident memory is at most kRssMarginKiB above the first quarter's. Under
// the sanitizers (QUARVEL_SOAK_CHECK_RSS=0) resident memory follows their
// allocators, which keep freed memory: it is shown, not judged, and
// LeakSanitizer watches leaks there.

#include <malloc.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#ifndef QUARVEL_SOAK_CHECK_RSS
#define QUARVEL_SOAK_CHECK_RSS 1
#endif

namespace quarvel::soak {

// Resident memory may end this much above its early peak and still count as
// flat; a leak of a body, a transfer, a record or a file's table per run
// exceeds it within the full run, most within a few dozen runs.
constexpr long kRssMarginKiB = 512;

inline long residentKiB() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);)
    if (line.starts_with("VmRSS:")) return std::strtol(line.c_str() + 6, nullptr, 10);
  return -1;
}

inline long openDescriptors() {
  std::error_code ec;
  const std::filesystem::directory_iterator fds("/proc/self/fd", ec);
  return ec ? -1 : std::distance(fds, std::filesystem::directory_iterator());
}

class Figures {
 public:
  // Free heap pages are handed back first, so that what is sampled is the
  // memory still in use, not how high the heap happened to reach since.
  void sample() {
    malloc_trim(0);
    samples_.push_back({residentKiB(), openDescriptors()});
  }
  std::size_t count() const { return samples_.size(); }
  double seconds() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - began_).count();
  }

  // Prints the figures and whether they stayed flat; needs four samples.
  bool flat() const {
    const auto begin = samples_.begin(), end = samples_.end();
    const std::size_t quarter = samples_.size() / 4;
    const auto peak = [](auto from, auto to) {
      return std::max_element(from, to, [](auto& a, auto& b) { return a.rssKiB < b.rssKiB; })
          ->rssKiB;
    };
    const long early = peak(begin, begin + quarter), late = peak(end - quarter, end);
    const auto [fewest, most] =
        std::minmax_element(begin, end, [](auto& a, auto& b) { return a.fds < b.fds; });
    std::printf(
        "  RSS KiB: before %ld, max %ld; first quarter max %ld, last quarter max %ld\n"
        "  fds: before %ld, range %ld..%ld over %zu samples\n",
        start_.rssKiB, peak(begin, end), early, late, start_.fds, fewest->fds, most->fds,
        samples_.size());
    if (!QUARVEL_SOAK_CHECK_RSS)
      std::printf("  (sanitizer build: resident memory is shown, not judged)\n");
    const bool flat =
        fewest->fds == most->fds && (!QUARVEL_SOAK_CHECK_RSS || late <= early + kRssMarginKiB);
    std::printf("  %s\n", flat ? "flat" : "NOT FLAT");
    return flat;
  }

 private:
  struct Sample {
    long rssKiB;
    long fds;
  };
  Sample start_{residentKiB(), openDescriptors()};
  std::chrono::steady_clock::time_point began_ = std::chrono::steady_clock::now();
  std::vector<Sample> samples_;
};

}  // namespace quarvel::soak
