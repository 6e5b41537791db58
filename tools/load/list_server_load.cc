// quarvel-list-load: a bounded load run against `quarvel serve` on loopback.
//
// Starts the server as a child process on a folder of data files, runs a
// fixed number of clients for a fixed time (each request with a deadline)
// making the requests an update run makes, plus HEADs and requests that
// must be answered 404, and checks every answer's status and bytes against
// the folder. Meanwhile a few slow clients connect and say nothing or send
// their request a byte at a time. The child's memory and descriptors are
// sampled from /proc. At the end the child is stopped by a signal while the
// slow clients still hold their connections; it must end in time with
// status 0 and let go of its port. Exit status 0 when every check passed.
// Only 127.0.0.1 is ever contacted.

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <mutex>
#include <random>
#include <sstream>
#include <thread>
#include <vector>

#include "LoopbackHttp.h"
#include "ServeChild.h"

namespace quarvel::load {
namespace {

using namespace std::chrono_literals;
using std::chrono::milliseconds;

struct Options {
  std::string quarvel;
  std::string folder;
  int clients = 200;
  int seconds = 30;
  int keepAliveEvery = 10;  // every Nth client reuses its connection; 0: none
  int silent = 4;
  int trickle = 4;
  int trickleMs = 200;
  int requestTimeoutMs = 10000;
  int silentLimitMs = 30000;
  int sampleMs = 1000;
  std::string stopSignal = "TERM";
  int stopBoundMs = 5000;
  bool printSamples = false;
  bool rssCheck = true;
  bool stallCheck = true;  // fail on an interval without a completed request
  double rssMarginPercent = 10;
  long rssMarginKiB = 2048;
};

// One request of the mix and the answer it must get.
struct Target {
  std::string method;
  std::string target;
  int status = 200;
  std::string body;  // the file's bytes, for a 200
  int weight = 1;
};

// The file `name` directly in `folder` when it is a regular file there,
// which is what the server may hand out.
std::optional<std::string> servedFile(const std::string& folder, const std::string& name) {
  const std::string path = folder + "/" + name;
  struct stat info {};
  if (::lstat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return std::nullopt;
  std::ifstream in(path, std::ios::binary);
  std::ostringstream bytes;
  bytes << in.rdbuf();
  return bytes.str();
}

// The update run's GETs weigh most: the five public paths, then the same
// files from the in-house endpoint, then the file server's and Windows
// package's paths. Requests that name nothing servable must get 404.
std::vector<Target> requestMix(const std::string& folder) {
  const std::pair<const char*, const char*> publicPaths[] = {
      {"/quarvel/download/list/check/mac/", "macchecklist.dat"},
      {"/quarvel/download/list/package/mac/", "macpcklist.dat"},
      {"/quarvel/download/list/filter/mac/", "macfilterlist.dat"},
      {"/quarvel/download/list/user/mac/", "userchecklist.dat"},
      {"/quarvel/download/list/font/mac/", "fontchecklist.dat"},
  };
  std::vector<Target> mix;
  auto add = [&](std::string method, std::string target, const std::string& file, int weight) {
    Target t{std::move(method), std::move(target), 404, {}, weight};
    if (auto bytes = servedFile(folder, file)) {
      t.status = 200;
      if (t.method == "GET") t.body = std::move(*bytes);
    }
    mix.push_back(std::move(t));
  };
  for (auto [path, file] : publicPaths) {
    add("GET", path, file, 6);
    add("GET", std::string("/cmmn/download.nis?type=keyfile&filename=") + file, file, 2);
  }
  add("GET", "/cmmn/download.nis?type=file&filename=ver.dat", "ver.dat", 1);
  add("GET", "/cmmn/download.nis?type=file&filename=welcome.dat", "welcome.dat", 1);
  add("GET", "/file/keyfile60/package.dat", "package.dat", 1);
  add("GET", "/file/keyfile60/welcome.txt", "welcome.txt", 1);
  add("HEAD", "/quarvel/download/list/check/mac/", "macchecklist.dat", 1);
  add("HEAD", "/file/keyfile60/welcome.dat", "welcome.dat", 1);
  for (const char* target : {
           "/",
           "/quarvel/download/list/check/mac",
           "/quarvel/download/list/check/mac/macchecklist.dat",
           "/cmmn/download.nis?type=keyfile&filename=..%2Fwelcome.dat",
           "/cmmn/download.nis?type=other&filename=welcome.dat",
           "/cmmn/download.nis?type=keyfile&filename=no-such-list.dat",
           "/file/keyfile60/src",
       }) {
    mix.push_back({"GET", target, 404, {}, 1});
  }
  return mix;
}

struct ClientStats {
  uint64_t ok = 0;
  uint64_t failures[kFailureKinds] = {};
  std::vector<uint32_t> latencyUs;
  std::vector<std::string> notes;  // the first few failures, spelt out
};

struct Shared {
  Options options;
  int port = 0;
  std::vector<Target> mix;
  std::vector<size_t> picks;  // indexes into mix, each repeated by its weight
  Clock::time_point end;
  std::atomic<uint64_t> completed{0};
  std::atomic<bool> stopSent{false};

  std::mutex slowMutex;
  int silentConnections = 0;
  int silentDropped = 0;
  milliseconds silentHeldMin = milliseconds::max();
  milliseconds silentHeldMax{0};
  int silentBeyondLimit = 0;
  int trickleAnswered = 0;
  int trickleDropped = 0;
  int trickleWrong = 0;
  std::vector<std::string> slowNotes;
};

// Checks an answer against the target: nothing when it is the right one.
std::optional<Failure> judge(const Target& target, const Answer& answer) {
  if (answer.status != target.status) return Failure::Status;
  if (target.status != 200) return {};
  if (target.method == "HEAD") {
    // HEAD gets the headers a GET would get, Content-Length included.
    return answer.contentLength ? std::nullopt : std::optional(Failure::Malformed);
  }
  return answer.body == target.body ? std::nullopt : std::optional(Failure::Body);
}

void runClient(Shared& shared, int index, ClientStats& stats) {
  std::mt19937 random(static_cast<unsigned>(index) * 7919u + 1u);
  std::uniform_int_distribution<size_t> pick(0, shared.picks.size() - 1);
  const bool keepAlive =
      shared.options.keepAliveEvery > 0 && index % shared.options.keepAliveEvery == 0;
  LoopbackConnection connection;
  Answer answer;
  while (Clock::now() < shared.end) {
    const Target& target = shared.mix[shared.picks[pick(random)]];
    const auto started = Clock::now();
    const auto deadline = started + milliseconds(shared.options.requestTimeoutMs);
    std::optional<Failure> failure;
    if (!connection.isOpen()) failure = connection.open(shared.port, deadline);
    if (!failure)
      failure = connection.send(requestFor(target.method, target.target, shared.port), deadline);
    if (!failure) failure = connection.receive(target.method == "HEAD", answer, deadline);
    if (!failure) failure = judge(target, answer);
    if (failure || !keepAlive || answer.closes) connection.close();
    const auto took = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - started);
    stats.latencyUs.push_back(static_cast<uint32_t>(std::min<int64_t>(took.count(), UINT32_MAX)));
    if (failure) {
      ++stats.failures[static_cast<int>(*failure)];
      if (stats.notes.size() < 3) {
        std::ostringstream note;
        note << "client " << index << ": " << target.method << " " << target.target << ": "
             << failureName(*failure) << " (status " << answer.status << ", " << answer.body.size()
             << " bytes, " << took.count() / 1000 << " ms)";
        stats.notes.push_back(note.str());
      }
    } else {
      ++stats.ok;
    }
    shared.completed.fetch_add(1, std::memory_order_relaxed);
  }
}

// Connects and sends nothing, until the server drops the connection; then
// again, until the stop signal has been sent.
void runSilent(Shared& shared) {
  const milliseconds limit(shared.options.silentLimitMs);
  while (!shared.stopSent) {
    LoopbackConnection connection;
    if (auto failure = connection.open(shared.port, Clock::now() + 5s)) {
      std::lock_guard lock(shared.slowMutex);
      if (!shared.stopSent)
        shared.slowNotes.push_back(std::string("silent client: ") + failureName(*failure));
      return;
    }
    const auto opened = Clock::now();
    const bool dropped = connection.awaitClose(opened + limit);
    const auto held = std::chrono::duration_cast<milliseconds>(Clock::now() - opened);
    std::lock_guard lock(shared.slowMutex);
    ++shared.silentConnections;
    if (shared.stopSent) break;  // dropped by the stop, not by a time-out
    if (dropped) {
      ++shared.silentDropped;
      shared.silentHeldMin = std::min(shared.silentHeldMin, held);
      shared.silentHeldMax = std::max(shared.silentHeldMax, held);
    } else {
      ++shared.silentBeyondLimit;
    }
  }
}

// Sends a whole GET a byte at a time, each byte well within the server's
// read time-out, then checks the answer; again, until the stop signal.
void runTrickle(Shared& shared, const Target& target) {
  const std::string request = requestFor("GET", target.target, shared.port);
  while (!shared.stopSent) {
    LoopbackConnection connection;
    if (auto failure = connection.open(shared.port, Clock::now() + 5s)) {
      std::lock_guard lock(shared.slowMutex);
      if (!shared.stopSent)
        shared.slowNotes.push_back(std::string("trickling client: ") + failureName(*failure));
      return;
    }
    std::optional<Failure> failure;
    for (size_t i = 0; i < request.size() && !failure; ++i) {
      failure = connection.send(std::string_view(request).substr(i, 1), Clock::now() + 5s);
      std::this_thread::sleep_for(milliseconds(shared.options.trickleMs));
    }
    Answer answer;
    if (!failure) failure = connection.receive(false, answer, Clock::now() + 10s);
    if (!failure) failure = judge(target, answer);
    std::lock_guard lock(shared.slowMutex);
    if (shared.stopSent) break;
    if (!failure) {
      ++shared.trickleAnswered;
    } else if (*failure == Failure::Closed) {
      ++shared.trickleDropped;
    } else {
      ++shared.trickleWrong;
      if (shared.slowNotes.size() < 3)
        shared.slowNotes.push_back(std::string("trickling client: ") + failureName(*failure));
    }
  }
}

// The server child, for the watchdog; -1 once it is being stopped.
std::atomic<pid_t> gChild{-1};

struct Sample {
  double at = 0;  // seconds since the load started
  ProcessSample process;
  uint64_t completed = 0;  // requests finished since the previous sample
};

std::string mib(long kib) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f MiB", kib / 1024.0);
  return text;
}

// Max of the first and of the last third of `values`.
std::pair<long, long> thirdsMax(const std::vector<long>& values) {
  const size_t third = values.size() / 3;
  long first = *std::max_element(values.begin(), values.begin() + third);
  long last = *std::max_element(values.end() - third, values.end());
  return {first, last};
}

// The port must be free: nothing answers on it, and a server started on it
// at once gets it.
bool portReleased(const Options& options, int port, std::vector<std::string>& broken) {
  LoopbackConnection probe;
  const bool refused = probe.open(port, Clock::now() + 2s) == Failure::Connect;
  ServeChild again;
  std::string error;
  const bool restarted =
      again.start(options.quarvel, options.folder, port, "/dev/null", 30s, error) == port;
  const auto stopped = again.stop(SIGTERM, milliseconds(options.stopBoundMs));
  if (!refused || !restarted)
    std::printf("port %d: %s, %s\n", port, refused ? "refused" : "NOT refused",
                restarted ? "taken again" : error.c_str());
  if (restarted && !(stopped.ended && stopped.exitStatus == 0))
    broken.push_back("the restarted server did not stop cleanly");
  return refused && restarted;
}

void reportRequests(const std::vector<ClientStats>& stats, double loadSeconds,
                    std::vector<std::string>& broken) {
  ClientStats total;
  for (auto& s : stats) {
    total.ok += s.ok;
    for (int k = 0; k < kFailureKinds; ++k) total.failures[k] += s.failures[k];
    total.latencyUs.insert(total.latencyUs.end(), s.latencyUs.begin(), s.latencyUs.end());
    for (auto& note : s.notes)
      if (total.notes.size() < 10) total.notes.push_back(note);
  }
  uint64_t failed = 0;
  for (auto f : total.failures) failed += f;
  const uint64_t requests = total.ok + failed;
  std::sort(total.latencyUs.begin(), total.latencyUs.end());
  auto percentile = [&](double p) {
    if (total.latencyUs.empty()) return 0.0;
    size_t at = std::min(total.latencyUs.size() - 1, size_t(p * total.latencyUs.size()));
    return total.latencyUs[at] / 1000.0;
  };
  std::printf("requests: %" PRIu64 " in %.1f s (%.0f/s), failures: %" PRIu64 " (", requests,
              loadSeconds, requests / loadSeconds, failed);
  for (int k = 0; k < kFailureKinds; ++k)
    std::printf("%s%s %" PRIu64, k ? ", " : "", failureName(Failure(k)), total.failures[k]);
  std::printf(")\n");
  for (auto& note : total.notes) std::printf("  %s\n", note.c_str());
  if (failed) broken.push_back("failed requests");
  std::printf("latency: p50 %.2f ms, p99 %.2f ms, max %.2f ms\n", percentile(0.5), percentile(0.99),
              percentile(1.0));
}

void reportServer(const Options& options, const ProcessSample& idle,
                  const std::optional<ProcessSample>& after, const std::vector<Sample>& samples,
                  std::vector<std::string>& broken) {
  if (options.printSamples) {
    std::printf("samples (s, rss KiB, fds, sockets, threads, completed):\n");
    for (const auto& s : samples)
      std::printf("  %.1f %ld %d %d %d %" PRIu64 "\n", s.at, s.process.rssKiB, s.process.fds,
                  s.process.socketFds, s.process.threads, s.completed);
  }
  // Samples past the warm-up, in thirds.
  const double warmUp = std::max(options.sampleMs / 1000.0, options.seconds / 6.0);
  std::vector<long> rss;
  uint64_t slowest = UINT64_MAX, fastest = 0;
  long rssMax = idle.rssKiB;
  int fdsMax = idle.fds, threadsMax = idle.threads;
  for (size_t i = 0; i < samples.size(); ++i) {
    const auto& s = samples[i];
    rssMax = std::max(rssMax, s.process.rssKiB);
    fdsMax = std::max(fdsMax, s.process.fds);
    threadsMax = std::max(threadsMax, s.process.threads);
    if (s.at >= warmUp) {
      rss.push_back(s.process.rssKiB);
    }
    if (s.at <= options.seconds) {  // whole intervals under load
      slowest = std::min(slowest, s.completed);
      fastest = std::max(fastest, s.completed);
    }
  }
  const double perSecond = 1000.0 / options.sampleMs;
  if (fastest > 0)
    std::printf("completions per second: min %.0f, max %.0f\n", slowest * perSecond,
                fastest * perSecond);
  if (fastest > 0 && slowest == 0) {
    if (options.stallCheck)
      broken.push_back("a stall (an interval with no completion)");
    else
      std::printf("  an interval had no completion (stalls not judged in this run)\n");
  }
  std::printf("server rss: idle %s, first %s, last %s, max %s; threads max %d\n",
              mib(idle.rssKiB).c_str(),
              mib(samples.empty() ? 0 : samples.front().process.rssKiB).c_str(),
              mib(samples.empty() ? 0 : samples.back().process.rssKiB).c_str(), mib(rssMax).c_str(),
              threadsMax);
  if (rss.size() >= 6) {
    auto [first, last] = thirdsMax(rss);
    const long allowed =
        first + std::max(options.rssMarginKiB, long(first * options.rssMarginPercent / 100));
    const bool flat = last <= allowed;
    std::printf(
        "  after %.0f s warm-up: max of first third %s, of last third %s (allowed %s): %s\n",
        warmUp, mib(first).c_str(), mib(last).c_str(), mib(allowed).c_str(),
        !options.rssCheck ? "not checked"
        : flat            ? "flat"
                          : "GROWING");
    if (options.rssCheck && !flat) broken.push_back("server memory grows");
  }
  {
    // Under load the count follows the connections of the moment, not a
    // trend: each client may hold a connection the server has yet to see
    // closed beside its new one, and each server thread may hold the file it
    // answers with. Thirds of a short run differ by tens for that alone, so
    // the run is held to that ceiling; a descriptor lost per request passes
    // it within milliseconds, and a slower loss shows after the load, below.
    const int connections = options.clients + options.silent + options.trickle;
    const int ceiling = idle.fds + 2 * connections + threadsMax;
    const bool bounded = fdsMax <= ceiling;
    std::printf("server fds: idle %d, max %d (ceiling %d)%s\n", idle.fds, fdsMax, ceiling,
                bounded ? "" : ": GROWING");
    if (!bounded) broken.push_back("server descriptors grow");
  }
  if (after) {
    // Besides the listener, only the slow clients' connections may be left.
    const int files = after->fds - after->socketFds, idleFiles = idle.fds - idle.socketFds;
    const int sockets = after->socketFds - idle.socketFds;
    const bool clean = files <= idleFiles && sockets <= options.silent + options.trickle;
    std::printf("  after the load: %d fds, %d of them sockets (idle: %d, %d)%s\n", after->fds,
                after->socketFds, idle.fds, idle.socketFds, clean ? "" : ": LEFT OPEN");
    if (!clean) broken.push_back("descriptors left open after the load");
  }
}

void reportSlowClients(Shared& shared, std::vector<std::string>& broken) {
  const Options& options = shared.options;
  std::lock_guard lock(shared.slowMutex);
  std::printf(
      "slow clients: silent: %d connections, %d dropped by the server after %.1f-%.1f s, "
      "%d held beyond %d ms; trickling: %d answered, %d dropped, %d wrong\n",
      shared.silentConnections, shared.silentDropped,
      shared.silentDropped ? shared.silentHeldMin.count() / 1000.0 : 0.0,
      shared.silentHeldMax.count() / 1000.0, shared.silentBeyondLimit, options.silentLimitMs,
      shared.trickleAnswered, shared.trickleDropped, shared.trickleWrong);
  for (auto& note : shared.slowNotes) std::printf("  %s\n", note.c_str());
  if (shared.silentBeyondLimit) broken.push_back("silent connections never dropped");
  if (shared.trickleWrong) broken.push_back("trickling clients answered wrongly");
}

int run(const Options& options) {
  auto shared = std::make_unique<Shared>();
  shared->options = options;
  shared->mix = requestMix(options.folder);
  for (size_t i = 0; i < shared->mix.size(); ++i)
    for (int w = 0; w < shared->mix[i].weight; ++w) shared->picks.push_back(i);
  const Target* trickleTarget = &shared->mix.front();
  if (trickleTarget->status != 200) {
    std::cerr << "list-load: " << options.folder << " holds no macchecklist.dat\n";
    return 1;
  }

  char logPath[] = "/tmp/quarvel-list-load-XXXXXX";
  int logFd = ::mkstemp(logPath);
  if (logFd < 0) return 1;
  ::close(logFd);
  ServeChild child;
  std::string error;
  shared->port = child.start(options.quarvel, options.folder, 0, logPath, 30s, error);
  if (shared->port <= 0) {
    std::cerr << "list-load: " << error << "\n";
    ::unlink(logPath);
    return 1;
  }
  std::printf(
      "list server load: %d clients (every %d%s keeps its connection), %d silent, "
      "%d trickling, %d s, serving %s on port %d\n",
      options.clients, options.keepAliveEvery, options.keepAliveEvery ? "th" : "", options.silent,
      options.trickle, options.seconds, options.folder.c_str(), shared->port);
  std::fflush(stdout);
  // Nothing may outlive its bound, whatever happens below.
  const auto bound =
      std::chrono::seconds(options.seconds) +
      milliseconds(options.requestTimeoutMs + options.silentLimitMs + options.stopBoundMs) + 30s;
  gChild = child.pid();
  std::thread([bound] {
    std::this_thread::sleep_for(bound);
    std::cerr << "list-load: the run exceeded its bound of "
              << std::chrono::duration_cast<std::chrono::seconds>(bound).count() << " s\n";
    if (pid_t pid = gChild.exchange(-1); pid > 0) ::kill(pid, SIGKILL);
    std::_Exit(1);
  }).detach();

  std::this_thread::sleep_for(200ms);
  const auto idle = child.sample();
  if (!idle) {
    std::cerr << "list-load: cannot read /proc/" << child.pid() << "\n";
    return 1;
  }

  // Load.
  const auto started = Clock::now();
  shared->end = started + std::chrono::seconds(options.seconds);
  std::vector<Sample> samples;
  std::atomic<bool> loadDone{false};
  std::thread sampler([&] {
    uint64_t seen = 0;
    auto next = started;
    while (!loadDone) {
      next += milliseconds(options.sampleMs);
      while (!loadDone && Clock::now() < next) std::this_thread::sleep_for(10ms);
      if (loadDone) break;
      auto process = child.sample();
      if (!process) continue;
      uint64_t now = shared->completed.load();
      samples.push_back(
          {std::chrono::duration<double>(Clock::now() - started).count(), *process, now - seen});
      seen = now;
    }
  });
  std::vector<std::thread> slow;
  for (int i = 0; i < options.silent; ++i) slow.emplace_back(runSilent, std::ref(*shared));
  for (int i = 0; i < options.trickle; ++i)
    slow.emplace_back(runTrickle, std::ref(*shared), std::cref(*trickleTarget));
  std::vector<ClientStats> stats(options.clients);
  std::vector<std::thread> clients;
  for (int i = 0; i < options.clients; ++i)
    clients.emplace_back(runClient, std::ref(*shared), i, std::ref(stats[i]));
  for (auto& client : clients) client.join();
  const double loadSeconds = std::chrono::duration<double>(Clock::now() - started).count();
  loadDone = true;
  sampler.join();

  // Let the server close what the clients left, then look at it idle but
  // for the slow clients' connections.
  std::this_thread::sleep_for(1s);
  const auto after = child.sample();

  std::vector<std::string> broken;  // the checks that failed
  // Stop it while the slow clients still hold their connections.
  const int signal = options.stopSignal == "INT" ? SIGINT : SIGTERM;
  shared->stopSent = true;
  gChild = -1;
  const auto stop = child.stop(signal, milliseconds(options.stopBoundMs));
  for (auto& thread : slow) thread.join();

  const bool portFree = portReleased(options, shared->port, broken);
  long logLines = 0;
  std::vector<std::string> otherLines;  // what the server said besides its request lines
  {
    std::ifstream log(logPath);
    std::string line;
    while (std::getline(log, line)) {
      if (line.starts_with("serve: 127.0.0.1 \""))
        ++logLines;
      else
        otherLines.push_back(std::move(line));
    }
  }
  ::unlink(logPath);

  // Report.
  reportRequests(stats, loadSeconds, broken);
  reportServer(options, *idle, after, samples, broken);
  reportSlowClients(*shared, broken);
  const bool cleanStop = stop.ended && stop.exitStatus == 0;
  std::printf("stop: SIG%s -> ", options.stopSignal.c_str());
  if (stop.ended)
    std::printf("ended in %.1f ms", stop.took.count() / 1000.0);
  else
    std::printf("still running after %d ms, killed", options.stopBoundMs);
  if (stop.signal)
    std::printf(", by signal %d", stop.signal);
  else
    std::printf(", exit status %d", stop.exitStatus);
  std::printf("; port %d %s\n", shared->port, portFree ? "released" : "NOT RELEASED");
  if (!cleanStop) broken.push_back("no clean stop");
  if (!portFree) broken.push_back("port not released");
  std::printf("server log: %ld request lines, %zu other lines\n", logLines, otherLines.size());
  // A server that died says why on its standard error (a sanitizer report,
  // say); show the start of it.
  if (!cleanStop) {
    constexpr size_t kShown = 60;
    for (size_t i = 0; i < otherLines.size() && i < kShown; ++i)
      std::printf("  server: %s\n", otherLines[i].c_str());
  }

  if (broken.empty()) {
    std::printf("result: PASS\n");
    return 0;
  }
  std::printf("result: FAIL:");
  for (auto& what : broken) std::printf(" %s;", what.c_str());
  std::printf("\n");
  return 1;
}

}  // namespace
}  // namespace quarvel::load

int main(int argc, char** argv) {
  ::signal(SIGPIPE, SIG_IGN);
  quarvel::load::Options o;
  CLI::App app{"Bounded load run against `quarvel serve` on 127.0.0.1"};
  app.add_option("--quarvel", o.quarvel, "The quarvel program to run")->required();
  app.add_option("--folder", o.folder, "Folder of data files to serve")
      ->required()
      ->check(CLI::ExistingDirectory);
  app.add_option("--clients", o.clients, "Concurrent clients")
      ->check(CLI::Range(1, 2000))
      ->capture_default_str();
  app.add_option("--seconds", o.seconds, "Length of the load")
      ->check(CLI::Range(1, 3600))
      ->capture_default_str();
  app.add_option("--keep-alive-every", o.keepAliveEvery,
                 "Every Nth client reuses its connection (0: none)")
      ->capture_default_str();
  app.add_option("--silent", o.silent, "Clients that connect and send nothing")
      ->check(CLI::Range(0, 100))
      ->capture_default_str();
  app.add_option("--trickle", o.trickle, "Clients that send their request a byte at a time")
      ->check(CLI::Range(0, 100))
      ->capture_default_str();
  app.add_option("--trickle-ms", o.trickleMs, "Pause between trickled bytes")
      ->check(CLI::Range(1, 4000))
      ->capture_default_str();
  app.add_option("--request-timeout-ms", o.requestTimeoutMs, "Deadline of each request")
      ->check(CLI::Range(100, 120000))
      ->capture_default_str();
  app.add_option("--silent-limit-ms", o.silentLimitMs,
                 "A silent connection must be dropped by the server within this")
      ->check(CLI::Range(100, 120000))
      ->capture_default_str();
  app.add_option("--sample-ms", o.sampleMs, "Interval of the /proc samples")
      ->check(CLI::Range(50, 10000))
      ->capture_default_str();
  app.add_option("--stop-signal", o.stopSignal, "TERM or INT")
      ->check(CLI::IsMember({"TERM", "INT"}))
      ->capture_default_str();
  app.add_option("--stop-bound-ms", o.stopBoundMs, "The server must end within this")
      ->check(CLI::Range(10, 120000))
      ->capture_default_str();
  app.add_flag("--print-samples", o.printSamples, "Print every /proc sample of the server");
  app.add_option("--rss-check", o.rssCheck,
                 "Fail when the server's memory grows (off under sanitizers, whose "
                 "quarantine grows by design)")
      ->capture_default_str();
  app.add_option("--stall-check", o.stallCheck,
                 "Fail when a sample interval completes no request (a timing judgement, "
                 "for the soak; the short run in the tests leaves it out)")
      ->capture_default_str();
  app.add_option("--rss-margin-percent", o.rssMarginPercent, "Allowed growth, percent")
      ->capture_default_str();
  app.add_option("--rss-margin-kib", o.rssMarginKiB, "Allowed growth at least, KiB")
      ->capture_default_str();
  CLI11_PARSE(app, argc, argv);
  return quarvel::load::run(o);
}
