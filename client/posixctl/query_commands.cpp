// posixctl pgid and ppid: single questions to the server.
#include <errno.h>
#include <stdio.h>

#include "posix_client.h"
#include "posixctl.h"

namespace posixctl {

int cmdPgid(const std::vector<std::string>& args) {
  if (args.size() != 1) return usage("pgid needs one PID");
  const std::string& text = args[0];
  int64_t pid = 0;
  if (text.find_first_not_of("0123456789") != std::string::npos || !parseInt(text.c_str(), &pid)) {
    return usage("pgid: '" + text + "' is not a PID (a number; 0 is posixctl itself)");
  }
  int64_t group = px_getpgid(pid);
  if (group < 0 && errno == ESRCH) return noProcess("pgid", pid);
  if (group < 0) return callFailure("pgid " + text, errno);
  printf("%lld\n", static_cast<long long>(group));
  return kExitOk;
}

int cmdPpid(const std::vector<std::string>& args) {
  if (!args.empty()) return usage("ppid takes no arguments");
  int64_t parent = px_getppid();
  if (parent < 0) return callFailure("ppid", errno);
  printf("%lld\n", static_cast<long long>(parent));
  return kExitOk;
}

}  // namespace posixctl
