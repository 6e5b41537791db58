// Decoding Korean text: the Mac Korean codec against ICU's "windows-949"
// converter on the same bytes (KS X 1001 Hangul and ASCII, which both read
// alike). ICU is measured twice: making the same result as ours (a UTF-8
// string, with its direct algorithmic path to UTF-8), and on its fastest
// path, into a reused UTF-16 buffer. Two inputs: Hangul-heavy lines (arg 0)
// and check-list records as real lists are (arg 1): mostly ASCII names,
// versions, paths and URLs, digits and tabs, a few Hangul fields. Encoding
// is measured on the list text, beside a plain copy of the same bytes.

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

// About 1 MiB of check-list records shaped like the shipped lists: 17
// fields, ASCII but for a group name and a licence word in Hangul.
std::string listText() {
  std::mt19937 rng(7);
  const char* companies[] = {"Brightpath Labs", "Tidewell Software", "Northwind Tools",
                             "Acme Systems", "Zeta Graphics"};
  const char* products[] = {"PhotoLoom", "Tidewell Office", "CodeForge", "SheetMaster", "Vectra"};
  const char* groups[] = {"\xB1\xD7\xB7\xA1\xC7\xC8", "\xBB\xE7\xB9\xAB\xBF\xEB",
                          "\xB0\xB3\xB9\xDF"};  // 그래픽, 사무용, 개발
  std::string bytes;
  for (int row = 0; bytes.size() < (1u << 20); ++row) {
    const std::string company = companies[rng() % 5], product = products[rng() % 5];
    const std::string version = std::to_string(rng() % 20) + "." + std::to_string(rng() % 10);
    const std::string exe = "app" + std::to_string(rng() % 100000);
    bytes += "SW" + std::to_string(100000 + row) + "\t" + company + "\t" + product + "\t" +
             version + "\t" + exe + "\t" + exe + "\t" + company + "\t" + product + " " + version +
             "\t" + std::to_string(rng() % 1000000) + "\t1\tG0" + std::to_string(rng() % 10) +
             "\t" + groups[rng() % 3] + "\t" + std::to_string(rng() % 10) + "\t/opt/" + exe +
             "\tY\thttps://" + exe + ".example/download\t\xBB\xF3\xBF\xEB\r\n";  // 상용
  }
  return bytes;
}

const std::string& input(const benchmark::State& state) {
  static const std::string korean = koreanText(), list = listText();
  return state.range(0) == 0 ? korean : list;
}

// ICU's converter for the same bytes; null, with the benchmark skipped,
// when this ICU has none.
UConverter* openWindows949(benchmark::State& state) {
  UErrorCode status = U_ZERO_ERROR;
  UConverter* converter = ucnv_open("windows-949", &status);
  if (!U_FAILURE(status)) return converter;
  state.SkipWithError("no windows-949 converter");
  return nullptr;
}

void BM_MacKoreanDecode(benchmark::State& state) {
  const std::string& bytes = input(state);
  for (auto _ : state) {
    std::optional<std::string> text = quarvel::MacKorean::decode(bytes);
    benchmark::DoNotOptimize(text);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes.size()));
}
BENCHMARK(BM_MacKoreanDecode)->Unit(benchmark::kMicrosecond)->Arg(0)->Arg(1);

void BM_IcuWindows949Decode(benchmark::State& state) {
  const std::string& bytes = input(state);
  UConverter* converter = openWindows949(state);
  if (!converter) return;
  UErrorCode status = U_ZERO_ERROR;
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
BENCHMARK(BM_IcuWindows949Decode)->Unit(benchmark::kMicrosecond)->Arg(0)->Arg(1);

void BM_IcuWindows949DecodeToUtf8(benchmark::State& state) {
  const std::string& bytes = input(state);
  UConverter* converter = openWindows949(state);
  if (!converter) return;
  UErrorCode status = U_ZERO_ERROR;
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
BENCHMARK(BM_IcuWindows949DecodeToUtf8)->Unit(benchmark::kMicrosecond)->Arg(0)->Arg(1);

// UTF-8 list text back to Mac Korean, as a save does, against copying the
// same bytes (the floor any encoder stands on).
void BM_MacKoreanEncode(benchmark::State& state) {
  const std::string text = *quarvel::MacKorean::decode(input(state));
  for (auto _ : state) {
    std::optional<std::string> bytes = quarvel::MacKorean::encode(text);
    benchmark::DoNotOptimize(bytes);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
}
BENCHMARK(BM_MacKoreanEncode)->Unit(benchmark::kMicrosecond)->Arg(0)->Arg(1);

void BM_CopyUtf8(benchmark::State& state) {
  const std::string text = *quarvel::MacKorean::decode(input(state));
  for (auto _ : state) {
    std::string copy(text);
    benchmark::DoNotOptimize(copy);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
}
BENCHMARK(BM_CopyUtf8)->Unit(benchmark::kMicrosecond)->Arg(1);

}  // namespace

BENCHMARK_MAIN();
