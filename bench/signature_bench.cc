// Verifying a list's signature against hashing it with SHA-512 alone, over
// the same bytes: a generated 200,000-record check list as stored (~41 MB).
// Verification is one SHA-512 pass (Ed25519ph) plus one signature check,
// so the two should stay within a few per cent of each other.

#include <benchmark/benchmark.h>
#include <sodium.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "ListGenerator.h"
#include "format/Signature.h"

namespace {

constexpr std::size_t kRecords = 200000;

const std::string& listBytes() {
  static const std::string bytes = [] {
    const std::string path = (std::filesystem::temp_directory_path() /
                              ("quarvel-sig-bench-" + std::to_string(::getpid()) + ".dat"))
                                 .string();
    if (!quarvel::bench::writeCheckListFile(path, kRecords)) std::abort();
    std::ifstream in(path, std::ios::binary);
    std::string read{std::istreambuf_iterator<char>(in), {}};
    std::filesystem::remove(path);
    return read;
  }();
  return bytes;
}

void BM_Sha512(benchmark::State& state) {
  const std::string& bytes = listBytes();
  if (sodium_init() < 0) state.SkipWithError("libsodium cannot start");
  unsigned char hash[crypto_hash_sha512_BYTES];
  for (auto _ : state) {
    crypto_hash_sha512(hash, reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
    benchmark::DoNotOptimize(hash);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes.size()));
}
BENCHMARK(BM_Sha512)->Unit(benchmark::kMillisecond);

void BM_Verify(benchmark::State& state) {
  const std::string& bytes = listBytes();
  const auto keys = quarvel::signing::generateKeyPair();
  if (!keys) {
    state.SkipWithError("libsodium cannot start");
    return;
  }
  const std::string signature = quarvel::signing::sign(keys->secretKey, bytes);
  for (auto _ : state) {
    const bool good = quarvel::signing::verify(keys->publicKey, bytes, signature);
    if (!good) state.SkipWithError("the signature did not verify");
    benchmark::DoNotOptimize(good);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes.size()));
}
BENCHMARK(BM_Verify)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
