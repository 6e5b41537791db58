#include "support/ToolProcess.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace quarvel::testing {

ToolRun runProgram(const std::string& program, std::vector<std::string> arguments,
                   std::vector<std::string> env, const std::string& input) {
  ToolRun run;
  const std::string base = ::testing::TempDir() + "tool-" + std::to_string(::getpid()) + "-";
  const std::string inPath = base + "in", outPath = base + "out", errPath = base + "err";
  writeBytes(inPath, input);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, inPath.c_str(), O_RDONLY, 0);
  for (const auto& [fd, path] : {std::pair{1, &outPath}, std::pair{2, &errPath}})
    posix_spawn_file_actions_addopen(&actions, fd, path->c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0600);
  arguments.insert(arguments.begin(), program);
  std::vector<char*> argv, envp;
  for (auto& a : arguments) argv.push_back(a.data());
  for (auto& e : env) envp.push_back(e.data());
  argv.push_back(nullptr);
  envp.push_back(nullptr);
  pid_t pid = -1;
  const int spawned =
      posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  int status = 0;
  if (spawned == 0 && ::waitpid(pid, &status, 0) == pid)
    run.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  run.out = readBytes(outPath);
  run.err = readBytes(errPath);
  for (const std::string& path : {inPath, outPath, errPath}) ::unlink(path.c_str());
  return run;
}

}  // namespace quarvel::testing
