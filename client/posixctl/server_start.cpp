// Starting a server in the background: find the binary, detach it (its own session, standard
// input /dev/null, output appended to RT/server.log), record its pid in RT/server.pid and wait
// until it answers.
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <linux/close_range.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstring>

#include "posix_client.h"
#include "posixctl.h"
#include "server_proc.h"

namespace posixctl {

namespace {

constexpr int kStartWaitMs = 10000;

bool executable(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && access(path.c_str(), X_OK) == 0;
}

std::string findServerBinary(const std::string& given) {
  if (!given.empty()) return given;
  const char* env = getenv("POSIX_SERVER_BIN");
  if (env != nullptr && env[0] != '\0') return env;
  char self[PATH_MAX];
  ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  if (n > 0) {
    self[n] = '\0';
    std::string dir(self);
    dir.erase(dir.rfind('/'));
    for (const std::string& c : {dir + "/posix-server", dir + "/../server/posix-server"}) {
      if (executable(c)) return c;
    }
  }
  const char* path = getenv("PATH");
  std::string rest = path != nullptr ? path : "";
  while (!rest.empty()) {
    size_t colon = rest.find(':');
    std::string d = rest.substr(0, colon);
    rest = colon == std::string::npos ? "" : rest.substr(colon + 1);
    if (!d.empty() && executable(d + "/posix-server")) return d + "/posix-server";
  }
  return "";
}

// mkdir -p, new directories private to the user.
int makeDirs(const std::string& path) {
  for (size_t at = 1; at <= path.size(); ++at) {
    if (at != path.size() && path[at] != '/') continue;
    std::string part = path.substr(0, at);
    if (mkdir(part.c_str(), 0700) != 0 && errno != EEXIST) return errno;
  }
  return 0;
}

// Forks twice so that the server belongs to no shell and is nobody's child here. Answers the
// server's pid, or 0 with *err set.
// A pipe whose ends are above 2, so that the server's standard files never replace them.
int makePipe(int ends[2]) {
  if (pipe2(ends, O_CLOEXEC) != 0) return errno;
  ends[0] = aboveStandardFds(ends[0]);
  ends[1] = aboveStandardFds(ends[1]);
  if (ends[0] >= 0 && ends[1] >= 0) return 0;
  int err = errno;
  if (ends[0] >= 0) close(ends[0]);
  if (ends[1] >= 0) close(ends[1]);
  return err;
}

pid_t launch(const std::string& binary, const std::string& rt, int logFd, int* err) {
  int pidPipe[2], execPipe[2];
  if ((*err = makePipe(pidPipe)) != 0) return 0;
  if ((*err = makePipe(execPipe)) != 0) {
    close(pidPipe[0]);
    close(pidPipe[1]);
    return 0;
  }
  pid_t middle = fork();
  if (middle == 0) {
    setsid();
    pid_t server = fork();
    if (server == 0) {
      int devnull = open("/dev/null", O_RDONLY);
      dup2(devnull, 0);
      dup2(logFd, 1);
      dup2(logFd, 2);
      // The server starts with its standard files only: nothing posixctl inherited or opened
      // (the exec pipe goes at the exec, as it should) reaches it or the programs it starts.
      close_range(3, ~0U, CLOSE_RANGE_CLOEXEC);
      setenv("POSIX_RUNTIME_DIR", rt.c_str(), 1);
      execl(binary.c_str(), binary.c_str(), static_cast<char*>(nullptr));
      int e = errno;
      (void)!write(execPipe[1], &e, sizeof e);
      _exit(127);
    }
    (void)!write(pidPipe[1], &server, sizeof server);
    _exit(server > 0 ? 0 : 1);
  }
  close(pidPipe[1]);
  close(execPipe[1]);
  pid_t server = 0;
  if (middle > 0) {
    waitpid(middle, nullptr, 0);
    if (read(pidPipe[0], &server, sizeof server) != static_cast<ssize_t>(sizeof server)) server = 0;
  }
  int execErr = 0;
  // The exec pipe closes on a successful exec; a failed one sends errno first.
  if (server > 0 && read(execPipe[0], &execErr, sizeof execErr) == sizeof execErr) server = 0;
  close(pidPipe[0]);
  close(execPipe[0]);
  if (middle < 0) *err = errno;
  if (server <= 0) *err = execErr != 0 ? execErr : (*err != 0 ? *err : ECHILD);
  return server > 0 ? server : 0;
}

}  // namespace

int startServer(const std::string& serverPath, bool quiet) {
  int err = 0;
  int64_t running = answeringServer(&err);
  if (running > 0) {
    if (!quiet) printf("already running (pid %lld)\n", static_cast<long long>(running));
    return kExitOk;
  }
  if (err == EACCES || err == ETIMEDOUT) return callFailure("start", err);
  std::string binary = findServerBinary(serverPath);
  if (binary.empty()) return failure("cannot find posix-server (use --server PATH)", ENOENT);
  std::string rt = px_runtime_dir();
  err = makeDirs(rt);
  if (err != 0) return failure(rt, err);
  // Files are made only in a directory of our own, and never through a link planted there.
  std::string error;
  int rtFd = openRuntimeDir(&error);
  if (rtFd < 0) {
    fprintf(stderr, "posixctl: start: %s\n", error.c_str());
    return kExitFailure;
  }
  std::string logPath = rt + "/server.log";
  int logFd = aboveStandardFds(
      openat(rtFd, "server.log", O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (logFd < 0) {
    err = errno;
    close(rtFd);
    return failure(logPath, err);
  }
  pid_t pid = launch(binary, rt, logFd, &err);
  close(logFd);
  if (pid != 0) writePidFile(rtFd, pid);
  close(rtFd);
  if (pid == 0) return failure("cannot start " + binary, err);

  for (int waited = 0; waited < kStartWaitMs; waited += 20) {
    if (answeringServer() > 0) {
      if (!quiet) printf("started (pid %lld)\n", static_cast<long long>(pid));
      return kExitOk;
    }
    if (!processAlive(pid)) {
      removePidFile();
      fprintf(stderr, "posixctl: the server exited at once; see %s\n", logPath.c_str());
      return kExitFailure;
    }
    struct timespec ts = {0, 20 * 1000 * 1000};
    nanosleep(&ts, nullptr);
  }
  fprintf(stderr, "posixctl: the server (pid %d) did not answer within %d s; see %s\n", pid,
          kStartWaitMs / 1000, logPath.c_str());
  return kExitFailure;
}

int cmdStart(const std::vector<std::string>& args) {
  std::string server;
  for (size_t i = 0; i < args.size(); ++i) {
    if (args[i] == "--server" && i + 1 < args.size()) {
      server = args[++i];
    } else if (args[i].rfind("--server=", 0) == 0) {
      server = args[i].substr(9);
    } else {
      return usage("start: unexpected argument '" + args[i] + "'");
    }
  }
  return startServer(server, false);
}

}  // namespace posixctl
