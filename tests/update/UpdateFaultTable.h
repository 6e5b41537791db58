#pragma once
// The update run's faults as one table, shared by the fault suite and the
// soak. A row arranges how the transfers, the disk or the signatures
// misbehave and states the run's outcome and which files hold their new
// content, their old one or the page the fault served; the view must agree,
// every data file stays whole and nothing else is left in the library. A
// row runs in-process (FaultNetwork answers in libcurl's place) or against a
// loopback server giving the same answers, one run at a time per process:
//
//   std::string problems = runFaultRow(row, Transport::kInProcess).problems;

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "common/HttpClient.h"
#include "format/DataFileFormat.h"
#include "format/Signature.h"
#include "quarvel/CVUserDefaults.h"
#include "quarvel/UpdateRun.h"
#include "support/DataFileTargets.h"
#include "support/FileText.h"
#include "support/LoopbackHttpServer.h"
#include "support/ReadableDataFile.h"
#include "support/RecordingUpdateView.h"
#include "support/SettingsSandbox.h"
#include "support/TestPlatform.h"

namespace quarvel::testing {

using namespace std::chrono_literals;

inline constexpr const char* kErrorPage = "<html><body><h1>404 Not Found</h1></body></html>\n";
inline const std::vector<std::string> kStatusTexts = {
    "체크리스트 DB를 업데이트 중입니다.", "패키지 DB를 업데이트 중입니다.",
    "필터 DB를 업데이트 중입니다.",       "유저 체크 리스트 DB를 업데이트 중입니다.",
    "폰트리스트 DB를 업데이트 중입니다.", UpdateRun::kDoneText,
};
inline const std::vector<double> kFullProgress = {2 / 6.0, 3 / 6.0, 4 / 6.0, 5 / 6.0, 1.0, 1.0};

inline std::string oldContent(int f) { return std::string("old ") + kDataFileTargets[f].name; }
inline std::string signatureTarget(int file) {
  return datafile::signatureUrl(kDataFileTargets[file].target);
}

// What the run meets: the lists and their signatures, the answers scripted
// before them, the options, the disk and the keys. Answers are asked for
// from the run's thread or the server's, under a lock.
class FaultScene {
 public:
  FaultScene()
      : settings(CVUserDefaults::standardUserDefaults()),
        library(*settings->libraryPath()),
        keys(*signing::generateKeyPair()) {
    for (int file = 0; file < 5; ++file) {
      body[file] = readableDataFile(kListKinds[file], 8192);
      writeBytes(path(file), oldContent(file));
    }
    options.listServer = options.fileServer = "http://lists.test";
    options.windowsPackageServer = options.listServer + "/file/keyfile60";
    options.dataFileTimeout = options.transferLimit = 400ms;
    options.windowsFileTimeout = 300ms;
    options.pacing = 1ms;
    options.networkCheck = [] { return true; };
    options.dayOfMonth = [] { return std::string("07"); };
  }

  // The next `times` answers for `target` (a list's, or any other), before
  // its usual one.
  void script(const std::string& target, const HttpReply& answer, int times = 5) {
    std::lock_guard lock(mutex_);
    first.try_emplace(target, answer.body);
    auto& queue = scripted_[target];
    queue.insert(queue.end(), times, answer);
  }
  void script(int file, const HttpReply& answer, int times = 5) {
    script(kDataFileTargets[file].target, answer, times);
  }
  std::string publicKey() const { return signing::formatPublicKey(keys.publicKey); }

  // The answer to a request of `target`, counted; a request of `cancelAt`
  // cancels the run as its answer starts.
  HttpReply answer(const std::string& target) {
    std::lock_guard lock(mutex_);
    urls_.push_back(target);
    if (auto running = run.lock(); running && target == cancelAt) running->cancel();
    if (auto& queue = scripted_[target]; !queue.empty()) {
      HttpReply next = std::move(queue.front());
      queue.pop_front();
      return next;
    }
    for (int file = 0; file < 5; ++file) {
      if (target == kDataFileTargets[file].target) return HttpReply::text(body[file]);
      if (target == signatureTarget(file))
        return HttpReply::text(signing::sign(keys.secretKey, body[file]));
    }
    return HttpReply::text("Not Found", 404);
  }
  std::vector<std::string> targets() const {
    std::lock_guard lock(mutex_);
    return urls_;
  }
  int asked(const std::string& target) const { return int(std::ranges::count(targets(), target)); }
  int asked(int file) const { return asked(kDataFileTargets[file].target); }
  std::string path(int file) const { return library + "/" + kDataFileTargets[file].name; }

  // Set up before the run: the lists' new content (readable lists of 8 KiB
  // unless a row says otherwise); targets outside the lists and their
  // signatures answer 404 "Not Found" unless scripted.
  CVUserDefaults* settings;
  std::string library;
  signing::KeyPair keys;
  std::string body[5];
  UpdateOptions options;
  std::optional<FaultyDisk::Fault> disk;
  std::size_t diskLimit = 16 * 1024;
  std::string cancelAt;
  std::weak_ptr<UpdateRun> run;
  std::map<std::string, std::string> first;  // the body first scripted per target

 private:
  mutable std::mutex mutex_;
  std::map<std::string, std::deque<HttpReply>> scripted_;
  std::vector<std::string> urls_;  // every target asked, in order
};

// Answers every exchange in libcurl's place from the scene, by the request's
// target, as the loopback server would put it on the wire.
class FaultNetwork : public PlatformWrapper {
 public:
  FaultNetwork(FaultScene& scene, std::shared_ptr<Platform> disk)
      : PlatformWrapper(std::move(disk)), scene_(scene) {}

  int performHttp(HttpExchange& exchange) override {
    using Cut = HttpReply::Cut;
    const std::string& url = exchange.url();
    const std::size_t slash = url.find('/', url.find("://") + 3);
    idleTimeout = exchange.options().idleTimeout;
    HttpReply a = scene_.answer(slash == std::string::npos ? "/" : url.substr(slash));
    if (a.kind != HttpReply::Kind::Answer) return CURLE_COULDNT_CONNECT;
    exchange.setStatus(a.status);
    if (a.endless) {
      // Rows that flood set a ceiling, where deliver() refuses.
      while (exchange.deliver(a.body)) {
      }
      return CURLE_WRITE_ERROR;
    }
    std::string_view body(a.body);
    if (a.cut != Cut::None) body = body.substr(0, a.cutAt);
    const std::size_t piece = a.piece ? a.piece : 64 * 1024;
    for (std::size_t at = 0; at < body.size(); at += piece)
      if (!exchange.deliver(body.substr(at, piece))) return CURLE_WRITE_ERROR;
    return a.cut == Cut::Reset   ? CURLE_RECV_ERROR
           : a.cut == Cut::Stall ? CURLE_OPERATION_TIMEDOUT
           : a.cut == Cut::Close ? CURLE_PARTIAL_FILE
                                 : CURLE_OK;
  }

  std::atomic<std::chrono::milliseconds> idleTimeout{};  // of the last exchange

 private:
  FaultScene& scene_;
};

enum class Transport { kInProcess, kLoopback };
// Names the transport in a parameterised test's name and failure messages.
inline void PrintTo(Transport transport, std::ostream* out) {
  *out << (transport == Transport::kLoopback ? "loopback" : "in-process");
}
enum class Where { kInProcess, kLoopback, kBoth };

struct FaultRow {
  const char* name;  // a test name: letters and digits
  std::int64_t outcome;
  // Per file: 'n' its new content, 'o' its old one, 'p' the body of the
  // first answer scripted for it.
  const char* files;
  Where where;
  void (*arrange)(FaultScene&) = [](FaultScene&) {};
  int asked = 5;            // requests of the file a run fails at
  bool signatures = false;  // whether the run asks for signatures
};
inline void PrintTo(const FaultRow& row, std::ostream* out) { *out << row.name; }

template <typename T>
std::string listed(const std::vector<T>& values) {
  std::ostringstream text;
  for (const T& value : values) text << (text.tellp() > 0 ? ", " : "") << value;
  return "{" + text.str() + "}";
}

struct FaultRun {
  std::string problems;  // empty when the run ended as its row says
};

// Runs `row` in a fresh settings sandbox and compares the run with it.
inline FaultRun runFaultRow(const FaultRow& row, Transport transport) {
  SettingsSandbox sandbox;
  FaultScene s;
  row.arrange(s);

  std::shared_ptr<Platform> platform = Platform::system();
  if (s.disk) platform = std::make_shared<FaultyDisk>(*s.disk, s.diskLimit);
  std::unique_ptr<LoopbackHttpServer> server;
  if (transport == Transport::kInProcess) {
    platform = std::make_shared<FaultNetwork>(s, platform);
  } else {
    server = std::make_unique<LoopbackHttpServer>(
        [&s](const HttpReceived& request) { return s.answer(request.target); });
    s.options.listServer = s.options.fileServer = "http://" + server->hostAndPort();
  }
  ScopedPlatform installed(platform);

  FaultRun result;
  auto fail = [&result](const std::string& what) { result.problems += "; " + what; };
  auto view = std::make_shared<RecordingView>();
  auto run = UpdateRun::create(view, s.options);
  s.run = run;
  if (run->cancel()) fail("a run not started was cancelled");
  run->start();
  if (!run->waitUntilFinished(5 * s.options.dataFileTimeout + 15s))
    return fail("the run did not end in time"), result;
  server.reset();
  if (run->cancel()) fail("a run that had ended was cancelled");

  if (run->updateStatus() != row.outcome) fail("outcome " + std::to_string(run->updateStatus()));
  for (int file = 0; file < 5; ++file) {
    const std::string expected = row.files[file] == 'n'   ? s.body[file]
                                 : row.files[file] == 'o' ? oldContent(file)
                                                          : s.first[kDataFileTargets[file].target];
    const std::string now = readFile(s.path(file));
    if (now != expected)
      fail(std::string(kDataFileTargets[file].name) + " holds \"" + now.substr(0, 24) + "\" (" +
           std::to_string(now.size()) + " bytes)");
  }
  const auto entries = std::distance(std::filesystem::directory_iterator(s.library), {});
  if (entries != 5) fail(std::to_string(entries) + " entries in the library");

  const bool done = row.outcome == UpdateStatusDone, failed = row.outcome == UpdateStatusFailed;
  const int reached = static_cast<int>(std::string_view(row.files).find_first_not_of('n'));
  if (listed(view->alerts()) != (done ? "{DOWNLOAD_DONE}" : failed ? "{DOWNLOAD_FAIL}" : "{}"))
    fail("alerts " + listed(view->alerts()));
  if (view->closes() != (row.outcome == UpdateStatusCancelled ? 0 : 1)) fail("closes");
  if ((s.settings->lastUpdateDate() == PlistValue::string("07")) != done)
    fail("the day of the update");
  const std::vector<double> progress(kFullProgress.begin(),
                                     kFullProgress.begin() + (done ? 6 : reached));
  if (view->progress() != progress) fail("progress " + listed(view->progress()));
  if (done) {
    // Each attempt shows its file's text again.
    std::vector<std::string> statuses = view->statuses();
    statuses.erase(std::unique(statuses.begin(), statuses.end()), statuses.end());
    if (statuses != kStatusTexts) fail("statuses " + listed(statuses));
  } else {
    if (failed && view->status() != kStatusTexts[reached]) fail("status " + view->status());
    if (failed && s.asked(reached) != row.asked)
      fail(std::to_string(s.asked(reached)) + " requests of the failing file");
    for (int later = reached + 1; later < 5; ++later)
      if (s.asked(later)) fail(std::string(kDataFileTargets[later].name) + " was asked for");
  }
  int signatures = 0;
  for (int file = 0; file < 5; ++file) signatures += s.asked(signatureTarget(file));
  if ((signatures > 0) != row.signatures) fail(std::to_string(signatures) + " signatures asked");
  return result;
}

// The arrangements rows share: a ceiling on a body's size, no transfer limit
// to speak of.
inline void capped(FaultScene& s, int file, const HttpReply& answer, std::size_t ceiling = 100000) {
  s.options.maxFileBytes = ceiling;
  s.script(file, answer);
}
// One answer that only the idle time-out may end: the transfer limit is far off.
inline void unlimited(FaultScene& s, int file, const HttpReply& answer) {
  s.options.transferLimit = 20s;
  s.script(file, answer, 1);
}

constexpr std::int64_t kDone = UpdateStatusDone;
constexpr std::int64_t kFailed = UpdateStatusFailed;
using enum Where;
using R = HttpReply;
using Fault = FaultyDisk::Fault;

// The third list, the filter list, is the usual faulty one: the two before
// it show that what was replaced stays replaced, the two after it that the
// run goes no further.
inline const FaultRow kFaultRows[] = {
    // The transfer: each fault clears on a later attempt; the fifth that
    // fails fails the run.
    {"AllFilesArrive", kDone, "nnnnn", kBoth},
    {"FaultsClearByTheFifthAttempt", kDone, "nnnnn", kBoth,
     [](FaultScene& s) {
       const std::string& b = s.body[0];
       for (const R& a : {R::resetAfter(b, 100), R::resetAfter(b, b.size() - 1),
                          R::stallAfter(b, 10), R::closeWithoutAnswer()})
         s.script(0, a, 1);
       s.script(3, R::trickle(s.body[3], 1024, 10ms), 1);  // slow, inside the time-out
     }},
    // The ceiling is a size a body may reach, not pass.
    {"BodyAtTheCeiling", kDone, "pnnnn", kBoth,
     [](FaultScene& s) { capped(s, 0, R::text(std::string(100000, 'c'))); }},
    {"BodyOneBytePastTheCeiling", kFailed, "ooooo", kBoth,
     [](FaultScene& s) { capped(s, 0, R::text(std::string(100001, 'c'))); }},
    {"EndlessBodyEndsAtTheCeiling", kFailed, "nnooo", kBoth,
     [](FaultScene& s) { capped(s, 2, R::flood(std::string(64 * 1024, 'z')), 1 << 20); }},
    // A stall ends at the idle time-out, well inside the transfer limit; a
    // trickle still coming at the limit fails; one slower than the time-out
    // that never pauses for one completes.
    {"StallEndsAtTheIdleTimeout", kDone, "nnnnn", kLoopback,
     [](FaultScene& s) { unlimited(s, 2, R::stallAfter(s.body[2], 4096)); }},
    {"TrickleThatNeverEnds", kFailed, "nnooo", kLoopback,
     [](FaultScene& s) { s.script(2, R::trickle(std::string(1 << 20, 'x'), 64, 20ms)); }},
    {"SteadyBodySlowerThanTheTimeout", kDone, "nnnnn", kLoopback,
     [](FaultScene& s) { unlimited(s, 3, R::trickle(s.body[3], 256, 50ms)); }},
    // An error page is an answer like any other, an empty one included.
    {"ErrorPagesAreWritten", kDone, "pnpnp", kBoth,
     [](FaultScene& s) {
       s.script(0, R::text("<h1>404 Not Found</h1>", 404), 1);
       s.script(2, R::text("<h1>500 Internal Server Error</h1>", 500), 1);
       s.script(4, R::text("", 500), 1);
     }},
    // Closing the window: the transfer under way lands, nothing after it ...
    {"CancelledDuringTheSecondFile", UpdateStatusCancelled, "nnooo", kBoth,
     [](FaultScene& s) { s.cancelAt = kDataFileTargets[1].target; }},
    // ... and an attempt that fails is not tried again.
    {"CancelledDuringAFailedAttempt", UpdateStatusCancelled, "ooooo", kInProcess,
     [](FaultScene& s) {
       s.cancelAt = kDataFileTargets[0].target, s.script(0, R::closeWithoutAnswer());
     }},
    // The disk: a failed write, flush or rename keeps the old file whole and
    // goes unnoticed by the run; a full disk keeps only the files too large
    // for it.
    {"DiskFull", kDone, "nonon", kInProcess,
     [](FaultScene& s) {
       s.disk = Fault::kFull;
       for (int file : {1, 3}) s.body[file] = readableDataFile(kListKinds[file], 4 * s.diskLimit);
     }},
    {"FlushFails", kDone, "ooooo", kInProcess, [](FaultScene& s) { s.disk = Fault::kFlush; }},
    {"RenameFails", kDone, "ooooo", kInProcess, [](FaultScene& s) { s.disk = Fault::kRename; }},
    // A trusted key, the run's or else the settings': a body replaces its
    // list only when the key verifies its signature and it reads as a list
    // of its kind, the first list's too.
    {"NoSignatureFile", kFailed, "nnooo", kInProcess,
     [](FaultScene& s) {
       s.options.trustedKey = s.publicKey();
       s.script(signatureTarget(2), R::text(kErrorPage, 404));
     },
     5, true},
    {"SignedErrorPageForTheFirstList", kFailed, "ooooo", kInProcess,
     [](FaultScene& s) {
       s.options.trustedKey = s.publicKey();
       s.script(0, R::text(kErrorPage));
       s.script(signatureTarget(0), R::text(signing::sign(s.keys.secretKey, kErrorPage)));
     },
     5, true},
    {"KeyFromTheSettings", kDone, "nnnnn", kInProcess,
     [](FaultScene& s) { s.settings->setTrustedListKey(PlistValue::string(s.publicKey())); }, 5,
     true},
    {"SettingThatIsNoKey", kFailed, "ooooo", kInProcess,
     [](FaultScene& s) { s.settings->setTrustedListKey(PlistValue::string("not a key")); }, 0},
    // Without a key, lists required readable: only a list of its kind.
    {"ReadableOnlyRefusesNothing", kFailed, "nnooo", kInProcess,
     [](FaultScene& s) {
       s.options.requireReadableLists = true;
       s.script(2, R::text(""));
     }},
};

}  // namespace quarvel::testing
