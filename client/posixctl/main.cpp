// posixctl's command line: one sub-command and its arguments.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>

#include <cstring>

#include "posixctl.h"

namespace posixctl {

namespace {

const char kHelp[] =
    "usage: posixctl COMMAND [ARG...]\n"
    "\n"
    "Controls the POSIX service server of the instance in the runtime directory RT\n"
    "($POSIX_RUNTIME_DIR, else $XDG_RUNTIME_DIR/posix, else /tmp/posix-<uid>). RT must be a\n"
    "directory of your own that group and others cannot use; posixctl refuses any other.\n"
    "\n"
    "  start [--server PATH]   start a server in the background (log: RT/server.log)\n"
    "  stop                    stop the background server (exit 0 also when none runs)\n"
    "  status                  'running (pid N)' and exit 0, or 'not running' and exit 1\n"
    "  run [--env NAME=VALUE]... [--] PROGRAM [ARG...]\n"
    "                          run PROGRAM through the server (starting one if needed) in\n"
    "                          posixctl's directory with its standard files (closed ones stay\n"
    "                          closed); Ctrl-C, quit, SIGTERM, SIGHUP go to the program's process\n"
    "                          group, a second one kills it; exit with its exit code\n"
    "                          (127: not found, 126: could not be executed)\n"
    "  kill [-s SIG | -SIG] PID...\n"
    "                          send SIG (default TERM, a request to end) to each PID\n"
    "  kill -l [SIG]           list the signals and what each does\n"
    "  killpg [-s SIG | -SIG] PGID\n"
    "                          send SIG (default 15) to group PGID (0: posixctl's own)\n"
    "  pgid PID                print the group of PID (0: posixctl itself)\n"
    "  ppid                    print posixctl's parent as the server knows it (0: none)\n"
    "  fds                     list posixctl's descriptor table as the server serialises it\n"
    "  fds PID [--json]        any process's descriptors: kind, offset and path, which pipe\n"
    "  ps [--json]             every process the server keeps, as a tree\n"
    "  pipes [--json]          every pipe: bytes buffered, who holds each end, who waits now\n"
    "  top [-n COUNT] [--json] requests per second and reply times per command, processes,\n"
    "                          threads, heap and descriptors, every second\n"
    "  monitor [--pid PID] [--command NAME] [--count N] [--data] [--json]\n"
    "                          every request as the server serves it (a monitor that falls\n"
    "                          behind loses lines and says how many); --data: the\n"
    "                          first 16 bytes of each request's data in hex\n"
    "  cat [--] PATH...        copy each file, read through the server, to standard output\n"
    "                          ('-': standard input)\n"
    "  help, --help            this text; COMMAND --help or help COMMAND: COMMAND's lines\n"
    "  --version               posixctl's version\n"
    "\n"
    "SIG is a number from 0 to 31 or a name: the system's own KILL (9), CHLD (16), CONT (17),\n"
    "STOP (18), and the requests HUP (1), INT (2), QUIT (3), USR1 (10), USR2 (12), ALRM (14),\n"
    "TERM (15). KILL, CONT and STOP act on any program. A program that uses the library\n"
    "receives every other signal; one the server started that does not use it gets the host's\n"
    "signal of a request's name instead. 0 only checks that PID exists (exit 0 or 1, silently).\n"
    "Options may also follow the operands, as in 'kill PID -9' (up to a '--').\n"
    "The server binary for start: --server PATH, $POSIX_SERVER_BIN, posix-server next to\n"
    "posixctl or in ../server relative to it, else PATH.\n";

}  // namespace

int usage(const std::string& text, const char* see) {
  fprintf(stderr, "posixctl: %s (see '%s')\n", text.c_str(), see);
  return kExitUsage;
}

namespace {

// Whether `args` of `cmd` ask for its help: "--help" or "-h" where an option may stand (for
// run, before the program; elsewhere anywhere before "--"). What
// follows run's program or "--" belongs to the program or names a file.
bool asksHelp(const std::string& cmd, const std::vector<std::string>& args) {
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    if (a == "--help" || a == "-h") return true;
    if (a == "--") return false;
    if (cmd == "run") {
      if (a == "--env") ++i;
      else if (a.rfind("--env=", 0) != 0) return false;  // the program: the rest is its own
    }
  }
  return false;
}

// The lines of the overview that describe `cmd` (and, for the signal commands, what SIG is).
void printCommandHelp(const std::string& cmd) {
  printf("usage: posixctl %s ...\n\n", cmd.c_str());
  std::string text = kHelp;
  bool inside = false;
  for (size_t at = 0; at < text.size();) {
    size_t end = text.find('\n', at);
    std::string line = text.substr(at, end - at);
    at = end + 1;
    bool continuation = line.rfind("                          ", 0) == 0;
    if (!continuation) inside = line.rfind("  " + cmd + " ", 0) == 0 || line == "  " + cmd;
    if (inside) printf("%s\n", line.c_str());
  }
  size_t sig = text.find("SIG is"), server = text.find("The server binary");
  if (cmd == "kill" || cmd == "killpg") printf("\n%s", text.substr(sig, server - sig).c_str());
  if (cmd == "start") printf("\n%s", text.substr(server).c_str());
}

}  // namespace

int failure(const std::string& what, int err) {
  fprintf(stderr, "posixctl: %s: %s\n", what.c_str(), strerror(err));
  return kExitFailure;
}

// "--name VALUE" taken out of `args` into *value; false when absent. *bad when VALUE is missing.
int noProcess(const char* command, int64_t pid) {
  fprintf(stderr, "posixctl: %s: no process %lld\n", command, static_cast<long long>(pid));
  return kExitFailure;
}

bool takeOption(std::vector<std::string>* args, const char* name, std::string* value, bool* bad) {
  for (size_t i = 0; i < args->size(); ++i) {
    if ((*args)[i] != name) continue;
    if (i + 1 >= args->size()) {
      *bad = true;
      return false;
    }
    *value = (*args)[i + 1];
    args->erase(args->begin() + static_cast<std::ptrdiff_t>(i), args->begin() + static_cast<std::ptrdiff_t>(i) + 2);
    return true;
  }
  return false;
}

bool takeFlag(std::vector<std::string>* args, const char* name) {
  for (size_t i = 0; i < args->size(); ++i) {
    if ((*args)[i] == name) {
      args->erase(args->begin() + static_cast<std::ptrdiff_t>(i));
      return true;
    }
  }
  return false;
}

bool parseInt(const char* s, int64_t* out) {
  if (s == nullptr || *s == '\0') return false;
  char* end = nullptr;
  errno = 0;
  long long v = strtoll(s, &end, 10);
  if (errno != 0 || *end != '\0') return false;
  *out = v;
  return true;
}

}  // namespace posixctl

int main(int argc, char** argv) {
  using namespace posixctl;
  if (argc < 2) {
    fputs(kHelp, stderr);
    return kExitUsage;
  }
  std::string cmd = argv[1];
  std::vector<std::string> args(argv + 2, argv + argc);
  // "help kill" is "kill --help"; "help --help" is help.
  if (cmd == "help" && args.size() == 1 && args[0] != "help" && args[0].rfind('-', 0) != 0) {
    cmd = args[0];
    args = {"--help"};
  } else if (cmd == "help" || cmd == "--help" || cmd == "-h") {
    fputs(kHelp, stdout);
    return kExitOk;
  }
  if (cmd == "--version" || cmd == "version") {
    printf("posixctl %s\n", POSIX_VERSION);
    return kExitOk;
  }
  if (cmd == "cat" && asksHelp(cmd, args)) return cmdCat({"--help"});
  if (asksHelp(cmd, args)) {
    static const char* const kCommands[] = {"start", "stop", "status", "run", "kill", "killpg",
                                            "pgid", "ppid", "fds", "ps", "pipes", "top", "monitor"};
    for (const char* known : kCommands) {
      if (cmd == known) {
        printCommandHelp(cmd);
        return kExitOk;
      }
    }
  }
  if (cmd == "start") return cmdStart(args);
  if (cmd == "stop") return cmdStop(args);
  if (cmd == "status") return cmdStatus(args);
  if (cmd == "run") return cmdRun(args);
  if (cmd == "kill") return cmdKill(args);
  if (cmd == "killpg") return cmdKillpg(args);
  if (cmd == "pgid") return cmdPgid(args);
  if (cmd == "ppid") return cmdPpid(args);
  if (cmd == "fds") return cmdFds(args);
  if (cmd == "cat") return cmdCat(args);
  if (cmd == "ps") return cmdPs(args);
  if (cmd == "pipes") return cmdPipes(args);
  if (cmd == "top") return cmdTop(args);
  if (cmd == "monitor") return cmdMonitor(args);
  return usage("unknown command '" + cmd + "'");
}
