// Who a process is (its pid and a serial the host gives it alone), and host signals that reach
// a process only while its pid still names it.
//
// A pidfd pins the process that had the pid when it was opened. Its inode number is that
// process's serial where pidfds live in a file system of their own; elsewhere the start time
// read after opening the pidfd stands in: if the process meant was alive when the pidfd was
// opened, the pidfd is that process, and a start time read later matches only while the pid
// has not passed to another.
#include "identity.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/error.h"
#include "platform/proc.h"

namespace {

// Called through syscall(): the C library's own declarations are not usable from C++ everywhere.
int pidfdOpen(pid_t pid) { return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0u)); }
int pidfdSendSignal(int pidfd, int sig) {
  return static_cast<int>(::syscall(SYS_pidfd_send_signal, pidfd, sig, nullptr, 0u));
}

}  // namespace

namespace ProcIdentityRead {

bool startTime(uint64_t pid, uint64_t* start) {
  char path[48];
  std::snprintf(path, sizeof path, "/proc/%llu/stat", static_cast<unsigned long long>(pid));
  int fd = ::open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  char text[1024];
  ssize_t n;
  do {
    n = ::read(fd, text, sizeof text - 1);
  } while (n < 0 && errno == EINTR);
  ::close(fd);
  if (n <= 0) return false;
  text[n] = '\0';
  // "<pid> (<name>) <state> ...": the name may hold blanks and ')', so fields are counted from
  // the last ')'. Fields 3 to 21 come before the start time.
  const char* at = std::strrchr(text, ')');
  if (!at) return false;
  ++at;
  for (int field = 3; field < 22; ++field) {
    while (*at == ' ') ++at;
    while (*at && *at != ' ') ++at;
    if (!*at) return false;
  }
  char* end = nullptr;
  unsigned long long value = std::strtoull(at, &end, 10);
  if (end == at) return false;
  *start = value;
  return true;
}

int openPidfd(uint64_t pid) {
  // 0 and anything that is no positive pid_t would name groups or every process elsewhere.
  if (pid == 0 || pid > static_cast<uint64_t>(INT32_MAX)) {
    errno = ESRCH;
    return -1;
  }
  return pidfdOpen(static_cast<pid_t>(pid));
}

bool pidfdSerials() {
  // The magic number of the pidfd file system (PID_FS_MAGIC).
  constexpr unsigned long kPidFs = 0x50494446;
  static const bool own = [] {
    int pidfd = pidfdOpen(::getpid());
    struct statfs fs {};
    bool yes = pidfd >= 0 && ::fstatfs(pidfd, &fs) == 0 && static_cast<unsigned long>(fs.f_type) == kPidFs;
    if (pidfd >= 0) ::close(pidfd);
    return yes;
  }();
  return own;
}

bool serialOf(int pidfd, uint64_t pid, uint64_t* serial) {
  if (!pidfdSerials()) return startTime(pid, serial);
  struct stat st {};
  if (::fstat(pidfd, &st) != 0) return false;
  *serial = static_cast<uint64_t>(st.st_ino);
  return true;
}

bool hasEnded(int pidfd) {
  pollfd p{pidfd, POLLIN, 0};
  return ::poll(&p, 1, 0) != 0;  // an error counts as ended: nothing can be said for it
}

}  // namespace ProcIdentityRead

using namespace ProcIdentityRead;

namespace {

// Whether the start tick read from the clock around a program's start (started.h) is what
// /proc tells: unknown until the first such start has been checked against /proc.
enum class Trust { kUnknown, kTrusted, kDistrusted };
std::atomic<Trust> g_clockStart{Trust::kUnknown};

}  // namespace

ProcIdentity Proc::identity(uint64_t pid) {
  int pidfd = openPidfd(pid);
  if (pidfd < 0) return {};
  uint64_t serial = 0;
  bool known = serialOf(pidfd, pid, &serial);
  ::close(pidfd);
  return known ? ProcIdentity{pid, serial} : ProcIdentity{};
}

ProcIdentity Proc::identity(const StartedProgram& program) {
  const uint64_t pid = program.pid_;
  if (pid == 0) return {};
  // Where the serial is a start time, the start tick is known from the clock read around the
  // start, without waiting for /proc, which answers only once the program's exec has gone far
  // enough (some 60 us). The first such start is checked against /proc.
  if (!pidfdSerials() && program.startTick_ != 0) {
    Trust trust = g_clockStart.load(std::memory_order_relaxed);
    if (trust == Trust::kTrusted) return ProcIdentity{pid, program.startTick_};
    uint64_t start = 0;
    if (trust == Trust::kUnknown && startTime(pid, &start)) {
      g_clockStart.store(start == program.startTick_ ? Trust::kTrusted : Trust::kDistrusted,
                         std::memory_order_relaxed);
      return ProcIdentity{pid, start};
    }
  }
  if (program.pidfd_ < 0) return identity(pid);
  uint64_t serial = 0;
  return serialOf(program.pidfd_, pid, &serial) ? ProcIdentity{pid, serial} : ProcIdentity{};
}

bool Proc::send(const ProcIdentity& who, HostSignal what, bool withGroup) {
  if (who.pid == current()) {
    Error::set(EPERM);
    return false;
  }
  int pidfd = openPidfd(who.pid);
  if (pidfd < 0) {
    Error::set(ESRCH);  // gone, or a thread id: either way no process of that identity
    return false;
  }
  const int sig = what == HostSignal::Kill ? SIGKILL : what == HostSignal::Stop ? SIGSTOP : SIGCONT;
  uint64_t serial = 0;
  bool sent = false;
  if (!serialOf(pidfd, who.pid, &serial) || serial != who.serial) {
    Error::set(ESRCH);
  } else {
    // The group first, so that what the leader started cannot slip away while it stops or dies.
    // It may be gone or never have existed (the leader joined another group): nothing to do.
    if (withGroup) ::kill(-static_cast<pid_t>(who.pid), sig);
    sent = pidfdSendSignal(pidfd, sig) == 0;
    if (!sent) Error::set(static_cast<uint32_t>(errno));
  }
  ::close(pidfd);
  return sent;
}

uint32_t Proc::levelOfUser(uint64_t uid) { return uid == 0 ? 1 : 0; }

uint64_t Proc::uid() { return static_cast<uint64_t>(::getuid()); }
