// Waiting for a started program: for its end alone, which leaves it uncollected (its pid and
// its process group stay its own), or for its end and its collection.
#include <sys/wait.h>

#include <cerrno>

#include "platform/error.h"
#include "platform/proc.h"

namespace {

constexpr uint32_t kNoStatus = 0xFFFFFFFFu;

// waitid for `pid` with `options`; false with Error set.
bool waitFor(uint64_t pid, int options, siginfo_t* info) {
  if (pid == 0) {
    Error::set(ECHILD);
    return false;
  }
  int rc;
  do {
    info->si_pid = 0;
    rc = ::waitid(P_PID, static_cast<id_t>(pid), info, WEXITED | options);
  } while (rc < 0 && errno == EINTR);
  if (rc < 0) Error::set(static_cast<uint32_t>(errno));
  return rc == 0;
}

uint32_t exitStatus(const siginfo_t& info) {
  switch (info.si_code) {
    case CLD_EXITED: return static_cast<uint32_t>(info.si_status) & 0xFF;
    case CLD_KILLED:
    case CLD_DUMPED: return 128u + static_cast<uint32_t>(info.si_status);
    default: return kNoStatus;
  }
}

}  // namespace

uint32_t Proc::awaitEnd(const StartedProgram& program) {
  siginfo_t info{};
  return waitFor(program.pid_, WNOWAIT, &info) ? exitStatus(info) : kNoStatus;
}

uint32_t Proc::wait(StartedProgram& program) {
  siginfo_t info{};
  if (!waitFor(program.pid_, 0, &info)) return kNoStatus;
  program.pid_ = 0;  // collected: a second wait has nothing to wait for
  program.dropPidfd();
  return exitStatus(info);
}
