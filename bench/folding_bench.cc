// The single-scan folding against the 209 literal passes on 1 MiB of mixed
// text (Korean, ASCII, accented Latin composed and decomposed), and its
// throughput on ASCII-only text next to a plain copy.

#include <benchmark/benchmark.h>

#include <string>

#include "../tests/common/FoldingReference.h"
#include "quarvel/CommonLib.h"

namespace {

constexpr std::size_t kSize = 1u << 20;

std::string repeatTo(const std::string& piece) {
  std::string text;
  while (text.size() + piece.size() <= kSize) text += piece;
  while (text.size() < kSize) text += ' ';
  return text;
}

const std::string& mixedText() {
  static const std::string text = repeatTo(
      "\uD55C\uAE00 \uC18C\uD504\uD2B8\uC6E8\uC5B4 \uC810\uAC80 \uBAA9\uB85D\t"
      "Adobe Photoshop 2024\t25.1\tPhotoshop.app\t"
      "Cr\u00E8me br\u00FBl\u00E9e, \u00C5ngstr\u00F6m, Dvo\u0159\u00E1k, \u0141\u00F3d\u017A, "
      "S\u00E3o Paulo, nai\u0308ve cafe\u0301, \u00BD \u00B5s\r\n");
  return text;
}

const std::string& asciiText() {
  static const std::string text =
      repeatTo("Microsoft Office 365 ProPlus\tMicrosoft\t16.0.17126\tWINWORD.EXE\t1200000\r\n");
  return text;
}

void BM_FoldFastMixed(benchmark::State& state) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(quarvel::CommonLib::encodingForSpecialCharacter(mixedText()));
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kSize));
}
BENCHMARK(BM_FoldFastMixed)->Unit(benchmark::kMillisecond);

void BM_FoldReferenceMixed(benchmark::State& state) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(quarvel::foldref::referenceFold(mixedText()));
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kSize));
}
BENCHMARK(BM_FoldReferenceMixed)->Unit(benchmark::kMillisecond)->Iterations(1);

void BM_FoldFastAscii(benchmark::State& state) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(quarvel::CommonLib::encodingForSpecialCharacter(asciiText()));
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kSize));
}
BENCHMARK(BM_FoldFastAscii)->Unit(benchmark::kMicrosecond);

void BM_CopyAscii(benchmark::State& state) {
  for (auto _ : state) {
    std::string copy(asciiText());
    benchmark::DoNotOptimize(copy.data());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kSize));
}
BENCHMARK(BM_CopyAscii)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
