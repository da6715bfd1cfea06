// posixctl run: starts PROGRAM through the server with posixctl's own standard files and
// working directory, waits for it and exits with its exit code. The host signals that would
// end a program run directly from a shell (interrupt, quit, terminate, hang-up) are passed on
// to the program's host process group; a second one, or a program that has not ended five
// seconds after a terminate or hang-up, is killed through the server. The program is started
// by a forked leader, so that the group the server gives it is not posixctl's own.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstring>

#include "posix_client.h"
#include "posixctl.h"
#include "std_files.h"

#ifndef PIDFD_SIGNAL_PROCESS_GROUP
#define PIDFD_SIGNAL_PROCESS_GROUP (1U << 2)
#endif

extern char** environ;

namespace posixctl {

namespace {

constexpr int kKillAfterMs = 5000;

sigset_t forwardedSignals() {
  sigset_t set;
  sigemptyset(&set);
  for (int sig : {SIGINT, SIGQUIT, SIGTERM, SIGHUP}) sigaddset(&set, sig);
  return set;
}

// The program: its pid (its process group's id too) and a pidfd taken right after the start,
// which tells whether this is still the same process when its pid could have been reused.
struct Program {
  int64_t pid = 0;
  int pidfd = -1;
  pid_t leader = -1;  // the host process that started it (below)
};

bool ended(const Program& p) {
  struct pollfd pfd = {p.pidfd, POLLIN, 0};
  return poll(&pfd, 1, 0) == 1;
}

// Whether the leader (this process's child, so its pid is its own until it is collected) is
// stopped now; the stop is left for whoever waits for it.
bool leaderStopped(pid_t leader) {
  siginfo_t info{};
  return waitid(P_PID, static_cast<id_t>(leader), &info, WSTOPPED | WNOHANG | WNOWAIT) == 0 &&
         info.si_pid == leader && info.si_code == CLD_STOPPED;
}

void killThroughServer(const Program& p) {
  if (px_kill(p.pid, PX_SIGKILL) != 0 && errno != ESRCH) {
    fprintf(stderr, "posixctl: kill %lld: %s\n", static_cast<long long>(p.pid), strerror(errno));
  }
  // A leader stopped with its group collects the program once it runs again. One that runs
  // is not sent SIGCONT: it may be in its exit, where a stop-the-world of its own (a leak
  // check's) must not be woken from under it.
  if (p.leader > 0 && leaderStopped(p.leader)) kill(p.leader, SIGCONT);
}

// Sends `sig` to the program's process group while its leader lives; a group whose leader has
// ended is left alone (its number may belong to someone else by now). Killed through the
// server when posixctl may not signal it (the server runs as another user).
void signalGroup(const Program& p, int sig) {
  if (p.pidfd < 0) return killThroughServer(p);
  long rc = syscall(SYS_pidfd_send_signal, p.pidfd, sig, nullptr, PIDFD_SIGNAL_PROCESS_GROUP);
  if (rc != 0 && errno == EINVAL && !ended(p)) {  // a kernel without group signals by pidfd
    rc = kill(static_cast<pid_t>(-p.pid), sig);
  }
  if (rc != 0 && errno == EPERM) killThroughServer(p);
}

// Waits for the forwarded signals (blocked in every other thread) and passes them on.
void* forwardSignals(void* arg) {
  const Program& program = *static_cast<Program*>(arg);
  sigset_t set = forwardedSignals();
  int seen = 0;
  bool deadline = false;
  for (;;) {
    struct timespec wait = {kKillAfterMs / 1000, 0};
    int sig = sigtimedwait(&set, nullptr, deadline ? &wait : nullptr);
    if (sig < 0) {
      if (errno != EAGAIN) continue;
      killThroughServer(program);  // a terminate or hang-up was not obeyed in time
      deadline = false;
      continue;
    }
    if (++seen > 1) {
      killThroughServer(program);
      continue;
    }
    signalGroup(program, sig);
    deadline = sig == SIGTERM || sig == SIGHUP;
  }
  return nullptr;
}

// The exit code of a program that could not start, as a shell gives it: 127 when it was not
// found, 126 when it could not be executed; 1 when the server failed.
int startFailure(const std::string& program, int err) {
  const char* why = err == ETIMEDOUT ? "its start did not finish in time" : strerror(err);
  fprintf(stderr, "posixctl: cannot run %s: %s\n", program.c_str(), why);
  if (err == ENOENT) return 127;
  if (err == ECONNREFUSED || err == ECONNRESET || err == EPROTO) return kExitFailure;
  return 126;
}

// The leader's part: starts the program, reports its pid through `report` and waits for it;
// answers the exit code run gives.
int runJob(StdFiles& stdFiles, const std::vector<std::string>& extra,
           std::vector<std::string>& argvStore, int report) {
  std::vector<std::string> env;
  for (char** e = environ; *e != nullptr; ++e) env.push_back(*e);
  for (const std::string& p : extra) setEnvEntry(env, p);
  stdFiles.prepare(env);
  std::vector<char*> envp;
  for (std::string& e : env) envp.push_back(e.data());
  envp.push_back(nullptr);
  std::vector<char*> argv;
  for (std::string& a : argvStore) argv.push_back(a.data());
  argv.push_back(nullptr);

  int64_t child = px_spawn(argv[0], argv.data(), envp.data(), PX_SPAWN_SEARCH_PATH);
  int spawnError = errno;
  stdFiles.started();
  if (child < 0) return startFailure(argvStore[0], spawnError);
  if (write(report, &child, sizeof child) != sizeof child) {
    // posixctl has gone: the program runs on as the leader's child.
  }
  close(report);
  for (;;) {
    int status = 0;
    int64_t got = px_waitpid(child, &status, 0);
    if (got == child) {
      stdFiles.finish();
      return status & 0xFF;
    }
    if (got < 0 && errno == EINTR) continue;  // waits aborted: wait again
    return failure("wait", got < 0 ? errno : EPROTO);
  }
}

}  // namespace

void setEnvEntry(std::vector<std::string>& env, const std::string& entry) {
  std::string name = entry.substr(0, entry.find('=') + 1);
  for (std::string& e : env) {
    if (e.compare(0, name.size(), name) == 0) {
      e = entry;
      return;
    }
  }
  env.push_back(entry);
}

int cmdRun(const std::vector<std::string>& args) {
  StdFiles stdFiles;  // first: it occupies closed standard descriptors
  std::vector<std::string> extra;
  size_t i = 0;
  for (; i < args.size(); ++i) {
    const std::string& a = args[i];
    if (a == "--") {
      ++i;
      break;
    }
    std::string pair;
    if (a == "--env") {
      if (i + 1 >= args.size()) return usage("run: --env needs NAME=VALUE");
      pair = args[++i];
    } else if (a.rfind("--env=", 0) == 0) {
      pair = a.substr(6);
    } else if (a.size() > 1 && a[0] == '-') {
      return usage("run: unknown option '" + a + "'");
    } else {
      break;
    }
    if (pair.find('=') == std::string::npos || pair[0] == '=') {
      return usage("run: --env needs NAME=VALUE, got '" + pair + "'");
    }
    extra.push_back(pair);
  }
  if (i >= args.size()) return usage("run: no program given");

  int serverErr = 0;
  if (answeringServer(&serverErr) == 0) {
    // A runtime directory or server we may not trust is no reason to start another one.
    if (serverErr == EACCES) return callFailure("run", serverErr);
    fprintf(stderr, "posixctl: no server answers on %s; starting one\n", px_runtime_dir());
    int rc = startServer("", true);
    if (rc != kExitOk) return rc;
  }

  // Block the forwarded signals before the program exists and before the relays of its
  // standard files start, so that one that comes early stays pending until the forwarding
  // thread knows whom to pass it to.
  sigset_t set = forwardedSignals();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);

  // The server puts a started program into its starter's group. Started by posixctl itself, a
  // KILL or STOP to that group (posixctl killpg) would end or stop posixctl with it: the program
  // is started by a forked leader instead, which the server gives a group of its own, and
  // posixctl stays out of that group and keeps forwarding what it is sent.
  int report[2];
  if (pipe2(report, O_CLOEXEC) != 0) return failure("run", errno);
  fflush(nullptr);
  pid_t leader = fork();
  if (leader < 0) return failure("run", errno);
  if (leader == 0) {  // ends as posixctl would: the relays' records go with stdFiles
    close(report[0]);
    std::vector<std::string> program(args.begin() + static_cast<long>(i), args.end());
    return runJob(stdFiles, extra, program, report[1]);
  }
  close(report[1]);
  static Program program;  // read by the forwarding thread until posixctl ends
  program.leader = leader;
  if (read(report[0], &program.pid, sizeof program.pid) == sizeof program.pid) {
    program.pidfd = static_cast<int>(syscall(SYS_pidfd_open, static_cast<pid_t>(program.pid), 0));
    pthread_t forwarder;
    if (pthread_create(&forwarder, nullptr, forwardSignals, &program) == 0) pthread_detach(forwarder);
  }
  close(report[0]);
  int status = 0;
  while (waitpid(leader, &status, 0) < 0) {
    if (errno != EINTR) return failure("wait", errno);
  }
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  fprintf(stderr, "posixctl: run: the program's group was sent %s (its leader %d ended)\n",
          sigabbrev_np(WTERMSIG(status)) ? sigabbrev_np(WTERMSIG(status)) : "a signal",
          static_cast<int>(leader));
  return 128 + WTERMSIG(status);
}

}  // namespace posixctl
