// Stopping the background server and asking whether one runs.
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <time.h>

#include "posix_client.h"
#include "posixctl.h"
#include "server_proc.h"

namespace posixctl {

namespace {

constexpr int kStopWaitMs = 10000;
constexpr int kKillWaitMs = 2000;

bool waitGone(pid_t pid, int ms) {
  for (int waited = 0; waited < ms; waited += 20) {
    if (!processAlive(pid)) return true;
    struct timespec ts = {0, 20 * 1000 * 1000};
    nanosleep(&ts, nullptr);
  }
  return !processAlive(pid);
}

}  // namespace

int cmdStop(const std::vector<std::string>& args) {
  if (!args.empty()) return usage("stop takes no arguments");
  // The server that answers is the one to stop; a pid file alone counts only while its
  // process still is this instance's server.
  int err = 0;
  pid_t target = static_cast<pid_t>(answeringServer(&err));
  if (target == 0 && err == EACCES) return callFailure("stop", err);
  if (target == 0) {
    pid_t recorded = readPidFile();
    if (recorded > 0 && serverOfInstance(recorded)) target = recorded;
  }
  if (target == 0) {
    removePidFile();
    printf("not running\n");
    return kExitOk;
  }
  if (kill(target, SIGTERM) != 0 && errno != ESRCH) return failure("kill", errno);
  if (!waitGone(target, kStopWaitMs)) {
    fprintf(stderr, "posixctl: the server (pid %d) did not stop; killing it\n", target);
    kill(target, SIGKILL);
    if (!waitGone(target, kKillWaitMs)) return failure("stop", ETIMEDOUT);
  }
  removePidFile();
  px_fini();
  printf("stopped (pid %d)\n", target);
  return kExitOk;
}

int cmdStatus(const std::vector<std::string>& args) {
  if (!args.empty()) return usage("status takes no arguments");
  int err = 0;
  int64_t pid = answeringServer(&err);
  if (pid > 0) {
    printf("running (pid %lld)\n", static_cast<long long>(pid));
    return kExitOk;
  }
  if (err == EACCES || err == ETIMEDOUT) return callFailure("status", err);
  printf("not running\n");
  return kExitFailure;
}

}  // namespace posixctl
