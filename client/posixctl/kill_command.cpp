// posixctl kill and killpg, parsed like kill(1): "-s SIG", "-SIG", "-l [SIG]", "--". A SIG is
// a number from 0 to 31 or the name of one of the system's signals (KILL, CHLD, CONT, STOP,
// with or without "SIG", in any case).
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <strings.h>

#include "posix_client.h"
#include "posixctl.h"

namespace posixctl {

namespace {

// A request to end that a program using the library receives and may act on; it never ends a
// program on its own (the system has no such signal, so nothing is killed without asking).
constexpr int kDefaultSignal = 15;

struct SignalName {
  int number;
  const char* name;
  const char* effect;
};

const SignalName kSignals[] = {
    {0, nullptr, "probe: checks that the process exists and may be signalled"},
    {PX_SIGKILL, "KILL", "ends the program at once (any program)"},
    {PX_SIGCHLD, "CHLD", "a child ended (the server sends it); only programs using the library"},
    {PX_SIGCONT, "CONT", "resumes a stopped program (any program)"},
    {PX_SIGSTOP, "STOP", "stops the program until CONT (any program)"},
};

const char kOtherSignals[] =
    "Every other number from 1 to 31 has no name and no action of its own: a program that uses\n"
    "the library receives it (px_sigwait); a program that does not is not signalled (\"does not\n"
    "use the library\"). The default signal, 15, is such a request to end.\n";

// SIG as a number or a name; -1 when it is neither.
int parseSignal(const std::string& text) {
  int64_t number = 0;
  if (parseInt(text.c_str(), &number)) {
    return number >= 0 && number < PX_NSIG ? static_cast<int>(number) : -1;
  }
  const char* name = text.c_str();
  if (strncasecmp(name, "SIG", 3) == 0) name += 3;
  for (const SignalName& s : kSignals) {
    if (s.name != nullptr && strcasecmp(name, s.name) == 0) return s.number;
  }
  return -1;
}

}  // namespace

std::string signalList(uint32_t mask) {
  std::string out;
  for (int sig = 1; sig <= 32; ++sig) {
    if ((mask & (uint32_t{1} << (sig - 1))) == 0) continue;
    std::string name = std::to_string(sig);
    for (const SignalName& s : kSignals)
      if (s.number == sig && s.name != nullptr) name = s.name;
    if (!out.empty()) out += ',';
    out += name;
  }
  return out.empty() ? "-" : out;
}

namespace {

int listSignals(const std::vector<std::string>& args, size_t from) {
  if (from + 1 < args.size()) return usage("kill -l takes at most one SIG");
  if (from < args.size()) {  // one SIG: the name of a number, the number of a name
    int sig = parseSignal(args[from]);
    if (sig < 0) return usage("kill: unknown signal '" + args[from] + "'");
    int64_t given = 0;
    const char* name = nullptr;
    for (const SignalName& s : kSignals) {
      if (s.number == sig) name = s.name;
    }
    if (parseInt(args[from].c_str(), &given) && name != nullptr) {
      printf("%s\n", name);
    } else {
      printf("%d\n", sig);
    }
    return kExitOk;
  }
  for (const SignalName& s : kSignals) {
    printf("%2d %-4s  %s\n", s.number, s.name != nullptr ? s.name : "", s.effect);
  }
  fputs(kOtherSignals, stdout);
  return kExitOk;
}

// Reads the options in front of the operands into *sig (or *list for -l, whose operands
// follow): the index of the first operand, or -1 with *error set.
long parseOptions(const std::vector<std::string>& args, int* sig, bool* list, std::string* error) {
  *sig = kDefaultSignal;
  *list = args.size() > 0 && (args[0] == "-l" || args[0] == "-L");
  if (*list) return 1;
  size_t i = 0;
  std::string name;
  if (i < args.size() && (args[i] == "-s" || args[i] == "-n")) {
    if (i + 1 >= args.size()) {
      *error = "-s needs a signal";
      return -1;
    }
    name = args[i + 1];
    i += 2;
  } else if (i < args.size() && args[i].size() > 1 && args[i][0] == '-' && args[i] != "--") {
    name = args[i].substr(1);
    ++i;
  }
  if (!name.empty() || i > 0) {
    *sig = parseSignal(name);
    if (*sig < 0) {
      *error = "unknown signal '" + name + "' (see 'posixctl kill -l')";
      return -1;
    }
  }
  if (i < args.size() && args[i] == "--") ++i;
  return static_cast<long>(i);
}

// A number of a process or group: decimal digits only, no sign.
bool parseId(const std::string& text, int64_t* out) {
  if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) return false;
  return parseInt(text.c_str(), out);
}

// Signals one process: an exit code. The server answers "no such process" for a process that
// is not connected to it (a program that does not use the library) unless the signal acts on
// the host process (9, 17, 18); its group tells whether it is a process the server knows.
int killOne(int64_t pid, int sig) {
  std::string what = "kill " + std::to_string(pid);
  if (px_kill(pid, sig) == 0) return kExitOk;
  int err = errno;
  if (err != ESRCH) return callFailure(what, err);
  bool known = px_getpgid(pid) >= 0;
  if (known && sig == 0) return kExitOk;  // a program the server started: it exists
  if (!known && kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH) return failure(what, ESRCH);
  fprintf(stderr,
          "posixctl: %s: the process does not use the library, so signal %d cannot reach it "
          "(KILL, CONT and STOP can)\n",
          what.c_str(), sig);
  return kExitFailure;
}

}  // namespace

int cmdKill(const std::vector<std::string>& args) {
  int sig = 0;
  bool list = false;
  std::string error;
  long first = parseOptions(args, &sig, &list, &error);
  if (first < 0) return usage("kill: " + error);
  if (list) return listSignals(args, static_cast<size_t>(first));
  if (static_cast<size_t>(first) >= args.size()) return usage("kill: no PID given");
  std::vector<int64_t> pids;
  for (size_t i = static_cast<size_t>(first); i < args.size(); ++i) {
    int64_t pid = 0;
    if (!parseId(args[i], &pid) || pid == 0) {
      return usage("kill: '" + args[i] + "' is not a PID (a positive number; killpg signals a group)");
    }
    pids.push_back(pid);
  }
  int rc = kExitOk;
  for (int64_t pid : pids) {
    if (killOne(pid, sig) != kExitOk) rc = kExitFailure;
  }
  return rc;
}

int cmdKillpg(const std::vector<std::string>& args) {
  int sig = 0;
  bool list = false;
  std::string error;
  long first = parseOptions(args, &sig, &list, &error);
  if (first < 0) return usage("killpg: " + error);
  if (list) return listSignals(args, static_cast<size_t>(first));
  if (static_cast<size_t>(first) + 1 != args.size()) return usage("killpg: give one PGID");
  const std::string& text = args[static_cast<size_t>(first)];
  int64_t pgid = 0;
  if (!parseId(text, &pgid)) return usage("killpg: '" + text + "' is not a PGID (a number)");
  if (px_killpg(pgid, sig) != 0) return callFailure("killpg " + text, errno);
  return kExitOk;
}

}  // namespace posixctl
