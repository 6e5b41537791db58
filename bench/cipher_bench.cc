// The cipher and the reader's decipher step against memcpy on 64 MiB.

#include <benchmark/benchmark.h>

#include <cstring>
#include <random>
#include <vector>

#include "format/LineReader.h"
#include "quarvel/CommonLib.h"

namespace {

constexpr std::size_t kSize = 64u << 20;

std::vector<unsigned char> randomBytes() {
  std::vector<unsigned char> bytes(kSize);
  std::mt19937_64 rng(1);
  for (std::size_t i = 0; i < kSize; i += 8) {
    const std::uint64_t v = rng();
    std::memcpy(&bytes[i], &v, 8);
  }
  return bytes;
}

void BM_Memcpy(benchmark::State& state) {
  std::vector<unsigned char> from = randomBytes(), to(kSize);
  for (auto _ : state) {
    std::memcpy(to.data(), from.data(), kSize);
    benchmark::DoNotOptimize(to.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kSize));
}
BENCHMARK(BM_Memcpy)->Unit(benchmark::kMillisecond);

void BM_Encrypt(benchmark::State& state) {
  std::vector<unsigned char> bytes = randomBytes();
  for (auto _ : state) {
    quarvel::CommonLib::Encrypt(bytes.data(), kSize);
    benchmark::DoNotOptimize(bytes.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kSize));
}
BENCHMARK(BM_Encrypt)->Unit(benchmark::kMillisecond);

void BM_Decipher(benchmark::State& state) {
  std::vector<unsigned char> bytes = randomBytes();
  for (auto _ : state) {
    quarvel::datafile::decipher(bytes.data(), kSize);
    benchmark::DoNotOptimize(bytes.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kSize));
}
BENCHMARK(BM_Decipher)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
