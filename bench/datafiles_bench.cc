// Data-file throughput on a generated 200,000-record check list (~40 MB):
// open against its deciphering, splitting and decoding alone; save against
// its folding, encoding and enciphering alone; the loaded list's memory;
// and the three look-ups.

#include <benchmark/benchmark.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "ListGenerator.h"
#include "format/MacKorean.h"
#include "quarvel/CommonLib.h"
#include "quarvel/FileCheckList.h"

namespace {

constexpr std::size_t kRecords = 200000;

const std::string& listPath() {
  static const std::string path = [] {
    std::string p = (std::filesystem::temp_directory_path() /
                     ("quarvel-bench-" + std::to_string(::getpid()) + ".dat"))
                        .string();
    if (!quarvel::bench::writeCheckListFile(p, kRecords)) std::abort();
    return p;
  }();
  return path;
}

quarvel::FileCheckList& loadedList() {
  static quarvel::FileCheckList* list = [] {
    auto* l = new quarvel::FileCheckList();
    if (!l->openWithFileName(listPath(), true)) std::abort();
    return l;
  }();
  return *list;
}

void DecipherSplitDecode(benchmark::State& state) {
  for (auto _ : state) {
    std::vector<std::string> lines;
    quarvel::CommonLib::Decrypt(lines, listPath());
    benchmark::DoNotOptimize(lines.data());
  }
  state.SetBytesProcessed(state.iterations() * std::filesystem::file_size(listPath()));
}
BENCHMARK(DecipherSplitDecode)->Unit(benchmark::kMillisecond)->UseRealTime();

void Open(benchmark::State& state) {
  for (auto _ : state) {
    auto list = std::make_unique<quarvel::FileCheckList>();
    if (!list->openWithFileName(listPath(), true)) state.SkipWithError("open failed");
    benchmark::DoNotOptimize(list.get());
    // Closing the list is not part of opening it.
    state.PauseTiming();
    list.reset();
    state.ResumeTiming();
  }
  state.SetBytesProcessed(state.iterations() * std::filesystem::file_size(listPath()));
}
BENCHMARK(Open)->Unit(benchmark::kMillisecond)->UseRealTime();

void FoldEncodeEncipher(benchmark::State& state) {
  const std::string text = quarvel::bench::generateCheckListText(kRecords);
  for (auto _ : state) {
    const std::string folded = quarvel::CommonLib::encodingForSpecialCharacter(text);
    std::optional<std::string> bytes = quarvel::MacKorean::encode(folded);
    auto buffer = std::make_unique<unsigned char[]>(bytes->size() + 1);
    std::memcpy(buffer.get(), bytes->data(), bytes->size());
    quarvel::CommonLib::Encrypt(buffer.get(), static_cast<std::uint32_t>(bytes->size()));
    benchmark::DoNotOptimize(buffer.get());
  }
}
BENCHMARK(FoldEncodeEncipher)->Unit(benchmark::kMillisecond)->UseRealTime();

// The writer's text alone: build, fold, encode and check, without the
// cipher and the disk.
void Contents(benchmark::State& state) {
  quarvel::FileCheckList& list = loadedList();
  for (auto _ : state) {
    std::uint64_t size = 0;
    std::unique_ptr<unsigned char[]> contents = list.getContents(size);
    if (!contents) state.SkipWithError("contents refused");
    benchmark::DoNotOptimize(contents.get());
  }
}
BENCHMARK(Contents)->Unit(benchmark::kMillisecond)->UseRealTime();

void Save(benchmark::State& state) {
  quarvel::FileCheckList& list = loadedList();
  const std::string out = listPath() + ".saved";
  for (auto _ : state) {
    if (!list.saveAsFileName(out, true)) state.SkipWithError("save failed");
  }
  std::filesystem::remove(out);
}
BENCHMARK(Save)->Unit(benchmark::kMillisecond)->UseRealTime();

// Heap held by a loaded list, per byte of the file: chunks in the arena
// and the large blocks malloc maps on their own alike.
std::size_t heapInUse() {
  const struct mallinfo2 info = ::mallinfo2();
  return info.uordblks + info.hblkhd;
}

void LoadedMemory(benchmark::State& state) {
  const double fileSize = static_cast<double>(std::filesystem::file_size(listPath()));
  double used = 0;
  for (auto _ : state) {
    ::malloc_trim(0);
    const std::size_t before = heapInUse();
    auto list = std::make_unique<quarvel::FileCheckList>();
    list->openWithFileName(listPath(), true);
    used = static_cast<double>(heapInUse() - before);
    benchmark::DoNotOptimize(list.get());
  }
  state.counters["file_MB"] = fileSize / 1e6;
  state.counters["heap_MB"] = used / 1e6;
  state.counters["heap_per_file_byte"] = used / fileSize;
}
BENCHMARK(LoadedMemory)->Iterations(1)->Unit(benchmark::kMillisecond);

enum class Key { FileName, Property, Identifier };

// Each look-up takes the key of a record drawn at random from the whole
// list, as a scan meets them: no small set of keys stays in the caches.
void Lookup(benchmark::State& state, Key kind) {
  quarvel::FileCheckList& list = loadedList();
  quarvel::Table* table = list.getTableByTag("#CHECKLIST");
  std::vector<std::string> keys;
  keys.reserve(kRecords);
  for (std::size_t row = 0; row < kRecords; ++row) {
    quarvel::RecordPtr r = table->select(static_cast<std::int64_t>(row));
    switch (kind) {
      case Key::FileName:
        keys.emplace_back((*r)[5]);
        break;
      case Key::Property:
        keys.emplace_back(r->joined(1, 4));
        break;
      case Key::Identifier:
        keys.emplace_back((*r)[0]);
        break;
    }
  }
  // Shuffled, then laid end to end in that order: the record each key leads
  // to is random, while the key itself is read in order, as a scan has the
  // name it just read at hand.
  std::shuffle(keys.begin(), keys.end(), std::mt19937(17));
  std::string buffer;
  std::vector<std::string_view> order;
  order.reserve(keys.size());
  for (const std::string& key : keys) buffer += key;
  for (std::size_t at = 0; const std::string& key : keys) {
    order.emplace_back(buffer.data() + at, key.size());
    at += key.size();
  }
  std::size_t i = 0;
  for (auto _ : state) {
    const std::string_view key = order[i];
    if (++i == order.size()) i = 0;
    int found = kind == Key::FileName   ? list.getIdByFileName(key)
                : kind == Key::Property ? list.getIdByProperty(key)
                                        : list.getIndex(key);
    benchmark::DoNotOptimize(found);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK_CAPTURE(Lookup, FileName, Key::FileName);
BENCHMARK_CAPTURE(Lookup, Property, Key::Property);
BENCHMARK_CAPTURE(Lookup, Identifier, Key::Identifier);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  listPath();  // generate the list before any timing
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  std::filesystem::remove(listPath());
  return 0;
}
