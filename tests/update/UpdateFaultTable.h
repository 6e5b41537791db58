#pragma once
// The update run's faults as one table, shared by the fault suite and the
// soak. A row arranges how the transfers, the disk or the signatures
// misbehave and states what the run must end with: its outcome, which files
// hold their new content, their old one or the page the fault served, and
// what the view was shown. Whatever goes wrong, every data file stays whole
// and nothing else is left in the library folder.
//
// A row runs in-process, the transfers answered in libcurl's place through
// the platform (FaultNetwork), or against a loopback server that gives the
// same answers on the wire, for the faults only a real transfer can show
// (time-outs, trickles, announced lengths).
//
//   std::string problems = runFaultRow(row, Transport::kInProcess).problems;
//
// runFaultRow makes its own settings sandbox: one run at a time per process.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <fstream>
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

// One answer to one request, as a server that misbehaves gives it.
struct Answer {
  enum class Kind {
    kWhole,        // the body, in pieces of `piece` bytes `pause` apart when set
    kReset,        // `cut` bytes of the body, then a reset
    kStall,        // `cut` bytes, then silence until the time-out
    kFlood,        // the body over and over, no length announced, until refused
    kUnreachable,  // no answer at all
  };
  Kind kind = Kind::kWhole;
  std::string body;
  int status = 200;
  std::size_t cut = 0;
  std::size_t piece = 0;
  std::chrono::milliseconds pause{0};  // waited on the wire only
  bool cancel = false;                 // the run is cancelled as this answer starts

  static Answer whole(std::string body, int status = 200) {
    return {Kind::kWhole, std::move(body), status};
  }
  static Answer reset(std::string body, std::size_t cut) {
    return {Kind::kReset, std::move(body), 200, cut};
  }
  static Answer stall(std::string body, std::size_t cut) {
    return {Kind::kStall, std::move(body), 200, cut};
  }
  static Answer trickle(std::string body, std::size_t piece, std::chrono::milliseconds pause) {
    return {Kind::kWhole, std::move(body), 200, 0, piece, pause};
  }
  static Answer flood(std::string body) { return {Kind::kFlood, std::move(body)}; }
  static Answer unreachable() { return {Kind::kUnreachable, {}}; }
};

inline constexpr const char* kErrorPage = "<html><body><h1>404 Not Found</h1></body></html>\n";
inline const std::string kStatusTexts[] = {
    "체크리스트 DB를 업데이트 중입니다.", "패키지 DB를 업데이트 중입니다.",
    "필터 DB를 업데이트 중입니다.",       "유저 체크 리스트 DB를 업데이트 중입니다.",
    "폰트리스트 DB를 업데이트 중입니다.", UpdateRun::kDoneText,
};
inline const std::vector<double> kFullProgress = {2 / 6.0, 3 / 6.0, 4 / 6.0, 5 / 6.0, 1.0, 1.0};

inline std::string oldContent(int file) {
  return std::string("old ") + kDataFileTargets[file].name;
}
inline std::string signatureTarget(int file) {
  return datafile::signatureUrl(kDataFileTargets[file].target);
}

// What the run meets: the lists' new content and their signatures, the
// answers scripted before them, the options, the disk and the keys. Answers
// come from the run's thread or the loopback server's, so they are behind a
// lock.
class FaultScene {
 public:
  FaultScene()
      : settings(CVUserDefaults::standardUserDefaults()),
        library(*settings->libraryPath()),
        keys(*signing::generateKeyPair()) {
    for (int file = 0; file < 5; ++file) {
      resize(file, 8192);
      std::ofstream(path(file), std::ios::binary) << oldContent(file);
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
  void script(const std::string& target, const Answer& answer, int times = 5) {
    std::lock_guard lock(mutex_);
    first_.try_emplace(target, answer.body);
    auto& queue = scripted_[target];
    queue.insert(queue.end(), times, answer);
  }
  void script(int file, const Answer& answer, int times = 5) {
    script(kDataFileTargets[file].target, answer, times);
  }
  // The usual answer for a target outside the five lists and their
  // signatures; any other target answers 404 with "Not Found".
  void serve(const std::string& target, std::string body) {
    std::lock_guard lock(mutex_);
    served_[target] = std::move(body);
  }
  // A readable list of at least `size` bytes as the new content of `file`.
  void resize(int file, std::size_t size) {
    std::lock_guard lock(mutex_);
    body[file] = readableDataFile(kListKinds[file], size);
  }
  std::string publicKey() const { return signing::formatPublicKey(keys.publicKey); }

  // The answer to a request of `target`, counted.
  Answer answer(const std::string& target) {
    std::lock_guard lock(mutex_);
    urls_.push_back(target);
    if (auto& queue = scripted_[target]; !queue.empty()) {
      Answer next = std::move(queue.front());
      queue.pop_front();
      return next;
    }
    for (int file = 0; file < 5; ++file) {
      if (target == kDataFileTargets[file].target) return Answer::whole(body[file]);
      if (target == signatureTarget(file))
        return Answer::whole(signing::sign(keys.secretKey, body[file]));
    }
    auto it = served_.find(target);
    return it == served_.end() ? Answer::whole("Not Found", 404) : Answer::whole(it->second);
  }
  int asked(const std::string& target) const {
    std::lock_guard lock(mutex_);
    return static_cast<int>(std::count(urls_.begin(), urls_.end(), target));
  }
  int asked(int file) const { return asked(kDataFileTargets[file].target); }
  std::vector<std::string> targets() const {
    std::lock_guard lock(mutex_);
    return urls_;
  }
  std::string path(int file) const { return library + "/" + kDataFileTargets[file].name; }
  // The body of the first answer scripted for `file`.
  std::string firstScripted(int file) const {
    std::lock_guard lock(mutex_);
    auto it = first_.find(kDataFileTargets[file].target);
    return it == first_.end() ? std::string() : it->second;
  }

  CVUserDefaults* settings;
  std::string library;
  signing::KeyPair keys;
  std::string body[5];  // the lists' new content; changed through resize()
  UpdateOptions options;
  std::optional<FaultyDisk::Fault> disk;
  std::size_t diskLimit = 16 * 1024;
  std::weak_ptr<UpdateRun> run;  // for answers that cancel it

 private:
  mutable std::mutex mutex_;
  std::map<std::string, std::deque<Answer>> scripted_;
  std::map<std::string, std::string> served_;
  std::map<std::string, std::string> first_;
  std::vector<std::string> urls_;  // every target asked, in order
};

// Answers every exchange in libcurl's place from the scene, by the request's
// target (the URL after its origin); files go on to `disk`.
class FaultNetwork : public PlatformWrapper {
 public:
  FaultNetwork(FaultScene& scene, std::shared_ptr<Platform> disk)
      : PlatformWrapper(std::move(disk)), scene_(scene) {}

  int performHttp(HttpExchange& exchange) override {
    const std::string& url = exchange.url();
    const std::size_t host = url.find("://");
    const std::size_t slash = url.find('/', host == std::string::npos ? 0 : host + 3);
    idleTimeout = exchange.options().idleTimeout;
    Answer a = scene_.answer(slash == std::string::npos ? "/" : url.substr(slash));
    if (a.cancel) cancelRun(scene_);
    if (a.kind == Answer::Kind::kUnreachable) return CURLE_COULDNT_CONNECT;
    exchange.setStatus(a.status);
    if (a.kind == Answer::Kind::kFlood) {
      // Rows that flood set a ceiling, where deliver() refuses.
      while (exchange.deliver(a.body)) {
      }
      return CURLE_WRITE_ERROR;
    }
    std::string_view body(a.body);
    if (a.kind != Answer::Kind::kWhole) body = body.substr(0, a.cut);
    const std::size_t piece = a.piece ? a.piece : 64 * 1024;
    for (std::size_t at = 0; at < body.size(); at += piece)
      if (!exchange.deliver(body.substr(at, piece))) return CURLE_WRITE_ERROR;
    if (a.kind == Answer::Kind::kReset) return CURLE_RECV_ERROR;
    if (a.kind == Answer::Kind::kStall) return CURLE_OPERATION_TIMEDOUT;
    return CURLE_OK;
  }
  static void cancelRun(FaultScene& scene) {
    if (auto run = scene.run.lock()) run->cancel();
  }

  std::atomic<std::chrono::milliseconds> idleTimeout{};  // of the last exchange

 private:
  FaultScene& scene_;
};

inline HttpReply onTheWire(const Answer& a) {
  switch (a.kind) {
    case Answer::Kind::kWhole:
      return a.piece ? HttpReply::trickle(a.body, a.piece, a.pause)
                     : HttpReply::text(a.body, a.status);
    case Answer::Kind::kReset:
      return HttpReply::resetAfter(a.body, a.cut);
    case Answer::Kind::kStall:
      return HttpReply::stallAfter(a.body, a.cut);
    case Answer::Kind::kFlood:
      return HttpReply::flood(a.body);
    case Answer::Kind::kUnreachable:
      break;
  }
  return HttpReply::closeWithoutAnswer();
}

enum class Transport { kInProcess, kLoopback };
// Names the transport in a parameterised test's name and failure messages.
inline void PrintTo(Transport transport, std::ostream* out) {
  *out << (transport == Transport::kLoopback ? "loopback" : "in-process");
}
enum class Where { kInProcess, kLoopback, kBoth };

struct FaultRow {
  const char* name;  // a test name: letters and digits
  void (*arrange)(FaultScene&);
  std::int64_t outcome;
  // Per file: 'n' its new content, 'o' its old one, 'p' the body of the
  // first answer scripted for it.
  const char* files;
  Where where = Where::kInProcess;
  int asked = 5;            // requests of the file a run fails at
  bool signatures = false;  // whether the run asks for signatures
};

template <typename T>
std::string listed(const std::vector<T>& values) {
  std::ostringstream text;
  for (const T& value : values) text << (text.tellp() > 0 ? ", " : "") << value;
  return "{" + text.str() + "}";
}

inline void PrintTo(const FaultRow& row, std::ostream* out) { *out << row.name; }

struct FaultRun {
  std::string problems;  // empty when the run ended as its row says
  std::shared_ptr<RecordingView> view;
};

// Runs `row` in a fresh settings sandbox and compares the run with it.
inline FaultRun runFaultRow(const FaultRow& row, Transport transport) {
  SettingsSandbox sandbox;
  FaultScene s;
  row.arrange(s);

  std::shared_ptr<Platform> disk = Platform::system();
  if (s.disk) disk = std::make_shared<FaultyDisk>(*s.disk, s.diskLimit);
  std::unique_ptr<LoopbackHttpServer> server;
  std::shared_ptr<Platform> platform = disk;
  if (transport == Transport::kInProcess) {
    platform = std::make_shared<FaultNetwork>(s, disk);
  } else {
    server = std::make_unique<LoopbackHttpServer>([&s](const HttpReceived& request) {
      Answer a = s.answer(request.target);
      if (a.cancel) FaultNetwork::cancelRun(s);
      return onTheWire(a);
    });
    s.options.listServer = s.options.fileServer = "http://" + server->hostAndPort();
  }
  ScopedPlatform installed(platform);

  FaultRun result{"", std::make_shared<RecordingView>()};
  std::string& problems = result.problems;
  auto fail = [&problems](const std::string& what) { problems += "; " + what; };
  auto run = UpdateRun::create(result.view, s.options);
  s.run = run;
  if (run->cancel()) fail("a run not started was cancelled");
  run->start();
  const auto bound = 5 * s.options.dataFileTimeout + 15s;
  if (!run->waitUntilFinished(std::chrono::duration_cast<std::chrono::milliseconds>(bound)))
    return fail("the run did not end in time"), result;
  server.reset();
  if (run->cancel()) fail("a run that had ended was cancelled");

  if (run->updateStatus() != row.outcome) fail("outcome " + std::to_string(run->updateStatus()));
  for (int file = 0; file < 5; ++file) {
    const char want = row.files[file];
    const std::string expected = want == 'n'   ? s.body[file]
                                 : want == 'o' ? oldContent(file)
                                               : s.firstScripted(file);
    const std::string now = readFile(s.path(file));
    if (now != expected)
      fail(std::string(kDataFileTargets[file].name) + " holds \"" + now.substr(0, 24) + "\" (" +
           std::to_string(now.size()) + " bytes)");
  }
  int entries = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(s.library))
    ++entries;
  if (entries != 5) fail(std::to_string(entries) + " entries in the library");

  const RecordingView& view = *result.view;
  const bool dated = s.settings->lastUpdateDate() == PlistValue::string("07");
  const int reached = static_cast<int>(std::string_view(row.files).find_first_not_of('n'));
  const auto expectedAlerts =
      row.outcome == UpdateStatusDone     ? std::vector<std::string>{"DOWNLOAD_DONE"}
      : row.outcome == UpdateStatusFailed ? std::vector<std::string>{"DOWNLOAD_FAIL"}
                                          : std::vector<std::string>{};
  if (view.alerts() != expectedAlerts) fail("alerts " + listed(view.alerts()));
  if (view.closes() != (row.outcome == UpdateStatusCancelled ? 0 : 1)) fail("closes");
  if (dated != (row.outcome == UpdateStatusDone)) fail("the day of the update");
  if (row.outcome == UpdateStatusDone) {
    if (view.progress() != kFullProgress) fail("progress " + listed(view.progress()));
    // Each attempt shows its file's text again.
    std::vector<std::string> statuses = view.statuses();
    statuses.erase(std::unique(statuses.begin(), statuses.end()), statuses.end());
    if (statuses != std::vector<std::string>(kStatusTexts, kStatusTexts + 6))
      fail("statuses " + listed(statuses));
  } else {
    const std::vector<double> progress(kFullProgress.begin(), kFullProgress.begin() + reached);
    if (view.progress() != progress) fail("progress " + listed(view.progress()));
    if (row.outcome == UpdateStatusFailed && view.status() != kStatusTexts[reached])
      fail("status " + view.status());
    if (row.outcome == UpdateStatusFailed && s.asked(reached) != row.asked)
      fail(std::to_string(s.asked(reached)) + " requests of the failing file");
    for (int later = reached + 1; later < 5; ++later)
      if (s.asked(later)) fail(std::string(kDataFileTargets[later].name) + " was asked for");
  }
  bool askedSignatures = false;
  for (int file = 0; file < 5; ++file) askedSignatures |= s.asked(signatureTarget(file)) > 0;
  if (askedSignatures != row.signatures)
    fail("signatures asked: " + std::to_string(askedSignatures));
  return result;
}

inline std::string withoutLast(const std::string& text, std::size_t bytes) {
  return text.substr(0, text.size() - bytes);
}
// The arrangements most rows share: an answer for the filter list, or for
// its signature, under a key the run trusts or with lists required readable.
inline void trustTheRunKey(FaultScene& s) { s.options.trustedKey = s.publicKey(); }
inline void signedFilterList(FaultScene& s, const std::string& body) {
  trustTheRunKey(s);
  s.script(2, Answer::whole(body));
}
inline void filterListSignature(FaultScene& s, const Answer& signature) {
  trustTheRunKey(s);
  s.script(signatureTarget(2), signature);
}
inline void readableFilterList(FaultScene& s, const Answer& answer) {
  s.options.requireReadableLists = true;
  s.script(2, answer);
}
// A trusted key, and for list `file` an error page that the key signed:
// the signature holds, but the body is no list.
template <int file>
void signedErrorPageFor(FaultScene& s) {
  trustTheRunKey(s);
  s.script(file, Answer::whole(kErrorPage));
  s.script(signatureTarget(file), Answer::whole(signing::sign(s.keys.secretKey, kErrorPage)));
}
inline void setTrustedListKey(FaultScene& s, const std::string& text) {
  s.settings->setTrustedListKey(PlistValue::string(text));
}
inline std::string anotherPublicKey() {
  return signing::formatPublicKey(signing::generateKeyPair()->publicKey);
}
// An answer for `file` under a ceiling on a body's size.
inline void capped(FaultScene& s, int file, const Answer& answer, std::size_t ceiling = 100000) {
  s.options.maxFileBytes = ceiling;
  s.script(file, answer);
}

constexpr std::int64_t kDone = UpdateStatusDone;
constexpr std::int64_t kFailed = UpdateStatusFailed;
constexpr std::int64_t kCancelled = UpdateStatusCancelled;
using enum Where;

// The third list, the filter list, is the usual faulty one: the two before
// it show that what was replaced stays replaced, the two after it that the
// run goes no further.
inline const FaultRow kFaultRows[] = {
    // The transfer.
    {"AllFilesArrive", [](FaultScene&) {}, kDone, "nnnnn", kBoth},
    {"FifthAttemptSucceeds", [](FaultScene& s) { s.script(2, Answer::reset(s.body[2], 100), 4); },
     kDone, "nnnnn", kBoth},
    {"EveryFileBreaksOffTwice",
     [](FaultScene& s) {
       for (int file = 0; file < 5; ++file)
         s.script(file, Answer::reset(s.body[file], s.body[file].size() / 2), 2);
     },
     kDone, "nnnnn"},
    {"FaultsClearByTheFifthAttempt",
     [](FaultScene& s) {
       const std::string& b = s.body[0];
       for (const Answer& a : {Answer::reset(b, 100), Answer::reset(b, b.size() - 1),
                               Answer::stall(b, 10), Answer::unreachable()})
         s.script(0, a, 1);
       s.script(3, Answer::trickle(s.body[3], 1024, 10ms), 1);  // slow, inside the time-out
     },
     kDone, "nnnnn", kBoth},
    {"ResetMidBody", [](FaultScene& s) { s.script(2, Answer::reset(s.body[2], 4096)); }, kFailed,
     "nnooo", kBoth},
    {"StalledPastTheTimeout", [](FaultScene& s) { s.script(2, Answer::stall(s.body[2], 4096)); },
     kFailed, "nnooo", kBoth},
    {"UnreachableServer", [](FaultScene& s) { s.script(0, Answer::unreachable()); }, kFailed,
     "ooooo", kBoth},
    // A trickle still coming at the transfer limit fails; one slower than
    // the time-out that never pauses for one completes.
    {"TrickleThatNeverEnds",
     [](FaultScene& s) { s.script(2, Answer::trickle(std::string(1 << 20, 'x'), 64, 20ms)); },
     kFailed, "nnooo", kLoopback},
    {"SteadyBodySlowerThanTheTimeout",
     [](FaultScene& s) {
       s.options.transferLimit = 20s;
       s.script(3, Answer::trickle(s.body[3], 256, 50ms), 1);
     },
     kDone, "nnnnn", kLoopback},
    // An error page is an answer like any other, an empty one included.
    {"ErrorPagesAreWritten",
     [](FaultScene& s) {
       s.script(0, Answer::whole("<h1>404 Not Found</h1>", 404), 1);
       s.script(2, Answer::whole("<h1>500 Internal Server Error</h1>", 500), 1);
       s.script(4, Answer::whole("", 500), 1);
     },
     kDone, "pnpnp", kBoth},
    // The ceiling is a size a body may reach, not pass, an error page's too.
    {"BodyAtTheCeiling",
     [](FaultScene& s) { capped(s, 0, Answer::whole(std::string(100000, 'c'))); }, kDone, "pnnnn",
     kBoth},
    {"BodyOneBytePastTheCeiling",
     [](FaultScene& s) { capped(s, 0, Answer::whole(std::string(100001, 'c'))); }, kFailed, "ooooo",
     kBoth},
    {"ErrorPagePastTheCeiling",
     [](FaultScene& s) { capped(s, 0, Answer::whole(std::string(100001, 'c'), 404)); }, kFailed,
     "ooooo"},
    {"EndlessBodyEndsAtTheCeiling",
     [](FaultScene& s) { capped(s, 2, Answer::flood(std::string(64 * 1024, 'z')), 1 << 20); },
     kFailed, "nnooo", kBoth},
    // Closing the window: the transfer under way lands, nothing after it.
    {"CancelledDuringTheSecondFile",
     [](FaultScene& s) {
       Answer a = Answer::whole(s.body[1]);
       a.cancel = true;
       s.script(1, a, 1);
     },
     kCancelled, "nnooo", kBoth},
    // The disk: a failed write, flush or rename keeps the old file whole and
    // goes unnoticed by the run; a full disk keeps only the files too large
    // for it.
    {"DiskFull",
     [](FaultScene& s) {
       s.disk = FaultyDisk::Fault::kFull;
       s.resize(1, 4 * s.diskLimit);
       s.resize(3, 4 * s.diskLimit);
     },
     kDone, "nonon"},
    {"FlushFails", [](FaultScene& s) { s.disk = FaultyDisk::Fault::kFlush; }, kDone, "ooooo"},
    {"RenameFails", [](FaultScene& s) { s.disk = FaultyDisk::Fault::kRename; }, kDone, "ooooo"},
    // A trusted key: a body replaces its list only when the key verifies its
    // signature and it reads as a list of its kind.
    {"SignedListsReplace", trustTheRunKey, kDone, "nnnnn", kInProcess, 5, true},
    {"TamperedByte",
     [](FaultScene& s) {
       std::string tampered = s.body[2];
       tampered[tampered.size() / 2] ^= 0x20;
       signedFilterList(s, tampered);
     },
     kFailed, "nnooo", kInProcess, 5, true},
    {"SignedBodyCutShort", [](FaultScene& s) { signedFilterList(s, withoutLast(s.body[2], 1)); },
     kFailed, "nnooo", kInProcess, 5, true},
    {"SignedWithAnotherKey",
     [](FaultScene& s) {
       filterListSignature(
           s, Answer::whole(signing::sign(signing::generateKeyPair()->secretKey, s.body[2])));
     },
     kFailed, "nnooo", kInProcess, 5, true},
    {"NoSignatureFile",
     [](FaultScene& s) { filterListSignature(s, Answer::whole(kErrorPage, 404)); }, kFailed,
     "nnooo", kInProcess, 5, true},
    {"SignatureOfAnotherList",
     [](FaultScene& s) {
       filterListSignature(s, Answer::whole(signing::sign(s.keys.secretKey, s.body[1])));
     },
     kFailed, "nnooo", kInProcess, 5, true},
    {"SignedErrorPageForAList", signedErrorPageFor<2>, kFailed, "nnooo", kInProcess, 5, true},
    {"SignedErrorPageForTheFirstList", signedErrorPageFor<0>, kFailed, "ooooo", kInProcess, 5,
     true},
    // Where the key comes from: the run's options before the settings.
    {"KeyFromTheSettings", [](FaultScene& s) { setTrustedListKey(s, s.publicKey()); }, kDone,
     "nnnnn", kInProcess, 5, true},
    {"SettingsKeyRefuses", [](FaultScene& s) { setTrustedListKey(s, anotherPublicKey()); }, kFailed,
     "ooooo", kInProcess, 5, true},
    {"RunKeyBeforeTheSettings",
     [](FaultScene& s) {
       trustTheRunKey(s);
       setTrustedListKey(s, anotherPublicKey());
     },
     kDone, "nnnnn", kInProcess, 5, true},
    {"SettingThatIsNoKey", [](FaultScene& s) { setTrustedListKey(s, "not a key"); }, kFailed,
     "ooooo", kInProcess, 0},
    // Without a key, lists required readable: only a list of its kind.
    {"ReadableOnlyRefusesAnErrorPage",
     [](FaultScene& s) { readableFilterList(s, Answer::whole(kErrorPage, 404)); }, kFailed,
     "nnooo"},
    {"ReadableOnlyRefusesACutList",
     [](FaultScene& s) { readableFilterList(s, Answer::whole(withoutLast(s.body[2], 100))); },
     kFailed, "nnooo"},
    {"ReadableOnlyRefusesAnotherKind",
     [](FaultScene& s) { readableFilterList(s, Answer::whole(s.body[1])); }, kFailed, "nnooo"},
    {"ReadableOnlyRefusesNothing", [](FaultScene& s) { readableFilterList(s, Answer::whole("")); },
     kFailed, "nnooo"},
};

}  // namespace quarvel::testing
