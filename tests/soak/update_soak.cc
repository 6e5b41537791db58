// Update runs back to back against a loopback server that misbehaves by
// turns (good answers, resets, stalls, endless trickles, error pages, a
// closed port, cancellation), checking each run's outcome and files, and
// watching the process's resident memory and open file descriptors: after
// a warm-up they must stay flat.
//
//   update_soak [RUNS]   RUNS defaults to $QUARVEL_SOAK_RUNS, else 40
//
// The server runs in a child process (this program with --serve) so that
// its own memory and sockets stay out of the figures. Samples are taken
// every RUNS/50 runs (at least every run) once a warm-up of RUNS/8 runs, and
// at least one turn of the mix, is over. Flat means: the open descriptors
// are the same at every sample, and the highest resident memory of the last
// quarter of the samples is at most kRssMarginKiB above the highest of the
// first quarter (shown but not judged under the sanitizers, whose
// allocators keep freed memory). Exit status 0 when every run ended as
// expected and the figures stayed flat.

#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "common/Log.h"
#include "quarvel/CVUserDefaults.h"
#include "quarvel/UpdateRun.h"
#include "support/DataFileTargets.h"
#include "support/FileText.h"
#include "support/FreePort.h"
#include "support/LoopbackHttpServer.h"
#include "support/SettingsSandbox.h"

extern char** environ;

namespace {

using namespace std::chrono_literals;
using quarvel::testing::HttpReceived;
using quarvel::testing::HttpReply;
using quarvel::testing::kDataFileTargets;
using quarvel::testing::readFile;

constexpr auto kTimeout = 400ms;  // the data-file time-out of every run
constexpr auto kPacing = 1ms;
constexpr auto kSlack = 10s;  // beyond the time-outs a run may spend
// Resident memory may end this much above its early peak and still count
// as flat; a leak of a body or a transfer per run exceeds it within a few
// dozen runs.
constexpr long kRssMarginKiB = 512;

// One kind of run. The faulty file misbehaves on every attempt ("retry":
// every file breaks off twice, then arrives; "cancel": the run is cancelled
// while the first file trickles in); `replaced` files from the first on end
// with their new content, the others keep what they held.
struct Fault {
  const char* name;
  int faultyFile;
  std::int64_t outcome;
  int replaced;
  int timedOut;  // attempts that run into the time-out
};
const Fault kMix[] = {
    {"good", -1, quarvel::UpdateStatusDone, 5, 0},
    {"retry", -1, quarvel::UpdateStatusDone, 5, 0},
    {"refused", 0, quarvel::UpdateStatusFailed, 0, 0},
    {"reset", 1, quarvel::UpdateStatusFailed, 1, 0},
    {"good", -1, quarvel::UpdateStatusDone, 5, 0},
    {"stall", 2, quarvel::UpdateStatusFailed, 2, 5},
    {"404", 0, quarvel::UpdateStatusDone, 5, 0},
    {"500", 3, quarvel::UpdateStatusDone, 5, 0},
    {"good", -1, quarvel::UpdateStatusDone, 5, 0},
    {"trickle", -1, quarvel::UpdateStatusDone, 5, 0},
    {"endless", 4, quarvel::UpdateStatusFailed, 4, 5},
    {"cancel", 0, quarvel::UpdateStatusCancelled, 0, 0},
};
constexpr int kMixSize = sizeof kMix / sizeof kMix[0];

// The body of `file` in run `run`: different in every run, 1 to 65 KiB.
std::string body(int run, int file) {
  std::string text = "run " + std::to_string(run) + " " + kDataFileTargets[file].name + "\n";
  text.resize(1024 + (run * 7919 + file * 104729) % 65536, static_cast<char>('a' + file));
  return text;
}

// ---- The server (child process) ----

// Targets look like /r<run>/<fault>/<path of a data file>.
HttpReply answer(const HttpReceived& request, std::map<std::string, int>& asked) {
  int run = 0;
  char fault[16] = {0};
  int consumed = 0;
  if (std::sscanf(request.target.c_str(), "/r%d/%15[^/]%n", &run, fault, &consumed) != 2)
    return HttpReply::text("Not Found", 404);
  const std::string path = request.target.substr(consumed);
  int file = 0;
  while (file < 5 && path != kDataFileTargets[file].target) ++file;
  if (file == 5) return HttpReply::text("Not Found", 404);
  const int attempt = ++asked[request.target];
  const std::string kind = fault;
  std::string text = body(run, file);
  const Fault* f = nullptr;
  for (const Fault& candidate : kMix)
    if (kind == candidate.name) f = &candidate;
  const bool faulty = f && f->faultyFile == file;

  if (kind == "retry" && attempt <= 2) return HttpReply::resetAfter(text, text.size() / 2);
  if (kind == "trickle") return HttpReply::trickle(text, text.size() / 8 + 1, 5ms);
  if (!faulty) return HttpReply::text(text);
  if (kind == "reset") return HttpReply::resetAfter(text, text.size() / 2);
  if (kind == "stall") return HttpReply::stallAfter(text, text.size() / 2);
  if (kind == "404") return HttpReply::text(text, 404);
  if (kind == "500") return HttpReply::text(text, 500);
  if (kind == "endless") return HttpReply::trickle(std::string(1 << 20, 'x'), 64, 20ms);
  if (kind == "cancel") return HttpReply::trickle(text, text.size() / 20 + 1, 10ms);
  return HttpReply::text(text);
}

// Prints the port, then serves until standard input closes.
int serve() {
  std::map<std::string, int> asked;  // server thread only
  quarvel::testing::LoopbackHttpServer server(
      [&asked](const HttpReceived& request) { return answer(request, asked); });
  std::printf("%s\n", server.hostAndPort().c_str());
  std::fflush(stdout);
  char buffer[64];
  while (::read(0, buffer, sizeof buffer) > 0) {
  }
  return 0;
}

// ---- The runs ----

struct Server {
  pid_t pid = -1;
  int input = -1;  // closing it stops the server
  std::string hostAndPort;
};

Server startServer() {
  Server server;
  int toChild[2], fromChild[2];
  if (::pipe(toChild) != 0 || ::pipe(fromChild) != 0) return server;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, toChild[0], 0);
  posix_spawn_file_actions_adddup2(&actions, fromChild[1], 1);
  posix_spawn_file_actions_addclose(&actions, toChild[1]);
  posix_spawn_file_actions_addclose(&actions, fromChild[0]);
  char self[] = "/proc/self/exe";
  char flag[] = "--serve";
  char* argv[] = {self, flag, nullptr};
  const int spawned = posix_spawn(&server.pid, self, &actions, nullptr, argv, environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(toChild[0]);
  ::close(fromChild[1]);
  if (spawned != 0) {
    server.pid = -1;
    return server;
  }
  server.input = toChild[1];
  char line[64] = {0};
  std::size_t got = 0;
  while (got < sizeof line - 1 && ::read(fromChild[0], line + got, 1) == 1 && line[got] != '\n')
    ++got;
  line[got] = 0;
  ::close(fromChild[0]);
  server.hostAndPort = line;
  return server;
}

void stopServer(Server& server) {
  if (server.input >= 0) ::close(server.input);
  if (server.pid > 0) ::waitpid(server.pid, nullptr, 0);
}

class QuietView : public quarvel::UpdateView {
 public:
  void setStatusText(const std::string&) override {}
  void setProgress(double) override {}
  void errorAlert(const std::string&) override {}
  void close() override {}
};

long residentKiB() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line))
    if (line.rfind("VmRSS:", 0) == 0) return std::strtol(line.c_str() + 6, nullptr, 10);
  return -1;
}

int openDescriptors() {
  int n = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
    ++n;
  return n - 1;  // the iterator's own
}

struct Sample {
  int run;
  long rssKiB;
  int fds;
};

// Runs one update of kind `fault`; answers a description of what went
// wrong, or nothing.
std::string runOnce(int run, const Fault& fault, const std::string& library,
                    const std::string& origin, const std::string& refusedOrigin) {
  std::string old[5];
  for (int file = 0; file < 5; ++file)
    old[file] = readFile(library + "/" + kDataFileTargets[file].name);

  quarvel::UpdateOptions options;
  options.listServer = std::strcmp(fault.name, "refused") == 0
                           ? refusedOrigin
                           : origin + "/r" + std::to_string(run) + "/" + fault.name;
  options.fileServer = options.listServer;
  options.dataFileTimeout = kTimeout;
  options.transferLimit = kTimeout;
  options.pacing = kPacing;
  options.networkCheck = [] { return true; };
  options.dayOfMonth = [] { return std::string("07"); };
  auto updateRun = quarvel::UpdateRun::create(std::make_shared<QuietView>(), options);
  updateRun->start();
  if (std::strcmp(fault.name, "cancel") == 0) {
    std::this_thread::sleep_for(30ms);
    updateRun->cancel();
  }
  const auto bound = fault.timedOut * kTimeout + 6 * kPacing + kSlack;
  if (!updateRun->waitUntilFinished(std::chrono::duration_cast<std::chrono::milliseconds>(bound)))
    return "did not end in time";

  std::string problems;
  if (updateRun->updateStatus() != fault.outcome)
    problems += " outcome " + std::to_string(updateRun->updateStatus());
  for (int file = 0; file < 5; ++file) {
    // Old or new as the fault calls for; the transfer under way when a run
    // is cancelled may land or not.
    const std::string now = readFile(library + "/" + kDataFileTargets[file].name);
    const bool mayLand = std::strcmp(fault.name, "cancel") == 0 && file == 0;
    if (now != (file < fault.replaced ? body(run, file) : old[file]) &&
        !(mayLand && now == body(run, file)))
      problems += std::string(" ") + kDataFileTargets[file].name + " torn or wrong";
  }
  int entries = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(library)) ++entries;
  if (entries != 5) problems += " " + std::to_string(entries) + " entries in the library";
  return problems;
}

long maxRss(const std::vector<Sample>& samples, std::size_t from, std::size_t to) {
  long peak = 0;
  for (std::size_t i = from; i < to; ++i) peak = std::max(peak, samples[i].rssKiB);
  return peak;
}

int soak(int runs) {
  Server server = startServer();
  if (server.hostAndPort.empty()) {
    std::fprintf(stderr, "update_soak: the server did not start\n");
    return 1;
  }
  quarvel::testing::SettingsSandbox sandbox;
  const std::string library =
      quarvel::CVUserDefaults::standardUserDefaults()->libraryPath().value_or("");
  for (int file = 0; file < 5; ++file)
    std::ofstream(library + "/" + kDataFileTargets[file].name) << "initial";
  const std::string origin = "http://" + server.hostAndPort;
  const std::string refusedOrigin =
      "http://127.0.0.1:" + std::to_string(quarvel::testing::freeLoopbackPort());

  // One full turn of the mix, at least, before the figures count.
  const int warmUp = std::max(runs / 8, kMixSize);
  const int every = std::max(1, runs / 50);
  std::vector<Sample> samples;
  const Sample start{0, residentKiB(), openDescriptors()};
  std::map<std::string, int> mix;
  int failures = 0;
  quarvel::LogCapture quiet;  // the runs' log lines, dropped after each run
  const auto began = std::chrono::steady_clock::now();
  for (int run = 1; run <= runs; ++run) {
    const Fault& fault = kMix[(run - 1) % kMixSize];
    ++mix[fault.name];
    std::string problems = runOnce(run, fault, library, origin, refusedOrigin);
    quiet.clear();
    if (!problems.empty()) {
      std::fprintf(stderr, "update_soak: run %d (%s):%s\n", run, fault.name, problems.c_str());
      if (++failures >= 5 || problems == "did not end in time") break;
    }
    if (run > warmUp && run % every == 0)
      samples.push_back({run, residentKiB(), openDescriptors()});
  }
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
  stopServer(server);

  std::printf("update_soak: %d runs in %.1f s (time-out %lld ms)\n", runs, seconds,
              static_cast<long long>(kTimeout.count()));
  std::printf("  mix:");
  for (const auto& [name, count] : mix) std::printf(" %s %d", name.c_str(), count);
  std::printf("\n");
  if (samples.size() < 4) {
    std::printf("  too few samples after the warm-up of %d runs\n", warmUp);
    return failures ? 1 : 0;
  }
  const std::size_t quarter = samples.size() / 4;
  const long early = maxRss(samples, 0, quarter);
  const long late = maxRss(samples, samples.size() - quarter, samples.size());
  const long peak = maxRss(samples, 0, samples.size());
  auto [fewest, most] = std::minmax_element(samples.begin(), samples.end(),
                                            [](auto& a, auto& b) { return a.fds < b.fds; });
  std::printf(
      "  RSS KiB: before %ld, after warm-up (run %d) %ld, last %ld, max %ld; "
      "first-quarter max %ld, last-quarter max %ld\n",
      start.rssKiB, samples.front().run, samples.front().rssKiB, samples.back().rssKiB, peak, early,
      late);
  std::printf("  fds: before %d, after warm-up %d, last %d, range %d..%d over %zu samples\n",
              start.fds, samples.front().fds, samples.back().fds, fewest->fds, most->fds,
              samples.size());

  bool flat = fewest->fds == most->fds;
#if QUARVEL_SOAK_CHECK_RSS
  flat = flat && late <= early + kRssMarginKiB;
#else
  std::printf("  (sanitizer build: resident memory is shown, not judged)\n");
#endif
  std::printf("  %s, %d run(s) with problems\n", flat ? "flat" : "NOT FLAT", failures);
  return flat && failures == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && std::strcmp(argv[1], "--serve") == 0) return serve();
  const char* fromEnvironment = std::getenv("QUARVEL_SOAK_RUNS");
  const int runs = argc > 1          ? std::atoi(argv[1])
                   : fromEnvironment ? std::atoi(fromEnvironment)
                                     : 40;
  if (runs <= 0) {
    std::fprintf(stderr, "usage: update_soak [RUNS]\n");
    return 2;
  }
  return soak(runs);
}
