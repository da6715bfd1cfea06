// Host programs run by the behaviour tests.
#include "command_runner.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "server_fixture.h"

namespace {

std::vector<char*> argvOf(const std::vector<std::string>& argv) {
  std::vector<char*> list;
  for (const std::string& a : argv) list.push_back(const_cast<char*>(a.c_str()));
  list.push_back(nullptr);
  return list;
}

}  // namespace

CommandResult runCommand(const std::vector<std::string>& argv, const std::string& input,
                         int timeoutMs) {
  CommandResult result;
  int in[2], out[2], err[2];
  if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) {
    return result;
  }
  std::vector<char*> args = argvOf(argv);
  pid_t pid = fork();
  if (pid == 0) {
    dup2(in[0], 0);
    dup2(out[1], 1);
    dup2(err[1], 2);
    execv(args[0], args.data());
    _exit(127);
  }
  close(in[0]);
  close(out[1]);
  close(err[1]);
  if (!input.empty()) (void)!write(in[1], input.data(), input.size());
  close(in[1]);
  int64_t deadline = monotonicMs() + timeoutMs;
  int fds[2] = {out[0], err[0]};
  std::string* sinks[2] = {&result.out, &result.err};
  int open = 2;
  while (open > 0 && monotonicMs() < deadline) {
    struct pollfd pfd[2] = {{fds[0], POLLIN, 0}, {fds[1], POLLIN, 0}};
    if (poll(pfd, 2, 50) <= 0) continue;
    for (int k = 0; k < 2; ++k) {
      if (fds[k] < 0 || pfd[k].revents == 0) continue;
      char buf[4096];
      ssize_t n = read(fds[k], buf, sizeof buf);
      if (n > 0) {
        sinks[k]->append(buf, static_cast<size_t>(n));
      } else {
        close(fds[k]);
        fds[k] = -1;
        --open;
      }
    }
  }
  for (int fd : fds) {
    if (fd >= 0) close(fd);
  }
  int64_t left = deadline - monotonicMs();
  int status = waitExit(pid, left > 0 ? static_cast<int>(left) : 0);
  if (status == -1) {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    return result;
  }
  result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}

pid_t startCommand(const std::vector<std::string>& argv, int outFd) {
  std::vector<char*> args = argvOf(argv);
  pid_t pid = fork();
  if (pid == 0) {
    int devnull = open("/dev/null", O_RDONLY);
    dup2(devnull, 0);
    dup2(outFd, 1);
    dup2(outFd, 2);
    execv(args[0], args.data());
    _exit(127);
  }
  return pid;
}
