#include "settings/CommandRunner.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <thread>

#include "common/Log.h"
#include "common/StringUtil.h"
#include "quarvel/CVUserDefaults.h"

extern char** environ;

namespace quarvel {

namespace {

// Collects the exit status, waiting on another thread when the command is
// still running after closing its output.
void reap(pid_t pid) {
  if (waitpid(pid, nullptr, WNOHANG) != 0) return;
  std::thread([pid] {
    while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
    }
  }).detach();
}

}  // namespace

std::string runShellCommand(const std::string& command, const std::string& shell) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) {
    logf("runCommand failed: no pipe for %s (%s)", command.c_str(), std::strerror(errno));
    return "";
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  // dup2 clears close-on-exec on the copy; every other descriptor above
  // standard error is closed in the child, whatever its flags.
  posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
  posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);

  std::string program = shell;
  std::string dashC = "-c";
  std::string line = command;
  char* argv[] = {program.data(), dashC.data(), line.data(), nullptr};
  pid_t pid = 0;
  int rc = posix_spawn(&pid, shell.c_str(), &actions, nullptr, argv, environ);
  posix_spawn_file_actions_destroy(&actions);
  close(fds[1]);
  if (rc != 0) {
    close(fds[0]);
    logf("runCommand failed: %s could not be started (%s)", shell.c_str(), std::strerror(rc));
    return "";
  }

  std::string output;
  char buffer[4096];
  for (;;) {
    ssize_t n = read(fds[0], buffer, sizeof buffer);
    if (n > 0) {
      output.append(buffer, static_cast<std::size_t>(n));
    } else if (n == 0 || errno != EINTR) {
      break;
    }
  }
  close(fds[0]);
  reap(pid);
  return isValidUtf8(output) ? output : std::string();
}

std::string CVUserDefaults::runCommand(const std::string& command) {
  return runShellCommand(command);
}

}  // namespace quarvel
