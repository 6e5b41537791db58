#pragma once
// What a fuzz target does when one of its own checks fails, as opposed to a
// sanitizer report: it says which check, and aborts so that libFuzzer keeps
// the input. libFuzzer names the target and the input itself.

#include <cstdio>
#include <cstdlib>

namespace quarvel::fuzz {

[[noreturn]] inline void fail(const char* what) {
  std::fprintf(stderr, "fuzz check failed: %s\n", what);
  std::abort();
}

}  // namespace quarvel::fuzz
