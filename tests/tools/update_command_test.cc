// `quarvel update --gui` as a whole process where no display can be had: it
// must say so and exit with its own status, not abort inside Qt.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "TerminalUpdate.h"

namespace quarvel::cli {
namespace {

struct Finished {
  int exitStatus = -1;  // 128 + signal when killed
  std::string errors;
};

// Runs the tool with exactly `env` and no input; answers its exit status and
// what it wrote to standard error.
Finished runTool(std::vector<std::string> arguments, std::vector<std::string> env) {
  Finished finished;
  int pipeFds[2];
  if (::pipe(pipeFds) != 0) return finished;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, pipeFds[1], 2);
  posix_spawn_file_actions_addclose(&actions, pipeFds[0]);
  posix_spawn_file_actions_addclose(&actions, pipeFds[1]);
  arguments.insert(arguments.begin(), QUARVEL_TOOL);
  std::vector<char*> argv, envp;
  for (auto& a : arguments) argv.push_back(a.data());
  for (auto& e : env) envp.push_back(e.data());
  argv.push_back(nullptr);
  envp.push_back(nullptr);
  pid_t pid = -1;
  const int spawned = posix_spawn(&pid, QUARVEL_TOOL, &actions, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  ::close(pipeFds[1]);
  char buffer[4096];
  ssize_t n;
  while (spawned == 0 && (n = ::read(pipeFds[0], buffer, sizeof buffer)) > 0)
    finished.errors.append(buffer, static_cast<std::size_t>(n));
  ::close(pipeFds[0]);
  int status = 0;
  if (spawned != 0 || ::waitpid(pid, &status, 0) != pid) return finished;
  finished.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return finished;
}

TEST(UpdateCommand, TheWindowWithoutADisplaySaysSoAndExits) {
  const std::string home = "HOME=" + std::string(::testing::TempDir());
  struct Case {
    const char* name;
    std::vector<std::string> env;
    const char* says;
  };
  const Case cases[] = {
      {"nothing set", {home}, "neither DISPLAY nor WAYLAND_DISPLAY is set"},
      {"empty DISPLAY", {home, "DISPLAY="}, "neither DISPLAY nor WAYLAND_DISPLAY is set"},
      {"xcb asked for, wayland only",
       {home, "QT_QPA_PLATFORM=xcb", "WAYLAND_DISPLAY=w-0"},
       "QT_QPA_PLATFORM=xcb needs DISPLAY"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const Finished finished = runTool({"update", "--gui"}, c.env);
#ifdef QUARVEL_HAVE_GUI
    EXPECT_EQ(finished.exitStatus, kUpdateExitNoDisplay) << finished.errors;
    EXPECT_NE(finished.errors.find("quarvel update --gui: no display for the update window"),
              std::string::npos)
        << finished.errors;
    EXPECT_NE(finished.errors.find(c.says), std::string::npos) << finished.errors;
#else
    EXPECT_EQ(finished.exitStatus, kUpdateExitFailed) << finished.errors;
#endif
  }
}

}  // namespace
}  // namespace quarvel::cli
