#include "ServeChild.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <thread>
#include <vector>

extern char** environ;

namespace quarvel::load {
namespace {

using Clock = std::chrono::steady_clock;

// Reads what the pipe holds now, waiting up to `waitMs` for the first byte.
// False when the pipe is closed.
bool drain(int fd, std::string& into, int waitMs) {
  pollfd entry{fd, POLLIN, 0};
  if (::poll(&entry, 1, waitMs) <= 0) return true;
  char chunk[4096];
  ssize_t got = ::read(fd, chunk, sizeof chunk);
  if (got <= 0) return false;
  into.append(chunk, static_cast<size_t>(got));
  return true;
}

}  // namespace

ServeChild::~ServeChild() {
  if (pid_ > 0) {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
  if (stdoutFd_ >= 0) ::close(stdoutFd_);
}

int ServeChild::start(const std::string& quarvel, const std::string& folder, int port,
                      const std::string& logPath, std::chrono::milliseconds within,
                      std::string& error) {
  int pipeFds[2];
  if (::pipe2(pipeFds, O_CLOEXEC) != 0) {
    error = "no pipe";
    return -1;
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, logPath.c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none;
  sigemptyset(&none);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
  std::vector<std::string> args{quarvel,  "serve",    folder, "--port", std::to_string(port),
                                "--bind", "127.0.0.1"};
  std::vector<char*> argv;
  for (auto& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);
  int spawned = ::posix_spawn(&pid_, quarvel.c_str(), &actions, &attributes, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  ::close(pipeFds[1]);
  stdoutFd_ = pipeFds[0];
  if (spawned != 0) {
    pid_ = -1;
    error = "cannot run " + quarvel + ": " + std::strerror(spawned);
    return -1;
  }
  // "Serving DIR on http://127.0.0.1:PORT/"
  const std::string marker = "http://127.0.0.1:";
  auto deadline = Clock::now() + within;
  while (Clock::now() < deadline) {
    size_t at = output_.find(marker);
    size_t end = at == std::string::npos ? at : output_.find('/', at + marker.size());
    if (end != std::string::npos) return std::atoi(output_.c_str() + at + marker.size());
    if (!drain(stdoutFd_, output_, 100)) break;
  }
  error = "the server printed no port: \"" + output_ + "\"";
  return -1;
}

std::optional<ProcessSample> ServeChild::sample() const {
  if (pid_ <= 0) return std::nullopt;
  const std::string base = "/proc/" + std::to_string(pid_);
  ProcessSample sample;
  std::ifstream status(base + "/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.starts_with("VmRSS:")) sample.rssKiB = std::atol(line.c_str() + 6);
    if (line.starts_with("Threads:")) sample.threads = std::atoi(line.c_str() + 8);
  }
  DIR* dir = ::opendir((base + "/fd").c_str());
  if (!dir || sample.rssKiB == 0) {
    if (dir) ::closedir(dir);
    return std::nullopt;
  }
  char target[64];
  while (dirent* entry = ::readdir(dir)) {
    if (entry->d_name[0] == '.') continue;
    ++sample.fds;
    std::string link = base + "/fd/" + entry->d_name;
    ssize_t length = ::readlink(link.c_str(), target, sizeof target - 1);
    if (length > 0 && std::string_view(target, length).starts_with("socket:")) ++sample.socketFds;
  }
  ::closedir(dir);
  return sample;
}

ServeChild::Stop ServeChild::stop(int signal, std::chrono::milliseconds bound) {
  Stop result;
  if (pid_ <= 0) return result;
  auto sent = Clock::now();
  ::kill(pid_, signal);
  int status = 0;
  pid_t ended = 0;
  while ((ended = ::waitpid(pid_, &status, WNOHANG)) == 0 && Clock::now() - sent < bound) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  result.took = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - sent);
  result.ended = ended == pid_;
  if (!result.ended) {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, &status, 0);
  }
  pid_ = -1;
  if (WIFEXITED(status)) result.exitStatus = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) result.signal = WTERMSIG(status);
  // The child has ended: its end of the pipe is closed, so this reads to
  // the end, bounded in case something else kept it open.
  auto readUntil = Clock::now() + std::chrono::seconds(1);
  while (Clock::now() < readUntil && drain(stdoutFd_, output_, 50)) {
  }
  result.output = output_;
  return result;
}

}  // namespace quarvel::load
