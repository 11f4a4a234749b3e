#include "BoundedCommand.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

extern char** environ;

namespace IpmiCollector {

namespace {

using Clock = std::chrono::steady_clock;

int msLeft(Clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return left > 0 ? static_cast<int>(left) : 0;
}

pid_t spawn(const std::vector<std::string>& argv, int out, std::string& failure) {
  std::vector<char*> args;
  for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
  args.push_back(nullptr);
  posix_spawn_file_actions_t files;
  posix_spawnattr_t attributes;
  posix_spawn_file_actions_init(&files);
  posix_spawn_file_actions_addopen(&files, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&files, out, STDOUT_FILENO);
  posix_spawn_file_actions_addopen(&files, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
  posix_spawnattr_setpgroup(&attributes, 0);
  pid_t pid = -1;
  const int error = posix_spawnp(&pid, args[0], &files, &attributes, args.data(), environ);
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&files);
  if (error != 0) {
    failure = std::string("cannot start: ") + std::strerror(error);
    return -1;
  }
  return pid;
}

// Reads until end of file, the deadline or the output limit; false when the
// command has to be stopped.
bool collect(int in, Clock::time_point deadline, size_t maxOutput, CommandResult& result) {
  char buffer[4096];
  for (;;) {
    pollfd watch{in, POLLIN, 0};
    const int ready = ::poll(&watch, 1, msLeft(deadline));
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) {
      result.failure = "no end within the time limit";
      return false;
    }
    const ssize_t n = ::read(in, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return true;
    if (result.output.size() + static_cast<size_t>(n) > maxOutput) {
      result.failure = "printed more than " + std::to_string(maxOutput) + " bytes";
      return false;
    }
    result.output.append(buffer, static_cast<size_t>(n));
  }
}

// A command that closed its output may still run: it gets what is left of
// the time limit to end.
bool reap(pid_t pid, Clock::time_point deadline, CommandResult& result) {
  for (;;) {
    int status = 0;
    const pid_t done = ::waitpid(pid, &status, WNOHANG);
    if (done == pid) {
      result.exited = WIFEXITED(status);
      result.exitStatus = result.exited ? WEXITSTATUS(status) : -1;
      if (!result.exited) result.failure = "ended by signal " + std::to_string(WTERMSIG(status));
      else if (result.exitStatus != 0) result.failure = "exit status " + std::to_string(result.exitStatus);
      return true;
    }
    if (done < 0 && errno != EINTR) return true;
    if (msLeft(deadline) == 0) {
      result.failure = "no end within the time limit";
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

}  // namespace

CommandResult runBounded(const std::vector<std::string>& argv, int timeoutMs, size_t maxOutput) {
  CommandResult result;
  int pipeEnds[2];
  if (::pipe2(pipeEnds, O_CLOEXEC) != 0) {
    result.failure = std::string("cannot make a pipe: ") + std::strerror(errno);
    return result;
  }
  const pid_t pid = spawn(argv, pipeEnds[1], result.failure);
  ::close(pipeEnds[1]);
  if (pid < 0) {
    ::close(pipeEnds[0]);
    return result;
  }
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  const bool finished = collect(pipeEnds[0], deadline, maxOutput, result) && reap(pid, deadline, result);
  ::close(pipeEnds[0]);
  if (!finished) {
    ::kill(-pid, SIGKILL);  // the whole group: a shell wrapper's children too
    ::waitpid(pid, nullptr, 0);
    result.exited = false;
  }
  return result;
}

}  // namespace IpmiCollector
