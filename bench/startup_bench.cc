// Whole-process start-up: `quarvel --version` beside `true` and `find` on an
// empty folder, each spawned and waited for, so that the figure is what a
// shell script pays per call. The tool maps neither Qt nor libcurl at
// start-up; this shows what is left.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

extern char** environ;

namespace {

// Spawns `argv` with standard output and error on /dev/null and waits.
bool runQuietly(std::vector<std::string> argv) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  std::vector<char*> args;
  for (std::string& a : argv) args.push_back(a.data());
  args.push_back(nullptr);
  pid_t pid = -1;
  const int spawned = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  int status = 0;
  return spawned == 0 && ::waitpid(pid, &status, 0) == pid && WIFEXITED(status) &&
         WEXITSTATUS(status) == 0;
}

const std::string& emptyFolder() {
  static const std::string folder = [] {
    char name[] = "/tmp/quarvel-startup-XXXXXX";
    return std::string(::mkdtemp(name));
  }();
  return folder;
}

void spawnEach(benchmark::State& state, const std::vector<std::string>& argv) {
  for (auto _ : state) {
    if (!runQuietly(argv)) {
      state.SkipWithError(("failed: " + argv[0]).c_str());
      break;
    }
  }
}

void BM_True(benchmark::State& state) { spawnEach(state, {"true"}); }
void BM_FindEmptyFolder(benchmark::State& state) { spawnEach(state, {"find", emptyFolder()}); }
void BM_QuarvelVersion(benchmark::State& state) { spawnEach(state, {QUARVEL_TOOL, "--version"}); }
void BM_QuarvelFoldArgument(benchmark::State& state) {
  spawnEach(state, {QUARVEL_TOOL, "fold", "Café"});
}

BENCHMARK(BM_True)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_FindEmptyFolder)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_QuarvelVersion)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_QuarvelFoldArgument)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
