// Sorting 1,000,000 records on one field: TableMulti's caseless numeric
// sort against std::sort with plain byte comparison of the same values,
// both as records and as a bare vector of strings.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <random>

#include "quarvel/TableMulti.h"

namespace {

constexpr int kRecords = 1'000'000;

// Product-like values: mixed case, numbers, some Korean.
std::vector<quarvel::RecordPtr> records() {
  static const char* words[] = {"Adobe",
                                "acrobat",
                                "Photo",
                                "studio",
                                "\xED\x95\x9C\xEA\xB8\x80",
                                "Office",
                                "\xEB\xB0\xB1\xEC\x8B\xA0",
                                "Font",
                                "SUITE",
                                "pro"};
  std::mt19937 rng(3);
  std::vector<quarvel::RecordPtr> out;
  out.reserve(kRecords);
  for (int i = 0; i < kRecords; ++i) {
    std::string value = std::string(words[rng() % 10]) + " " + words[rng() % 10] + " " +
                        std::to_string(rng() % 5000) + "." + std::to_string(rng() % 20);
    out.push_back(
        std::make_shared<quarvel::Record>(quarvel::Record{std::to_string(i), std::move(value)}));
  }
  return out;
}

void BM_TableMultiSort(benchmark::State& state) {
  const std::vector<quarvel::RecordPtr> unsorted = records();
  quarvel::TableMulti table;
  table.setFieldWithRecord("DB_ID\tPRODUCT", "\t");
  for (auto _ : state) {
    state.PauseTiming();
    table.setM_arrData(unsorted);
    state.ResumeTiming();
    table.sortByFieldName("PRODUCT", true);
  }
  state.SetItemsProcessed(state.iterations() * kRecords);
}
BENCHMARK(BM_TableMultiSort)->Unit(benchmark::kMillisecond);

void BM_StdSortBytes(benchmark::State& state) {
  const std::vector<quarvel::RecordPtr> unsorted = records();
  std::vector<quarvel::RecordPtr> data;
  for (auto _ : state) {
    state.PauseTiming();
    data = unsorted;
    state.ResumeTiming();
    std::sort(
        data.begin(), data.end(),
        [](const quarvel::RecordPtr& a, const quarvel::RecordPtr& b) { return (*a)[1] < (*b)[1]; });
  }
  state.SetItemsProcessed(state.iterations() * kRecords);
}
BENCHMARK(BM_StdSortBytes)->Unit(benchmark::kMillisecond);

// The values alone, without records around them.
void BM_StdSortValues(benchmark::State& state) {
  std::vector<std::string> unsorted;
  for (const quarvel::RecordPtr& record : records()) unsorted.emplace_back((*record)[1]);
  std::vector<std::string> data;
  for (auto _ : state) {
    state.PauseTiming();
    data = unsorted;
    state.ResumeTiming();
    std::sort(data.begin(), data.end());
  }
  state.SetItemsProcessed(state.iterations() * kRecords);
}
BENCHMARK(BM_StdSortValues)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
