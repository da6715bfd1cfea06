// Host programs run by the behaviour tests.
#include "command_runner.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "server_fixture.h"

pid_t startCommand(const std::vector<std::string>& argv, int outFd, int errFd, int inFd,
                   bool endWithCaller) {
  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  const pid_t caller = getpid();
  pid_t pid = fork();
  if (pid == 0) {
    // The caller may have gone between the fork and the prctl: then nobody would stop it.
    if (endWithCaller && (prctl(PR_SET_PDEATHSIG, SIGTERM) != 0 || getppid() != caller)) _exit(127);
    dup2(inFd >= 0 ? inFd : open("/dev/null", O_RDONLY), 0);
    dup2(outFd, 1);
    dup2(errFd >= 0 ? errFd : outFd, 2);
    execv(args[0], args.data());
    _exit(127);
  }
  return pid;
}

CommandResult runCommand(const std::vector<std::string>& argv, const std::string& input,
                         int timeoutMs) {
  CommandResult result;
  int in[2], out[2], err[2];
  if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) {
    return result;
  }
  pid_t pid = startCommand(argv, out[1], err[1], in[0]);
  close(in[0]);
  close(out[1]);
  close(err[1]);
  if (!input.empty()) (void)!write(in[1], input.data(), input.size());
  close(in[1]);
  int64_t deadline = monotonicMs() + timeoutMs;
  int fds[2] = {out[0], err[0]};
  std::string* sinks[2] = {&result.out, &result.err};
  while ((fds[0] >= 0 || fds[1] >= 0) && monotonicMs() < deadline) {
    struct pollfd pfd[2] = {{fds[0], POLLIN, 0}, {fds[1], POLLIN, 0}};
    if (poll(pfd, 2, 50) <= 0) continue;
    for (int k = 0; k < 2; ++k) {
      char buf[4096];
      ssize_t n = pfd[k].revents == 0 ? 0 : read(fds[k], buf, sizeof buf);
      if (n > 0) sinks[k]->append(buf, static_cast<size_t>(n));
      if (n <= 0 && pfd[k].revents != 0) {
        close(fds[k]);
        fds[k] = -1;
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

CommandResult ctl(std::vector<std::string> args, const std::string& input) {
  args.insert(args.begin(), POSIXCTL_BINARY);
  return runCommand(args, input);
}
