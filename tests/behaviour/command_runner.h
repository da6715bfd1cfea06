// Running host programs (posixctl, a server) from the behaviour tests, bounded in time.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

struct CommandResult {
  int exitCode = -1;  // -1: it did not end in time (it was killed) or a signal ended it
  std::string out;
  std::string err;
};

// Runs argv[0] (a path) with `input` on its standard input; captures output and error.
CommandResult runCommand(const std::vector<std::string>& argv, const std::string& input = "",
                         int timeoutMs = 20000);

// Runs posixctl with `args` (bounded as runCommand).
CommandResult ctl(std::vector<std::string> args, const std::string& input = "");

// Starts argv[0] with standard output on `outFd`, standard error on `errFd` (`outFd` when
// negative) and standard input from `inFd` (/dev/null when negative); answers its pid. The
// caller waits for it. With `endWithCaller` it gets SIGTERM when the calling thread ends, so
// that a test process that dies before its clean-up (a sanitizer's abort) leaves it not running.
pid_t startCommand(const std::vector<std::string>& argv, int outFd, int errFd = -1,
                   int inFd = -1, bool endWithCaller = false);
