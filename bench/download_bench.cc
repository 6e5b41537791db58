// A 50 MB data file from a loopback server, fetched by the update run's own
// transfer (UpdateRun::downloadKeyFile: libcurl streaming into a
// FileReplacement, committed and flushed to disk) and by `curl -s -o FILE`
// as a whole process, in alternating rounds. The run flushes the file to
// disk before it answers, so the baseline that does the same work is curl
// followed by an fsync of its file, timed together; plain curl is printed
// beside it. Prints the median of each, the ratios, and how far the run's
// peak resident set grew.
//
//   build/bench/download_bench [--rounds N] [--megabytes M]
//
// The run's time is the transfer alone: no pacing, no alert.

#include <fcntl.h>
#include <malloc.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "common/Log.h"
#include "quarvel/CVUserDefaults.h"
#include "quarvel/UpdateRun.h"
#include "support/LoopbackHttpServer.h"
#include "support/RecordingUpdateView.h"
#include "support/SettingsSandbox.h"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;

// A line of /proc/self/status ("VmHWM", "VmRSS") in bytes.
long long statusBytes(const char* key) {
  std::ifstream status("/proc/self/status");
  std::string line;
  const std::string prefix = std::string(key) + ":";
  while (std::getline(status, line))
    if (line.rfind(prefix, 0) == 0) return std::atoll(line.c_str() + prefix.size()) * 1024;
  return -1;
}

// Resets the peak resident set to the current one.
void resetPeak() { std::ofstream("/proc/self/clear_refs") << "5"; }

// Seconds for `curl -s -o file url` as a whole process and, when `flush`,
// an fsync of the file it wrote; -1 on failure.
double curlSeconds(const std::string& url, const std::string& file, bool flush) {
  std::vector<std::string> arguments = {"curl", "-s", "-o", file, url};
  std::vector<char*> argv;
  for (auto& a : arguments) argv.push_back(a.data());
  argv.push_back(nullptr);
  const auto started = Clock::now();
  pid_t pid;
  if (posix_spawnp(&pid, "curl", nullptr, nullptr, argv.data(), environ) != 0) return -1;
  int status = 0;
  ::waitpid(pid, &status, 0);
  if (flush) {
    const int fd = ::open(file.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd < 0 || ::fsync(fd) != 0) status = -1;
    if (fd >= 0) ::close(fd);
  }
  const double seconds = std::chrono::duration<double>(Clock::now() - started).count();
  return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? seconds : -1;
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const std::size_t n = values.size();
  return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

}  // namespace

int main(int argc, char** argv) {
  int rounds = 7;
  long megabytes = 50;
  for (int i = 1; i + 1 < argc; i += 2) {
    if (!std::strcmp(argv[i], "--rounds")) rounds = std::atoi(argv[i + 1]);
    if (!std::strcmp(argv[i], "--megabytes")) megabytes = std::atol(argv[i + 1]);
  }
  // The server runs in a child process of its own, so that its copy of each
  // answer is not counted in this process's memory and its thread does not
  // share this process's scheduling with the run.
  std::string body(static_cast<std::size_t>(megabytes) * 1000 * 1000, '\0');
  for (std::size_t i = 0; i < body.size(); ++i) body[i] = static_cast<char>('a' + i % 26);
  int portPipe[2];
  if (::pipe(portPipe) != 0) return 1;
  const pid_t serverPid = ::fork();
  if (serverPid == 0) {
    ::close(portPipe[0]);
    // Each answer copies the body; kept on the heap, the copy reuses the same
    // pages instead of faulting in fresh ones every time, so that serving
    // costs both clients as little as it can.
    ::mallopt(M_MMAP_THRESHOLD, 1 << 30);
    ::mallopt(M_TRIM_THRESHOLD, 1 << 30);
    quarvel::testing::LoopbackHttpServer server([&body](const quarvel::testing::HttpReceived&) {
      return quarvel::testing::HttpReply::text(body);
    });
    const std::string hostAndPort = server.hostAndPort();
    (void)!::write(portPipe[1], hostAndPort.data(), hostAndPort.size());
    ::close(portPipe[1]);
    for (;;) ::pause();  // until the parent kills it
  }
  ::close(portPipe[1]);
  char hostAndPort[64] = {0};
  const ssize_t got = ::read(portPipe[0], hostAndPort, sizeof hostAndPort - 1);
  ::close(portPipe[0]);
  struct ServerStop {
    pid_t pid;
    ~ServerStop() {
      ::kill(pid, SIGTERM);
      ::waitpid(pid, nullptr, 0);
    }
  } serverStop{serverPid};
  if (serverPid < 0 || got <= 0) return 1;
  const std::string origin = std::string("http://") + hostAndPort;

  quarvel::testing::SettingsSandbox sandbox;
  quarvel::LogCapture quiet;  // the run's log lines would only clutter the figures
  auto* settings = quarvel::CVUserDefaults::standardUserDefaults();
  const std::string target = *settings->checkListFilePath();
  const std::string curlFile = sandbox.root() + "/curl.out";

  const std::string path = "/quarvel/download/list/check/mac/";

  quarvel::UpdateOptions options;
  options.listServer = origin;
  options.fileServer = options.listServer;
  auto view = std::make_shared<quarvel::testing::RecordingView>();
  auto run = quarvel::UpdateRun::create(view, options);

  std::vector<double> runTimes, curlTimes, plainCurlTimes;
  long long peakGrowth = 0;
  for (int round = 0; round < rounds; ++round) {
    const double plain = curlSeconds(origin + path, curlFile, false);
    const double c = curlSeconds(origin + path, curlFile, true);
    resetPeak();
    const long long before = statusBytes("VmRSS");
    const auto started = Clock::now();
    const auto error = run->downloadKeyFile(1);
    const double r = std::chrono::duration<double>(Clock::now() - started).count();
    peakGrowth = std::max(peakGrowth, statusBytes("VmHWM") - before);
    if (error || c < 0 || plain < 0) {
      std::fprintf(stderr, "round %d failed: %s\n", round, error ? error->message.c_str() : "curl");
      return 1;
    }
    runTimes.push_back(r);
    curlTimes.push_back(c);
    plainCurlTimes.push_back(plain);
  }
  std::ifstream written(target, std::ios::binary | std::ios::ate);
  const long long size = written ? static_cast<long long>(written.tellg()) : -1;
  if (size != static_cast<long long>(body.size())) {
    std::fprintf(stderr, "the run wrote %lld bytes instead of %zu\n", size, body.size());
    return 1;
  }
  const double runMedian = median(runTimes), curlMedian = median(curlTimes),
               plainMedian = median(plainCurlTimes);
  std::printf("body            %ld MB (%zu bytes), %d rounds\n", megabytes, body.size(), rounds);
  std::printf("run transfer    median %.3f s  (%.0f MB/s)\n", runMedian,
              body.size() / 1e6 / runMedian);
  std::printf("curl -o, fsync  median %.3f s  (%.0f MB/s)\n", curlMedian,
              body.size() / 1e6 / curlMedian);
  std::printf("curl -o         median %.3f s  (%.0f MB/s)\n", plainMedian,
              body.size() / 1e6 / plainMedian);
  std::printf("ratio run / (curl + fsync)  %.2f\n", runMedian / curlMedian);
  std::printf("ratio run / curl alone      %.2f\n", runMedian / plainMedian);
  std::printf("run peak RSS    +%.1f MiB\n", peakGrowth / (1024.0 * 1024.0));
  return 0;
}
