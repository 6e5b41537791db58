// The download run against a misbehaving server and a disk that refuses
// writes. Whatever goes wrong, the run must end within a time set by its
// time-outs, answer the outcome the fault calls for, and leave every data
// file whole: the old content or the complete new one, no temporary file.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <deque>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <thread>
#include <vector>

#include "common/HttpClient.h"
#include "common/Log.h"
#include "quarvel/CVUserDefaults.h"
#include "quarvel/UpdateRun.h"
#include "support/DataFileTargets.h"
#include "support/FileText.h"
#include "support/FreePort.h"
#include "support/LoopbackHttpServer.h"
#include "support/RecordingUpdateView.h"
#include "support/SettingsSandbox.h"
#include "support/TestPlatform.h"

namespace quarvel {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;
using testing::HttpReceived;
using testing::HttpReply;
using testing::kDataFileTargets;
using testing::readFile;
using testing::RecordingView;

constexpr const char* kFailText = "DB 업데이트 도중 오류가 발생하였습니다.";
constexpr const char* kDoneText = "업데이트가 완료되었습니다.";
// Room for start-up, loopback transfers and a loaded machine under the
// sanitizers, on top of the time-outs a run may spend.
constexpr auto kSlack = 5s;

// A file's content in a failure message: its first line and its size.
std::string summary(const std::string& content) {
  return "\"" + content.substr(0, content.find('\n')) + "\" (" + std::to_string(content.size()) +
         " bytes)";
}
#define EXPECT_CONTENT(actual, expected)                               \
  do {                                                                 \
    const std::string a = (actual), e = (expected);                    \
    EXPECT_TRUE(a == e) << summary(a) << " instead of " << summary(e); \
  } while (0)

std::string oldContent(int file) { return std::string("old ") + kDataFileTargets[file].name; }
// Long enough to be cut part-way and to outgrow the write limit below.
std::string newContent(int file, std::size_t size = 8192) {
  std::string body = std::string("new ") + kDataFileTargets[file].name + "\n";
  body.resize(size, 'x');
  return body;
}

class UpdateFaultsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    settings = CVUserDefaults::standardUserDefaults();
    library = *settings->libraryPath();
    for (int file = 0; file < 5; ++file) {
      std::ofstream(path(file), std::ios::binary) << oldContent(file);
      setBody(file, newContent(file));
    }
  }

  // Starts afresh for another run in the same test: old files, no scripted
  // answers, a new view; the requests seen so far are forgotten.
  void startAfresh() {
    {
      std::lock_guard lock(mutex);
      scripted.clear();
    }
    for (int file = 0; file < 5; ++file)
      std::ofstream(path(file), std::ios::binary | std::ios::trunc) << oldContent(file);
    view = std::make_shared<RecordingView>();
    requestsBefore = server.requests().size();
  }

  // What `file` answers once its scripted answers are used up.
  void setBody(int file, std::string body) {
    std::lock_guard lock(mutex);
    bodies[kDataFileTargets[file].target] = std::move(body);
  }

  // The next answers for `file`, one per request; after them it answers its
  // new content.
  void script(int file, std::vector<HttpReply> replies) {
    std::lock_guard lock(mutex);
    auto& queue = scripted[kDataFileTargets[file].target];
    queue.insert(queue.end(), replies.begin(), replies.end());
  }
  HttpReply answer(const HttpReceived& request) {
    std::lock_guard lock(mutex);
    auto& queue = scripted[request.target];
    if (queue.empty()) return HttpReply::text(bodies[request.target]);
    HttpReply reply = std::move(queue.front());
    queue.pop_front();
    return reply;
  }

  UpdateOptions options(std::chrono::milliseconds timeout) {
    UpdateOptions o;
    o.listServer = "http://" + server.hostAndPort();
    o.fileServer = o.listServer;
    o.dataFileTimeout = timeout;
    o.transferLimit = timeout;  // an endless trickle ends at the time-out too
    o.pacing = 5ms;
    o.networkCheck = [] { return true; };
    o.dayOfMonth = [] { return std::string("07"); };
    return o;
  }

  // Runs to the end, which must come before `timedOut` time-outs of the run
  // have passed plus the pauses and some slack; answers the time it took.
  std::chrono::milliseconds runWithin(const std::shared_ptr<UpdateRun>& run, int timedOut) {
    const auto& o = run->options();
    const auto bound = timedOut * o.dataFileTimeout + 6 * o.pacing + kSlack;
    const auto started = std::chrono::steady_clock::now();
    run->start();
    EXPECT_TRUE(
        run->waitUntilFinished(std::chrono::duration_cast<std::chrono::milliseconds>(bound)))
        << "the run did not end within " << bound.count() << " ms";
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                                 started);
  }

  std::string path(int file) const { return library + "/" + kDataFileTargets[file].name; }
  int requests(int file) const {
    int n = 0;
    const auto all = server.requests();
    for (std::size_t i = requestsBefore; i < all.size(); ++i)
      n += all[i].target == kDataFileTargets[file].target;
    return n;
  }

  // Files [0, replaced) hold their new content, the rest their old one, and
  // the folder holds nothing else.
  void expectWholeFiles(int replaced) {
    for (int file = 0; file < 5; ++file) {
      SCOPED_TRACE(kDataFileTargets[file].name);
      EXPECT_CONTENT(readFile(path(file)), file < replaced ? newContent(file) : oldContent(file));
    }
    expectNoStrayFiles();
  }
  void expectNoStrayFiles() {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(library))
      names.push_back(entry.path().filename());
    EXPECT_EQ(names.size(), 5u) << ::testing::PrintToString(names);
  }

  void expectFailsAtTheThirdFile(const HttpReply& reply, int timedOut);
  void expectFailedAt(int file) {
    EXPECT_EQ(view->alerts(), std::vector<std::string>{"DOWNLOAD_FAIL"});
    EXPECT_EQ(UpdateRun::alertInformativeText(view->alerts().empty() ? "" : view->alerts()[0]),
              kFailText);
    EXPECT_EQ(view->closes(), 1);
    EXPECT_EQ(view->progress().size(), static_cast<size_t>(file));
    EXPECT_FALSE(settings->lastUpdateDate());
    for (int later = file + 1; later < 5; ++later) EXPECT_EQ(requests(later), 0);
  }
  void expectDone() {
    EXPECT_EQ(view->alerts(), std::vector<std::string>{"DOWNLOAD_DONE"});
    EXPECT_EQ(UpdateRun::alertInformativeText(view->alerts().empty() ? "" : view->alerts()[0]),
              kDoneText);
    EXPECT_EQ(view->status(), kDoneText);
    EXPECT_EQ(view->progress(),
              (std::vector<double>{2 / 6.0, 3 / 6.0, 4 / 6.0, 5 / 6.0, 1.0, 1.0}));
    EXPECT_EQ(view->closes(), 1);
    ASSERT_TRUE(settings->lastUpdateDate());
    EXPECT_EQ(*settings->lastUpdateDate(), PlistValue::string("07"));
  }

  testing::SettingsSandbox sandbox;
  std::mutex mutex;  // the answers, shared with the server's thread
  std::map<std::string, std::deque<HttpReply>> scripted;
  std::map<std::string, std::string> bodies;
  testing::LoopbackHttpServer server{[this](const HttpReceived& r) { return answer(r); }};
  std::shared_ptr<RecordingView> view = std::make_shared<RecordingView>();
  CVUserDefaults* settings = nullptr;
  std::string library;
  std::size_t requestsBefore = 0;  // requests of earlier runs in the test
};

TEST_F(UpdateFaultsTest, AClosedPortFailsTheFirstFileAndTouchesNothing) {
  const int port = testing::freeLoopbackPort();
  ASSERT_GT(port, 0);

  UpdateOptions o = options(400ms);
  o.listServer = "http://127.0.0.1:" + std::to_string(port);
  auto run = UpdateRun::create(view, o);
  runWithin(run, 0);
  EXPECT_EQ(run->updateStatus(), UpdateStatusFailed);
  EXPECT_EQ(view->status(), "체크리스트 DB를 업데이트 중입니다.");
  expectFailedAt(0);
  expectWholeFiles(0);
}

// A file whose every attempt breaks off ends the run at that file (the
// third); the ones before it stay replaced, it and the later ones keep their
// old content. `timedOut` attempts of the five run into the time-out.
void UpdateFaultsTest::expectFailsAtTheThirdFile(const HttpReply& reply, int timedOut) {
  const auto timeout = 400ms;
  script(2, std::vector<HttpReply>(5, reply));
  auto run = UpdateRun::create(view, options(timeout));
  EXPECT_GE(runWithin(run, timedOut), timedOut * timeout);
  EXPECT_EQ(run->updateStatus(), UpdateStatusFailed);
  EXPECT_EQ(requests(2), 5);
  EXPECT_EQ(view->status(), "필터 DB를 업데이트 중입니다.");
  EXPECT_EQ(view->progress(), (std::vector<double>{2 / 6.0, 3 / 6.0}));
  expectFailedAt(2);
  expectWholeFiles(2);
}

TEST_F(UpdateFaultsTest, AResetMidBodyFailsTheFile) {
  expectFailsAtTheThirdFile(HttpReply::resetAfter(newContent(2), 4096), 0);
}

TEST_F(UpdateFaultsTest, ABodyStalledPastTheTimeoutFailsTheFile) {
  expectFailsAtTheThirdFile(HttpReply::stallAfter(newContent(2), 4096), 5);
}

TEST_F(UpdateFaultsTest, ATrickleThatNeverEndsFailsTheFileAtTheTimeout) {
  // About 64 bytes every 20 ms of a megabyte: still coming at the time-out.
  expectFailsAtTheThirdFile(HttpReply::trickle(std::string(1 << 20, 'x'), 64, 20ms), 5);
}

TEST_F(UpdateFaultsTest, FaultsThatClearByTheFifthAttemptStillCompleteTheRun) {
  const auto timeout = 1s;
  const std::string body = newContent(0);
  script(0, {HttpReply::resetAfter(body, 100), HttpReply::resetAfter(body, body.size() - 1),
             HttpReply::stallAfter(body, 10),
             HttpReply::trickle(std::string(1 << 20, 'x'), 64, 20ms)});
  // 8 KiB in 1 KiB pieces 25 ms apart: slow, but well inside the time-out.
  script(3, {HttpReply::trickle(newContent(3), 1024, 25ms)});
  auto run = UpdateRun::create(view, options(timeout));
  const auto took = runWithin(run, 2);
  EXPECT_GE(took, 2 * timeout);
  EXPECT_EQ(run->updateStatus(), UpdateStatusDone);
  EXPECT_EQ(requests(0), 5);
  EXPECT_EQ(requests(3), 1);
  expectDone();
  expectWholeFiles(5);
}

// The time-out counts silence, not the whole transfer: a body that takes
// five time-outs to arrive but never pauses for one completes.
TEST_F(UpdateFaultsTest, ASteadyBodySlowerThanTheTimeoutStillCompletes) {
  const auto timeout = 400ms;
  script(3, {HttpReply::trickle(std::string(40 * 256, 'y'), 256, 50ms)});
  UpdateOptions o = options(timeout);
  o.transferLimit = 20s;
  auto run = UpdateRun::create(view, o);
  EXPECT_GE(runWithin(run, 4), 4 * timeout);
  EXPECT_EQ(run->updateStatus(), UpdateStatusDone);
  EXPECT_EQ(requests(3), 1);
  EXPECT_EQ(readFile(path(3)), std::string(40 * 256, 'y'));
}

// The resident set of this process, in bytes, from /proc/self/status.
std::int64_t residentBytes() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line))
    if (line.rfind("VmRSS:", 0) == 0) return std::stoll(line.substr(6)) * 1024;  // in kB
  return -1;
}

// Samples the resident set every few milliseconds until destroyed, keeping
// the largest value seen.
class ResidentPeak {
 public:
  ResidentPeak() : peak_(residentBytes()), thread_([this] { sample(); }) {}
  ~ResidentPeak() {
    stop_ = true;
    thread_.join();
  }
  std::int64_t peak() const { return peak_.load(); }

 private:
  void sample() {
    while (!stop_) {
      const std::int64_t now = residentBytes();
      if (now > peak_.load()) peak_.store(now);
      std::this_thread::sleep_for(2ms);
    }
  }
  std::atomic<std::int64_t> peak_;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

// A body that never ends, sent as fast as loopback carries it, ends each
// attempt at the ceiling: the file fails after five attempts, the old file
// stays, and the body is never held in memory (the ceiling is above the
// bound on the resident set, so holding one would show).
TEST_F(UpdateFaultsTest, AnEndlessBodyEndsAtTheCeilingWithMemoryFlat) {
  constexpr std::uint64_t kCeiling = 48u << 20;
  constexpr std::int64_t kAllowedGrowth = 32 << 20;
  script(2, std::vector<HttpReply>(5, HttpReply::flood(std::string(64 * 1024, 'z'))));
  UpdateOptions o = options(5s);
  o.transferLimit = 60s;
  o.maxFileBytes = kCeiling;
  auto run = UpdateRun::create(view, o);

  LogCapture log;
  const std::int64_t before = residentBytes();
  ASSERT_GT(before, 0);
  std::int64_t peak;
  {
    ResidentPeak sampler;
    runWithin(run, 5);
    peak = sampler.peak();
  }
  const std::int64_t after = residentBytes();
  EXPECT_LT(peak - before, kAllowedGrowth) << "peak " << peak << ", before " << before;
  EXPECT_LT(after - before, kAllowedGrowth) << "after " << after << ", before " << before;

  EXPECT_EQ(run->updateStatus(), UpdateStatusFailed);
  EXPECT_EQ(requests(2), 5);
  expectFailedAt(2);
  expectWholeFiles(2);
  EXPECT_TRUE(log.contains("the body passed " + std::to_string(kCeiling) + " bytes"));
  // What the view was told of the file reaches the ceiling, to within one
  // piece of the body, and never passes it.
  const auto bytes = view->bytes();
  ASSERT_FALSE(bytes.empty());
  const std::uint64_t most = *std::max_element(bytes.begin(), bytes.end());
  EXPECT_LE(most, kCeiling);
  EXPECT_GT(most, kCeiling - (512u << 10));
}

// The ceiling is a size the body may reach, not pass, whether the server
// announces the length or not.
TEST_F(UpdateFaultsTest, TheCeilingLetsABodyReachItButNotPassIt) {
  constexpr std::uint64_t kCeiling = 100000;
  struct Case {
    const char* name;
    HttpReply reply;
    bool fits;
  };
  const std::string atCeiling(kCeiling, 'c'), pastCeiling(kCeiling + 1, 'c');
  HttpReply unannouncedPast = HttpReply::flood(pastCeiling);
  const Case cases[] = {
      {"announced, at the ceiling", HttpReply::text(atCeiling), true},
      {"announced, one byte past", HttpReply::text(pastCeiling), false},
      {"error page past the ceiling", HttpReply::text(pastCeiling, 404), false},
      {"unannounced, without end", unannouncedPast, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    startAfresh();
    script(0, std::vector<HttpReply>(5, c.reply));
    UpdateOptions o = options(2s);
    o.maxFileBytes = kCeiling;
    auto run = UpdateRun::create(view, o);
    runWithin(run, 0);
    if (c.fits) {
      EXPECT_EQ(run->updateStatus(), UpdateStatusDone);
      EXPECT_CONTENT(readFile(path(0)), atCeiling);
    } else {
      EXPECT_EQ(run->updateStatus(), UpdateStatusFailed);
      EXPECT_EQ(requests(0), 5);
      EXPECT_CONTENT(readFile(path(0)), oldContent(0));
    }
    expectNoStrayFiles();
  }
}

// Temporaries that a killed run of an earlier version left (".NAME.XXXXXX",
// mode 0644) go with the next run; files that merely look alike stay.
TEST_F(UpdateFaultsTest, TheNextRunRemovesWhatAKilledEarlierRunLeft) {
  enum Kind { File, Link, Folder };
  struct Case {
    std::string name;
    Kind kind;
    mode_t mode;
    bool old;  // untouched for an hour
    bool removed;
  };
  const std::string check = ".macchecklist.dat.", font = ".fontchecklist.dat.";
  const Case cases[] = {
      {check + "A1b2C3", File, 0644, true, true},
      {font + "Zq9xW0", File, 0644, true, true},
      {check + "backup", File, 0644, true, false},   // a word, not mkstemp's
      {check + "A1b2C", File, 0644, true, false},    // five characters
      {check + "A1b2C3x", File, 0644, true, false},  // seven
      {check + "A1-2C3", File, 0644, true, false},   // not a letter or digit
      {check + "A1b2C4", File, 0600, true, false},   // a mode the run never set
      {check + "A1b2C5", File, 0644, false, false},  // an old run may still be on it
      {check + "A1b2C6", Link, 0644, true, false},
      {check + "A1b2C7", Folder, 0755, true, false},
      {".ver.dat.A1b2C3", File, 0644, true, false},  // a name this run does not write
      {"macchecklist.dat.A1b2C3", File, 0644, true, false},
  };
  const auto anHourAgo = fs::file_time_type::clock::now() - std::chrono::hours(1);
  for (const Case& c : cases) {
    const std::string where = library + "/" + c.name;
    if (c.kind == File) {
      std::ofstream(where) << "left";
      ASSERT_EQ(::chmod(where.c_str(), c.mode), 0) << c.name;
      if (c.old) fs::last_write_time(where, anHourAgo);
    } else if (c.kind == Link) {
      fs::create_symlink(path(0), where);
    } else {
      fs::create_directory(where);
    }
  }
  auto run = UpdateRun::create(view, options(1s));
  runWithin(run, 0);
  EXPECT_EQ(run->updateStatus(), UpdateStatusDone);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(fs::exists(fs::symlink_status(library + "/" + c.name)), !c.removed);
  }
  for (int file = 0; file < 5; ++file) EXPECT_CONTENT(readFile(path(file)), newContent(file));
}

// An error page is an answer like any other: its body replaces the file,
// an empty one included, and the run counts as a success.
TEST_F(UpdateFaultsTest, ErrorPagesAreWrittenOverTheFiles) {
  script(0, {HttpReply::text("<h1>404 Not Found</h1>", 404)});
  script(2, {HttpReply::text("<h1>500 Internal Server Error</h1>", 500)});
  script(4, {HttpReply::text("", 500)});
  auto run = UpdateRun::create(view, options(1s));
  runWithin(run, 0);
  EXPECT_EQ(run->updateStatus(), UpdateStatusDone);
  expectDone();
  EXPECT_EQ(readFile(path(0)), "<h1>404 Not Found</h1>");
  EXPECT_CONTENT(readFile(path(1)), newContent(1));
  EXPECT_EQ(readFile(path(2)), "<h1>500 Internal Server Error</h1>");
  EXPECT_CONTENT(readFile(path(3)), newContent(3));
  EXPECT_EQ(readFile(path(4)), "");
  expectNoStrayFiles();
}

// A failed write, flush or rename keeps the file's old content and leaves
// nothing behind; the run, which does not notice failed writes, ends as a
// success. With a full disk only the files too large for it keep theirs.
TEST_F(UpdateFaultsTest, DiskFaultsKeepTheOldFilesWhole) {
  constexpr std::size_t kLimit = 16 * 1024;
  const struct {
    const char* name;
    testing::FaultyDisk::Fault fault;
    std::vector<int> kept;  // files that keep their old content
  } cases[] = {
      {"full disk", testing::FaultyDisk::Fault::kFull, {1, 3}},
      {"flush fails", testing::FaultyDisk::Fault::kFlush, {0, 1, 2, 3, 4}},
      {"rename fails", testing::FaultyDisk::Fault::kRename, {0, 1, 2, 3, 4}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    startAfresh();
    for (int file = 0; file < 5; ++file)
      setBody(file, newContent(file, file % 2 ? 4 * kLimit : 100));
    quarvel::testing::ScopedPlatform disk(std::make_shared<testing::FaultyDisk>(c.fault, kLimit));
    auto run = UpdateRun::create(view, options(1s));
    runWithin(run, 0);
    EXPECT_EQ(run->updateStatus(), UpdateStatusDone);
    for (int file = 0; file < 5; ++file) {
      SCOPED_TRACE(kDataFileTargets[file].name);
      const bool kept = std::find(c.kept.begin(), c.kept.end(), file) != c.kept.end();
      EXPECT_CONTENT(readFile(path(file)),
                     kept ? oldContent(file) : newContent(file, file % 2 ? 4 * kLimit : 100));
    }
    expectNoStrayFiles();
  }
}

// Answers the exchanges for one file in libcurl's place and lets the others
// reach the loopback server: a fault on the network injected in-process.
class FaultyNetwork : public PlatformWrapper {
 public:
  // Delivers `body` (or its first `cut` bytes), then answers `code`.
  FaultyNetwork(std::string target, std::string body, std::size_t cut, CURLcode code)
      : target_(std::move(target)), body_(std::move(body)), cut_(cut), code_(code) {}
  int performHttp(HttpExchange& exchange) override {
    if (!exchange.url().ends_with(target_)) return PlatformWrapper::performHttp(exchange);
    ++calls;
    const std::string_view body = std::string_view(body_).substr(0, cut_);
    for (std::size_t at = 0; at < body.size(); at += 1024)
      if (!exchange.deliver(body.substr(at, 1024))) return CURLE_WRITE_ERROR;
    return code_;
  }
  std::atomic<int> calls{0};

 private:
  std::string target_;
  std::string body_;
  std::size_t cut_;
  CURLcode code_;
};

// Faults of the third file's transfer, without a server that makes them: a
// connection reset mid-body and a name that does not resolve fail every
// attempt and keep the old file; an answer the run takes (an error page)
// replaces it.
TEST_F(UpdateFaultsTest, NetworkFaultsInjectedInProcess) {
  const struct {
    const char* name;
    std::size_t cut;
    CURLcode code;
    bool replaced;
  } cases[] = {
      {"reset mid-body", 4096, CURLE_RECV_ERROR, false},
      {"name does not resolve", 0, CURLE_COULDNT_RESOLVE_HOST, false},
      {"whole body", std::string::npos, CURLE_OK, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    startAfresh();
    auto network =
        std::make_shared<FaultyNetwork>(kDataFileTargets[2].target, newContent(2), c.cut, c.code);
    quarvel::testing::ScopedPlatform platform(network);
    auto run = UpdateRun::create(view, options(400ms));
    runWithin(run, 0);
    if (c.replaced) {
      EXPECT_EQ(run->updateStatus(), UpdateStatusDone);
      EXPECT_EQ(network->calls, 1);
      for (int file = 0; file < 5; ++file) EXPECT_CONTENT(readFile(path(file)), newContent(file));
    } else {
      EXPECT_EQ(run->updateStatus(), UpdateStatusFailed);
      EXPECT_EQ(network->calls, 5);
      expectFailedAt(2);
      expectWholeFiles(2);
    }
    expectNoStrayFiles();
  }
}

// A read-only folder runs in a child process (update_fault_child): the
// dropped file-permission override belongs to a process of its own.
struct ChildOutcome {
  int exitStatus = -1;
  std::map<std::string, std::string> fields;  // "outcome", "alerts", ...
};

ChildOutcome runChild(const std::string& arguments) {
  ChildOutcome outcome;
  std::string command = std::string("'") + QUARVEL_UPDATE_FAULT_CHILD + "' " + arguments;
  FILE* pipe = ::popen(command.c_str(), "r");
  if (!pipe) return outcome;
  char line[512];
  while (std::fgets(line, sizeof line, pipe)) {
    std::string text(line);
    if (!text.empty() && text.back() == '\n') text.pop_back();
    auto eq = text.find('=');
    if (eq != std::string::npos) outcome.fields[text.substr(0, eq)] = text.substr(eq + 1);
  }
  int status = ::pclose(pipe);
  outcome.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return outcome;
}

// A folder that takes no new entry still lets its writable files be written,
// in place, as a write through their paths would; the read-only ones keep
// their old content. The run, which does not notice failed writes, ends as
// a success. The child drops root's permission override, so this holds when
// the suite runs as root too.
TEST_F(UpdateFaultsTest, AReadOnlyLibraryFolderWritesOnlyTheWritableFiles) {
  for (int file : {1, 3}) ASSERT_EQ(::chmod(path(file).c_str(), 0444), 0);
  ASSERT_EQ(::chmod(library.c_str(), 0555), 0);
  ChildOutcome child = runChild("readonly " + server.hostAndPort());
  ::chmod(library.c_str(), 0755);
  if (child.exitStatus == 77) GTEST_SKIP() << "permissions do not bind this process";
  ASSERT_EQ(child.exitStatus, 0);
  EXPECT_EQ(child.fields["outcome"], "0");
  EXPECT_EQ(child.fields["alerts"], "DOWNLOAD_DONE");
  EXPECT_EQ(child.fields["status"], kDoneText);
  EXPECT_EQ(requests(4), 1);
  for (int file = 0; file < 5; ++file) {
    SCOPED_TRACE(kDataFileTargets[file].name);
    EXPECT_CONTENT(readFile(path(file)), file % 2 ? oldContent(file) : newContent(file));
  }
  expectNoStrayFiles();
}

}  // namespace
}  // namespace quarvel
