// posixctl kill, killpg, pgid and ppid: single requests to the server.
#include <errno.h>
#include <stdio.h>

#include "posix_client.h"
#include "posixctl.h"

namespace posixctl {

namespace {

// Reads "-s N" in front of the operands; answers the index of the first operand, or -1.
long parseSignalOption(const std::vector<std::string>& args, int* sig, std::string* error) {
  size_t i = 0;
  *sig = PX_SIGKILL;
  while (i < args.size()) {
    if (args[i] == "--") return static_cast<long>(i + 1);
    if (args[i] != "-s") break;
    int64_t v = 0;
    if (i + 1 >= args.size() || !parseInt(args[i + 1].c_str(), &v) || v < 0 || v >= PX_NSIG) {
      *error = "-s needs a signal number from 0 to 31";
      return -1;
    }
    *sig = static_cast<int>(v);
    i += 2;
  }
  return static_cast<long>(i);
}

}  // namespace

int cmdKill(const std::vector<std::string>& args) {
  int sig = 0;
  std::string error;
  long first = parseSignalOption(args, &sig, &error);
  if (first < 0) return usage("kill: " + error);
  if (static_cast<size_t>(first) >= args.size()) return usage("kill: no PID given");
  std::vector<int64_t> pids;
  for (size_t i = static_cast<size_t>(first); i < args.size(); ++i) {
    int64_t pid = 0;
    if (!parseInt(args[i].c_str(), &pid)) return usage("kill: bad PID '" + args[i] + "'");
    pids.push_back(pid);
  }
  int rc = kExitOk;
  for (int64_t pid : pids) {
    if (px_kill(pid, sig) != 0) rc = failure("kill " + std::to_string(pid), errno);
  }
  return rc;
}

int cmdKillpg(const std::vector<std::string>& args) {
  int sig = 0;
  std::string error;
  long first = parseSignalOption(args, &sig, &error);
  if (first < 0) return usage("killpg: " + error);
  if (static_cast<size_t>(first) + 1 != args.size()) return usage("killpg: give one PGID");
  int64_t pgid = 0;
  if (!parseInt(args[static_cast<size_t>(first)].c_str(), &pgid) || pgid < 0) {
    return usage("killpg: bad PGID '" + args[static_cast<size_t>(first)] + "'");
  }
  if (px_killpg(pgid, sig) != 0) return failure("killpg " + std::to_string(pgid), errno);
  return kExitOk;
}

int cmdPgid(const std::vector<std::string>& args) {
  int64_t pid = 0;
  if (args.size() != 1 || !parseInt(args[0].c_str(), &pid) || pid < 0) {
    return usage("pgid needs one PID");
  }
  int64_t group = px_getpgid(pid);
  if (group < 0) return failure("pgid " + args[0], errno);
  printf("%lld\n", static_cast<long long>(group));
  return kExitOk;
}

int cmdPpid(const std::vector<std::string>& args) {
  if (!args.empty()) return usage("ppid takes no arguments");
  int64_t parent = px_getppid();
  if (parent < 0) return failure("ppid", errno);
  printf("%lld\n", static_cast<long long>(parent));
  return kExitOk;
}

}  // namespace posixctl
