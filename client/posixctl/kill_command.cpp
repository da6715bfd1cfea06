// posixctl kill and killpg, parsed like kill(1): "-s SIG", "-SIG", "-l [SIG]", "--", the options
// also after the operands as every posixctl command takes them. A SIG is
// a number from 0 to 31 or a name, with or without "SIG", in any case: the system's own
// signals (KILL 9, CHLD 16, CONT 17, STOP 18) and the requests a shell user types (HUP, INT,
// QUIT, USR1, USR2, ALRM, TERM), which carry the host's numbers because the system gives
// those numbers no meaning of its own.
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <strings.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "diag_client.h"
#include "posix_client.h"
#include "posixctl.h"

namespace posixctl {

namespace {

// TERM, a request to end: a program using the library receives it and may act on it; a
// program the server started that does not use the library gets the host's SIGTERM.
constexpr int kDefaultSignal = SIGTERM;

struct SignalName {
  int number;
  const char* name;
  const char* effect;
  int host;  // the host's signal of that name, given to a program the server started that
             // does not use the library; 0 when the system's own signal reaches any program
};

const SignalName kSignals[] = {
    {0, nullptr, "probe: exit 0 when the process exists, 1 when not; prints nothing", 0},
    {SIGHUP, "HUP", "request: the terminal went away", SIGHUP},
    {SIGINT, "INT", "request: interrupt (Ctrl-C)", SIGINT},
    {SIGQUIT, "QUIT", "request: quit (Ctrl-\\)", SIGQUIT},
    {PX_SIGKILL, "KILL", "ends the program at once (any program)", 0},
    {SIGUSR1, "USR1", "request: the program's own meaning", SIGUSR1},
    {SIGUSR2, "USR2", "request: the program's own meaning", SIGUSR2},
    {SIGALRM, "ALRM", "request: a timer ran out", SIGALRM},
    {SIGTERM, "TERM", "request: end (the default)", SIGTERM},
    {PX_SIGCHLD, "CHLD", "a child ended (the server sends it); only programs using the library", 0},
    {PX_SIGCONT, "CONT", "resumes a stopped program (any program)", 0},
    {PX_SIGSTOP, "STOP", "stops the program until CONT (any program)", 0},
};

const char kOtherSignals[] =
    "A request reaches a program that uses the library as that signal (px_sigwait); a program\n"
    "the server started that does not use it gets the host's signal of the same name, so\n"
    "'kill PID' ends it as a shell's kill would. Any other program gets only KILL, CONT and\n"
    "STOP. Every other number from 1 to 31 has no name: only programs that use the library\n"
    "receive it.\n";

// The host's signal given for `sig` to a started program that does not use the library; 0
// when there is none.
int hostSignalFor(int sig) {
  for (const SignalName& s : kSignals)
    if (s.number == sig) return s.host;
  return 0;
}

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

int listSignals(const std::vector<std::string>& args) {
  if (args.size() > 1) return usage("kill -l takes at most one SIG");
  if (!args.empty()) {  // one SIG: the name of a number, the number of a name
    int sig = parseSignal(args[0]);
    if (sig < 0) return usage("kill: unknown signal '" + args[0] + "'", "posixctl kill -l");
    int64_t given = 0;
    const char* name = nullptr;
    for (const SignalName& s : kSignals) {
      if (s.number == sig) name = s.name;
    }
    if (parseInt(args[0].c_str(), &given) && name != nullptr) {
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

// Takes the options out of `args` wherever they stand before "--", in front of the operands or
// after them as every posixctl command takes them ("kill -9 PID" and "kill PID -9" alike):
// *sig from "-s SIG", "-n SIG" or "-SIG", *list for "-l". The operands are left in
// *operands; false with *error set for a bad, missing or second signal. A PID never starts
// with '-', so nothing else before "--" can look like an option.
bool parseOptions(const std::vector<std::string>& args, int* sig, bool* list,
                  std::vector<std::string>* operands, std::string* error) {
  *sig = kDefaultSignal;
  *list = false;
  bool named = false;
  bool options = true;  // until "--"
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    if (!options || a.size() < 2 || a[0] != '-') {
      operands->push_back(a);
      continue;
    }
    if (a == "--") {
      options = false;
      continue;
    }
    if (a == "-l" || a == "-L") {
      *list = true;
      continue;
    }
    std::string name = a.substr(1);
    if (a == "-s" || a == "-n") {
      if (i + 1 >= args.size()) {
        *error = "-s needs a signal";
        return false;
      }
      name = args[++i];
    }
    if (named) {
      *error = "give one signal";
      return false;
    }
    named = true;
    *sig = parseSignal(name);
    if (*sig < 0) {
      *error = "unknown signal '" + name + "'";
      return false;
    }
  }
  if (*list && named) {
    *error = "-l takes a SIG as its operand, not as an option";
    return false;
  }
  return true;
}

// A number of a process or group: decimal digits only, no sign.
bool parseId(const std::string& text, int64_t* out) {
  if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) return false;
  return parseInt(text.c_str(), out);
}

// Whether a host process has `pid` (one we may not signal exists too).
bool hostHas(int64_t pid) {
  return kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM;
}

// Gives the host signal `host` to the process that has `pid` while the server knows it (in
// `group`, unless that is -1): the pidfd is taken before the server is asked, so a pid that
// ended and was reused in between is not signalled in its place (the pidfd's process is
// gone, and the send fails).
bool sendHostSignal(int64_t pid, int host, int64_t group = -1) {
  int pidfd = static_cast<int>(syscall(SYS_pidfd_open, static_cast<pid_t>(pid), 0));
  if (pidfd < 0) return false;
  int64_t known = px_getpgid(pid);
  bool sent = known >= 0 && (group < 0 || known == group) &&
              syscall(SYS_pidfd_send_signal, pidfd, host, nullptr, 0) == 0;
  close(pidfd);
  return sent;
}

// Signal 0: whether the process exists, as an exit code, printing nothing (but why the server
// could not be asked).
int probe(int64_t pid) {
  if (px_kill(pid, 0) == 0) return kExitOk;
  int err = errno;
  if (err != ESRCH) return callFailure("kill -0 " + std::to_string(pid), err);
  return px_getpgid(pid) >= 0 || hostHas(pid) ? kExitOk : kExitFailure;
}

// Signals one process: an exit code. The server answers "no such process" for a process that
// is not connected to it (a program that does not use the library) unless the signal acts on
// the host process (9, 17, 18). A program the server started (it knows its group) then gets
// the host's signal of the same name; any other is left alone.
int killOne(int64_t pid, int sig) {
  if (sig == 0) return probe(pid);
  std::string what = "kill " + std::to_string(pid);
  if (px_kill(pid, sig) == 0) return kExitOk;
  int err = errno;
  if (err != ESRCH) return callFailure(what, err);
  int host = hostSignalFor(sig);
  if (host != 0 && sendHostSignal(pid, host)) return kExitOk;
  if (px_getpgid(pid) < 0 && !hostHas(pid)) return noProcess("kill", pid);
  fprintf(stderr,
          "posixctl: %s: the server did not start it and it does not use the library, so signal "
          "%d cannot reach it (KILL, CONT and STOP can)\n",
          what.c_str(), sig);
  return kExitFailure;
}

}  // namespace

int cmdKill(const std::vector<std::string>& args) {
  int sig = 0;
  bool list = false;
  std::string error;
  std::vector<std::string> operands;
  if (!parseOptions(args, &sig, &list, &operands, &error)) return usage("kill: " + error, "posixctl kill -l");
  if (list) return listSignals(operands);
  if (operands.empty()) return usage("kill: no PID given");
  std::vector<int64_t> pids;
  for (const std::string& operand : operands) {
    int64_t pid = 0;
    if (!parseId(operand, &pid) || pid == 0) {
      return usage("kill: '" + operand + "' is not a PID (a positive number; killpg signals a group)");
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
  std::vector<std::string> operands;
  if (!parseOptions(args, &sig, &list, &operands, &error)) return usage("killpg: " + error, "posixctl kill -l");
  if (list) return listSignals(operands);
  if (operands.size() != 1) return usage("killpg: give one PGID");
  const std::string& text = operands[0];
  int64_t pgid = 0;
  if (!parseId(text, &pgid)) return usage("killpg: '" + text + "' is not a PGID (a number)");
  if (px_killpg(pgid, sig) != 0) return callFailure("killpg " + text, errno);
  int host = hostSignalFor(sig);
  if (host == 0) return kExitOk;
  // The server handed a request only to the members that use the library; the started
  // programs among the others get the host's signal, as kill gives it to one of them.
  int64_t group = pgid != 0 ? pgid : px_getpgid(0);
  DiagLink link;
  std::vector<ProcessView> all;
  int err = link.open();
  if (err == 0) err = link.processes(&all);
  if (err != 0 || group < 0) return callFailure("killpg " + text, err != 0 ? err : errno);
  for (const ProcessView& p : all) {
    const px_diag_process& r = p.record;
    if (r.state != PX_DIAG_RUNNING || static_cast<int64_t>(r.group) != group) continue;
    int64_t pid = static_cast<int64_t>(r.pid);
    if (px_kill(pid, 0) != 0 && errno == ESRCH) sendHostSignal(pid, host, group);
  }
  return kExitOk;
}

}  // namespace posixctl
