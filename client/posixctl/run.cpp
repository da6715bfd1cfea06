// posixctl run: starts PROGRAM through the server with posixctl's own standard files, waits
// for it and exits with its exit code. SIGINT and SIGTERM kill the program through the server.
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <unistd.h>

#include <atomic>
#include <cstring>

#include "posix_client.h"
#include "posixctl.h"
#include "std_files.h"

extern char** environ;

namespace posixctl {

namespace {

std::atomic<int64_t> runningChild{0};

// Waits for SIGINT/SIGTERM (blocked in every other thread) and kills the program.
void* forwardSignals(void*) {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  for (;;) {
    int sig = 0;
    if (sigwait(&set, &sig) != 0) continue;
    int64_t child = runningChild.load();
    if (child > 0 && px_kill(child, PX_SIGKILL) != 0) {
      fprintf(stderr, "posixctl: kill %lld: %s\n", static_cast<long long>(child), strerror(errno));
    }
  }
  return nullptr;
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

  if (answeringServer() == 0) {
    fprintf(stderr, "posixctl: no server answers on %s; starting one\n", px_runtime_dir());
    int rc = startServer("", true);
    if (rc != kExitOk) return rc;
  }

  // Block the two signals before the program exists and before the relays of its standard
  // files start, so that one that comes early stays pending until the forwarding thread
  // knows whom to kill.
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);

  std::vector<std::string> env;
  for (char** e = environ; *e != nullptr; ++e) env.push_back(*e);
  for (const std::string& p : extra) setEnvEntry(env, p);
  StdFiles stdFiles;
  stdFiles.prepare(env);
  std::vector<char*> envp;
  for (std::string& e : env) envp.push_back(e.data());
  envp.push_back(nullptr);
  std::vector<std::string> argvStore(args.begin() + static_cast<long>(i), args.end());
  std::vector<char*> argv;
  for (std::string& a : argvStore) argv.push_back(a.data());
  argv.push_back(nullptr);

  int64_t child = px_spawn(argv[0], argv.data(), envp.data(), PX_SPAWN_SEARCH_PATH);
  int spawnError = errno;
  stdFiles.started();
  if (child < 0) return failure("cannot run " + argvStore[0], spawnError);
  runningChild.store(child);
  pthread_t forwarder;
  if (pthread_create(&forwarder, nullptr, forwardSignals, nullptr) == 0) pthread_detach(forwarder);

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

}  // namespace posixctl
