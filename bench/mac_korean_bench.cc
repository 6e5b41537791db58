// Decoding Korean text: the Mac Korean codec against ICU's "windows-949"
// converter on the same bytes (KS X 1001 Hangul and ASCII, which both read
// alike). ICU is measured twice: making the same result as ours (a UTF-8
// string, with its direct algorithmic path to UTF-8), and on its fastest
// path, into a reused UTF-16 buffer.

#include <benchmark/benchmark.h>
#include <unicode/ucnv.h>

#include <random>
#include <string>
#include <vector>

#include "format/MacKorean.h"

namespace {

// About 1 MiB of Korean lines: syllables in words, spaces, a few ASCII
// fields and tabs, CR LF line ends, as in a check list.
std::string koreanText() {
  std::mt19937 rng(5);
  std::string bytes;
  while (bytes.size() < (1u << 20)) {
    for (int word = 0; word < 6; ++word) {
      for (int n = 2 + static_cast<int>(rng() % 4); n > 0; --n) {
        bytes += static_cast<char>(0xB0 + rng() % 25);
        bytes += static_cast<char>(0xA1 + rng() % 94);
      }
      bytes += word == 2 ? "\tv" + std::to_string(rng() % 100) + "\t" : " ";
    }
    bytes += "\r\n";
  }
  return bytes;
}

void BM_MacKoreanDecode(benchmark::State& state) {
  const std::string bytes = koreanText();
  for (auto _ : state) {
    std::optional<std::string> text = quarvel::MacKorean::decode(bytes);
    benchmark::DoNotOptimize(text);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes.size()));
}
BENCHMARK(BM_MacKoreanDecode)->Unit(benchmark::kMicrosecond);

void BM_IcuWindows949Decode(benchmark::State& state) {
  const std::string bytes = koreanText();
  UErrorCode status = U_ZERO_ERROR;
  UConverter* converter = ucnv_open("windows-949", &status);
  if (U_FAILURE(status)) {
    state.SkipWithError("no windows-949 converter");
    return;
  }
  std::u16string text(bytes.size() + 1, u'\0');
  for (auto _ : state) {
    status = U_ZERO_ERROR;
    const int32_t n = ucnv_toUChars(converter, text.data(), static_cast<int32_t>(text.size()),
                                    bytes.data(), static_cast<int32_t>(bytes.size()), &status);
    benchmark::DoNotOptimize(n);
    benchmark::DoNotOptimize(text.data());
  }
  ucnv_close(converter);
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes.size()));
}
BENCHMARK(BM_IcuWindows949Decode)->Unit(benchmark::kMicrosecond);

void BM_IcuWindows949DecodeToUtf8(benchmark::State& state) {
  const std::string bytes = koreanText();
  UErrorCode status = U_ZERO_ERROR;
  UConverter* converter = ucnv_open("windows-949", &status);
  if (U_FAILURE(status)) {
    state.SkipWithError("no windows-949 converter");
    return;
  }
  for (auto _ : state) {
    std::string text(bytes.size() + bytes.size() / 2 + 32, '\0');
    status = U_ZERO_ERROR;
    const int32_t n =
        ucnv_toAlgorithmic(UCNV_UTF8, converter, text.data(), static_cast<int32_t>(text.size()),
                           bytes.data(), static_cast<int32_t>(bytes.size()), &status);
    text.resize(static_cast<std::size_t>(n));
    benchmark::DoNotOptimize(text);
  }
  ucnv_close(converter);
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes.size()));
}
BENCHMARK(BM_IcuWindows949DecodeToUtf8)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
