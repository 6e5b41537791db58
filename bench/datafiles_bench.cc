// Data-file throughput on a generated 200,000-record check list (~40 MB):
// open against a minimal reader of the same bytes (decipher, split,
// decode); save against its folding, encoding and enciphering alone; the
// open's peak and resident memory; and the three look-ups, on the 200,000
// records and on a million, beside the floor their memory reads set.

#include <benchmark/benchmark.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <map>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "ListGenerator.h"
#include "common/HugePages.h"
#include "datafiles/LookupIndex.h"
#include "format/LineReader.h"
#include "format/MacKorean.h"
#include "quarvel/CommonLib.h"
#include "quarvel/FileCheckList.h"

namespace {

constexpr std::size_t kRecords = 200000;

// The generated list of `records` records, written once per run.
std::map<std::size_t, std::string>& listPaths() {
  static std::map<std::size_t, std::string> paths;
  return paths;
}

// The lists are 40 MB and more each: a run stopped by a signal (a timeout,
// ^C) removes them too. The handler reads only this fixed table, filled
// before each list is written.
constexpr std::size_t kMaxLists = 4;
char removeOnSignal[kMaxLists][256];
volatile sig_atomic_t listsToRemove = 0;

extern "C" void removeListsAndStop(int signal) {
  for (sig_atomic_t i = 0; i < listsToRemove; ++i) ::unlink(removeOnSignal[i]);
  ::signal(signal, SIG_DFL);
  ::raise(signal);
}

void removeOnSignalToo(const std::string& path) {
  if (listsToRemove == kMaxLists || path.size() >= sizeof removeOnSignal[0]) return;
  std::strcpy(removeOnSignal[listsToRemove], path.c_str());
  listsToRemove = listsToRemove + 1;
  if (listsToRemove == 1)
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) ::signal(signal, removeListsAndStop);
}

const std::string& listPath(std::size_t records = kRecords) {
  std::string& path = listPaths()[records];
  if (path.empty()) {
    path =
        (std::filesystem::temp_directory_path() /
         ("quarvel-bench-" + std::to_string(::getpid()) + "-" + std::to_string(records) + ".dat"))
            .string();
    removeOnSignalToo(path);
    if (!quarvel::bench::writeCheckListFile(path, records)) std::abort();
  }
  return path;
}

quarvel::FileCheckList& loadedList(std::size_t records = kRecords) {
  static std::map<std::size_t, std::unique_ptr<quarvel::FileCheckList>> lists;
  std::unique_ptr<quarvel::FileCheckList>& list = lists[records];
  if (!list) {
    list = std::make_unique<quarvel::FileCheckList>();
    if (!list->openWithFileName(listPath(records), true)) std::abort();
  }
  return *list;
}

// The least a reader of the file must do: read it, decipher it, decode its
// text in one call and split that at its line ends into views. With
// `hugePages` its text and the file's bytes ask for huge pages, as the
// open's do; without, they come from malloc, which in a process that has
// read before hands back pages already mapped. With `twoThreads` the text
// is decoded and split in two halves at once, cut after an LF near the
// middle (no code's second byte is one), as the open reads a large file.
struct MinimalText {
  std::optional<std::string> text;
  std::vector<std::string_view> lines;
};

bool decodeAndSplit(std::string_view plain, bool hugePages, MinimalText& out) {
  if (hugePages) {
    out.text.emplace().reserve(plain.size() + plain.size() / 2);
    quarvel::adviseHugePages(out.text->data(), plain.size());
    if (!quarvel::MacKorean::decodeAppend(plain, *out.text)) return false;
  } else if (out.text = quarvel::MacKorean::decode(plain); !out.text) {
    return false;
  }
  const std::string& text = *out.text;
  for (std::size_t from = 0; from < text.size();) {
    const auto* lf =
        static_cast<const char*>(std::memchr(text.data() + from, '\n', text.size() - from));
    const std::size_t at = lf ? static_cast<std::size_t>(lf - text.data()) : text.size();
    out.lines.emplace_back(text.data() + from, at - from - (at > from && text[at - 1] == '\r'));
    from = at + 1;
  }
  return true;
}

// The halves minimalRead decodes, kept for the caller to free untimed, as
// the open's text is kept by its records.
struct MinimalRead {
  MinimalText front, back;
};

std::size_t minimalRead(const std::string& path, bool hugePages, bool twoThreads,
                        MinimalRead& out) {
  std::ifstream in(path, std::ios::binary | std::ios::ate);
  const auto size = static_cast<std::size_t>(in.tellg());
  std::unique_ptr<char, quarvel::HugePageBlockFree> bytes(
      static_cast<char*>(hugePages ? quarvel::allocateHugePageBlock(size) : std::malloc(size)));
  in.seekg(0);
  in.read(bytes.get(), static_cast<std::streamsize>(size));
  quarvel::datafile::decipher(reinterpret_cast<unsigned char*>(bytes.get()),
                              static_cast<std::uint32_t>(size));
  const std::string_view plain(bytes.get(), size);
  const std::size_t lf = twoThreads ? plain.find('\n', size / 2) : std::string_view::npos;
  MinimalText &front = out.front, &back = out.back;
  if (lf == std::string_view::npos) {
    if (!decodeAndSplit(plain, hugePages, front)) return 0;
  } else {
    auto other = std::async(std::launch::async,
                            [&] { return decodeAndSplit(plain.substr(lf + 1), hugePages, back); });
    const bool read = decodeAndSplit(plain.substr(0, lf + 1), hugePages, front);
    if (!other.get() || !read) return 0;
  }
  bytes.reset();
  benchmark::DoNotOptimize(front.lines.data());
  benchmark::DoNotOptimize(back.lines.data());
  return front.lines.size() + back.lines.size();
}

void MinimalReader(benchmark::State& state, bool twoThreads) {
  for (auto _ : state) {
    auto read = std::make_unique<MinimalRead>();
    if (minimalRead(listPath(), false, twoThreads, *read) == 0)
      state.SkipWithError("the list does not decode");
    state.PauseTiming();
    read.reset();
    state.ResumeTiming();
  }
  state.SetBytesProcessed(state.iterations() * std::filesystem::file_size(listPath()));
}
BENCHMARK_CAPTURE(MinimalReader, OneThread, false)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(MinimalReader, TwoThreads, true)->Unit(benchmark::kMillisecond)->UseRealTime();

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

// The open's first part alone: reading, deciphering and decoding the file
// and finding its lines and sections, as the open reads it (on two threads
// for a list this large). Open less this is what building the records and
// filling the indexes takes. As in Open, freeing what was read is not
// timed.
struct SectionReader : quarvel::FileFramework {
  ReadResult read;
  explicit SectionReader(quarvel::FileCheckList& list) {
    quarvel::Table* const tables[] = {list.getTableByTag("#HEADER"),
                                      list.getTableByTag("#CHECKLIST")};
    read = readSections(listPath(), tables, true);
  }
  bool ok() const { return read.status == ReadStatus::kOk; }
};
void OpenRead(benchmark::State& state) {
  for (auto _ : state) {
    auto list = std::make_unique<quarvel::FileCheckList>();
    auto reader = std::make_unique<SectionReader>(*list);
    if (!reader->ok()) state.SkipWithError("read failed");
    state.PauseTiming();
    reader.reset();
    list.reset();
    state.ResumeTiming();
  }
  state.SetBytesProcessed(state.iterations() * std::filesystem::file_size(listPath()));
}
BENCHMARK(OpenRead)->Unit(benchmark::kMillisecond)->UseRealTime();

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

// Memory of an open, per byte of the file: the peak while opening (VmHWM,
// reset through /proc/self/clear_refs just before) and what stays resident
// once open (VmRSS), both less the resident size before. Measured in a
// child process, whose heap holds nothing freed that the open could reuse.
long statusKiB(const char* field) {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);)
    if (line.starts_with(field)) return std::stol(line.substr(std::strlen(field)));
  return -1;
}

// The open's memory in a process of its own (this program run again with
// --open-memory): in the benchmark's process, or a child forked from it,
// the heap that earlier benchmarks left decides where the open's blocks go
// and how much of what it frees stays resident. Writes "before peak after"
// in KiB.
int measureOpenMemory(const char* path) {
  { std::ofstream("/proc/self/clear_refs") << "5"; }
  const long before = statusKiB("VmRSS:");
  auto list = std::make_unique<quarvel::FileCheckList>();
  if (!list->openWithFileName(path, true)) return 1;
  std::printf("%ld %ld %ld\n", before, statusKiB("VmHWM:"), statusKiB("VmRSS:"));
  return 0;
}

void OpenMemory(benchmark::State& state) {
  const double fileSize = static_cast<double>(std::filesystem::file_size(listPath()));
  long kib[3] = {};  // before, peak, after
  for (auto _ : state) {
    const std::string command = std::filesystem::read_symlink("/proc/self/exe").string() +
                                " '--open-memory=" + listPath() + "' 2>/dev/null";
    std::FILE* child = ::popen(command.c_str(), "r");
    if (child == nullptr || std::fscanf(child, "%ld %ld %ld", &kib[0], &kib[1], &kib[2]) != 3)
      state.SkipWithError("no figures from the child");
    if (child != nullptr) ::pclose(child);
  }
  state.counters["file_MB"] = fileSize / 1e6;
  state.counters["peak_per_file_byte"] = static_cast<double>(kib[1] - kib[0]) * 1024 / fileSize;
  state.counters["resident_per_file_byte"] = static_cast<double>(kib[2] - kib[0]) * 1024 / fileSize;
}
BENCHMARK(OpenMemory)->Iterations(1)->Unit(benchmark::kMillisecond);

// A host opens a list once, in a process whose heap holds nothing the
// open can reuse; in the benchmark's process the reader's buffers come back
// already mapped and the open's huge pages do not. So both are measured
// also as the first thing a process does (this program run again with
// --first-open=open, or =minimal with -huge and -two for huge pages and
// two threads): wall time as the row's time, and the CPU time of all the
// process's threads, from getrusage.
std::int64_t nanoseconds(const timeval& t) {
  return std::int64_t{t.tv_sec} * 1000000000 + std::int64_t{t.tv_usec} * 1000;
}

int measureFirstOpen(std::string_view reader, const char* path) {
  rusage before{}, after{};
  ::getrusage(RUSAGE_SELF, &before);
  const auto start = std::chrono::steady_clock::now();
  auto list = std::make_unique<quarvel::FileCheckList>();
  MinimalRead read;
  if (reader == "open" ? !list->openWithFileName(path, true)
                       : minimalRead(path, reader.find("-huge") != std::string_view::npos,
                                     reader.find("-two") != std::string_view::npos, read) == 0)
    return 1;
  const auto wall = std::chrono::steady_clock::now() - start;
  ::getrusage(RUSAGE_SELF, &after);
  const std::int64_t cpu = nanoseconds(after.ru_utime) + nanoseconds(after.ru_stime) -
                           nanoseconds(before.ru_utime) - nanoseconds(before.ru_stime);
  std::printf("%lld %lld\n", static_cast<long long>(std::chrono::nanoseconds(wall).count()),
              static_cast<long long>(cpu));
  return 0;
}

void FirstOpen(benchmark::State& state, const char* reader) {
  double cpu = 0;
  for (auto _ : state) {
    const std::string command = std::filesystem::read_symlink("/proc/self/exe").string() +
                                " --first-open=" + reader + " '" + listPath() + "' 2>/dev/null";
    std::FILE* child = ::popen(command.c_str(), "r");
    long long ns[2] = {};
    if (child == nullptr || std::fscanf(child, "%lld %lld", &ns[0], &ns[1]) != 2)
      state.SkipWithError("no figures from the child");
    if (child != nullptr) ::pclose(child);
    state.SetIterationTime(static_cast<double>(ns[0]) / 1e9);
    cpu += static_cast<double>(ns[1]) / 1e6;
  }
  state.counters["cpu_ms"] = benchmark::Counter(cpu, benchmark::Counter::kAvgIterations);
  state.SetBytesProcessed(state.iterations() * std::filesystem::file_size(listPath()));
}
// The reader's faster way in each setting: here huge pages (about 42 ms
// against 80 without, which fault 4 KiB at a time), in the benchmark's own
// process malloc's mapped pages (32 ms against 35).
BENCHMARK_CAPTURE(FirstOpen, MinimalReader, "minimal-huge")
    ->Iterations(9)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(FirstOpen, MinimalReaderTwoThreads, "minimal-huge-two")
    ->Iterations(9)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(FirstOpen, Open, "open")
    ->Iterations(9)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

enum class Key { FileName, Property, Identifier };

// The key of every record of a list of `records` records, shuffled, then
// laid end to end in that order: the record each key leads to is random,
// while the key itself is read in order, as a scan has the name it just
// read at hand.
struct LookupKeys {
  std::string buffer;
  std::vector<std::string_view> order;
};

// With `halfMissing`, every second key has its last byte made '#', which no
// generated key holds: a scan meets many names the list does not have, and
// a miss may cost more than a hit.
const LookupKeys& lookupKeys(Key kind, std::size_t records, bool halfMissing = false) {
  static std::map<std::tuple<Key, std::size_t, bool>, LookupKeys> made;
  LookupKeys& out = made[{kind, records, halfMissing}];
  if (!out.order.empty()) return out;
  quarvel::Table* table = loadedList(records).getTableByTag("#CHECKLIST");
  std::vector<std::string> keys;
  keys.reserve(records);
  for (std::size_t row = 0; row < records; ++row) {
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
  if (halfMissing)
    for (std::size_t i = 0; i < keys.size(); i += 2)
      if (!keys[i].empty()) keys[i].back() = '#';
  std::shuffle(keys.begin(), keys.end(), std::mt19937(17));
  for (const std::string& key : keys) out.buffer += key;
  out.order.reserve(keys.size());
  for (std::size_t at = 0; const std::string& key : keys) {
    out.order.emplace_back(out.buffer.data() + at, key.size());
    at += key.size();
  }
  return out;
}

// Each look-up takes the key of a record drawn at random from the whole
// list, as a scan meets them: no small set of keys stays in the caches.
void Lookup(benchmark::State& state, Key kind, bool halfMissing) {
  const auto records = static_cast<std::size_t>(state.range(0));
  quarvel::FileCheckList& list = loadedList(records);
  const std::vector<std::string_view>& order = lookupKeys(kind, records, halfMissing).order;
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

// The floor the memory sets under a look-up of the same keys: only the
// reads a hit cannot do without, with no lowering, hashing or probing. Each
// key's place is worked out before timing and read in order beside the key.
// With `slotFirst`, a slot array as large as an index of that many keys has
// (a power of two, at most four slots in five used, 8 bytes each) is read
// first and names the entry; without, the entry is read straight away, the
// least any index holding its keys apart from the text reads. The entries
// lie in the order entered, as an index's do: value, length, then the key
// padded to 4 bytes. A hit reads the entry's length and first key bytes.
// Its few instructions let the processor run many look-ups ahead, their
// misses overlapping: the figure is what memory allows, not what a look-up
// that must also lower, hash and compare its key can reach.
void LookupMemoryFloor(benchmark::State& state, Key kind, bool slotFirst) {
  const auto records = static_cast<std::size_t>(state.range(0));
  const std::vector<std::string_view>& order = lookupKeys(kind, records).order;
  std::vector<std::uint32_t, quarvel::HugePageAllocator<std::uint32_t>> entries;
  std::vector<std::uint32_t> entryOf(order.size());
  // Entered in a random order of their own: the key order says nothing of
  // where an entry lies.
  std::vector<std::size_t> entering(order.size());
  std::iota(entering.begin(), entering.end(), std::size_t{0});
  std::shuffle(entering.begin(), entering.end(), std::mt19937(29));
  for (std::size_t k : entering) {
    entryOf[k] = static_cast<std::uint32_t>(entries.size());
    entries.push_back(static_cast<std::uint32_t>(k));
    entries.push_back(static_cast<std::uint32_t>(order[k].size()));
    const std::size_t at = entries.size();
    entries.resize(at + (order[k].size() + 3) / 4);
    std::memcpy(entries.data() + at, order[k].data(), order[k].size());
  }
  std::size_t slotCount = 1;
  while (slotCount / 5 * 4 < order.size()) slotCount *= 2;
  std::vector<std::uint64_t, quarvel::HugePageAllocator<std::uint64_t>> slots(slotCount, 0);
  std::vector<std::uint32_t> place(order.size());
  std::mt19937_64 random(31);
  for (std::size_t k = 0; k < order.size(); ++k) {
    std::size_t at = random() & (slotCount - 1);
    while (slots[at] != 0) at = (at + 1) & (slotCount - 1);
    slots[at] = entryOf[k] + 1;
    place[k] = static_cast<std::uint32_t>(slotFirst ? at : entryOf[k]);
  }
  std::size_t i = 0;
  for (auto _ : state) {
    const std::string_view key = order[i];
    std::size_t entry = place[i];
    if (++i == order.size()) i = 0;
    if (slotFirst) entry = slots[entry] - 1;
    std::uint32_t first = 0;
    std::memcpy(&first, key.data(), std::min<std::size_t>(key.size(), 4));
    const bool hit = entries[entry + 1] == key.size() && entries[entry + 2] == first;
    benchmark::DoNotOptimize(hit);
  }
  state.SetItemsProcessed(state.iterations());
}

// Filling an index as an open does, keys in row order, into a fresh index
// each time: file names (about 16 bytes) or property keys (about 50, a
// third with Hangul), case-blind. The keys are read where the open reads
// them, in the records' text, not from compact copies.
void IndexFill(benchmark::State& state, Key kind) {
  const auto records = static_cast<std::size_t>(state.range(0));
  quarvel::Table* table = loadedList(records).getTableByTag("#CHECKLIST");
  std::vector<std::string_view> keys;
  keys.reserve(records);
  for (std::size_t row = 0; row < records; ++row) {
    quarvel::RecordPtr r = table->select(static_cast<std::int64_t>(row));
    keys.emplace_back(kind == Key::FileName ? (*r)[5] : r->joined(1, 4));
  }
  for (auto _ : state) {
    quarvel::LookupIndex index;
    quarvel::LookupIndex::Filler filler(index, keys.size());
    for (std::size_t row = 0; row < keys.size(); ++row)
      filler.add(keys[row], static_cast<std::int64_t>(row));
    filler.finish();
    benchmark::DoNotOptimize(index.size());
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(keys.size()));
}
BENCHMARK_CAPTURE(IndexFill, FileName, Key::FileName)->Arg(kRecords)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(IndexFill, Property, Key::Property)->Arg(kRecords)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Lookup, FileName, Key::FileName, false)->Arg(kRecords)->Arg(1000000);
BENCHMARK_CAPTURE(Lookup, Property, Key::Property, false)->Arg(kRecords)->Arg(1000000);
BENCHMARK_CAPTURE(Lookup, Identifier, Key::Identifier, false)->Arg(kRecords);
BENCHMARK_CAPTURE(Lookup, FileNameHalfMissing, Key::FileName, true)->Arg(kRecords);
BENCHMARK_CAPTURE(Lookup, PropertyHalfMissing, Key::Property, true)->Arg(kRecords);
BENCHMARK_CAPTURE(LookupMemoryFloor, FileNameSlotThenEntry, Key::FileName, true)
    ->Arg(kRecords)
    ->Arg(1000000);
BENCHMARK_CAPTURE(LookupMemoryFloor, PropertySlotThenEntry, Key::Property, true)
    ->Arg(kRecords)
    ->Arg(1000000);
BENCHMARK_CAPTURE(LookupMemoryFloor, PropertyEntry, Key::Property, false)
    ->Arg(kRecords)
    ->Arg(1000000);

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && std::string_view(argv[1]).starts_with("--open-memory="))
    return measureOpenMemory(argv[1] + std::strlen("--open-memory="));
  if (argc == 3 && std::string_view(argv[1]).starts_with("--first-open="))
    return measureFirstOpen(argv[1] + std::strlen("--first-open="), argv[2]);
  benchmark::Initialize(&argc, argv);
  listPath();  // generate the list before any timing
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  for (const auto& [records, path] : listPaths()) std::filesystem::remove(path);
  return 0;
}
