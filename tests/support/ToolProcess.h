#pragma once
// Runs a program as a whole process, as a user's shell would: given
// arguments, exactly the given environment, standard input from a string.
// Its output is gathered through files, so neither stream can block it.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace quarvel::testing {

struct ToolRun {
  int exitStatus = -1;  // 128 + signal when killed; -1 when it did not start
  std::string out;
  std::string err;
};

inline std::string slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

inline ToolRun runProgram(const std::string& program, std::vector<std::string> arguments,
                          std::vector<std::string> env, const std::string& input = "") {
  ToolRun run;
  const std::string base = ::testing::TempDir() + "tool-" + std::to_string(::getpid()) + "-";
  const std::string inPath = base + "in", outPath = base + "out", errPath = base + "err";
  std::ofstream(inPath, std::ios::binary) << input;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, inPath.c_str(), O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                   0600);
  posix_spawn_file_actions_addopen(&actions, 2, errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
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
  run.out = slurp(outPath);
  run.err = slurp(errPath);
  for (const std::string& path : {inPath, outPath, errPath}) ::unlink(path.c_str());
  return run;
}

}  // namespace quarvel::testing
