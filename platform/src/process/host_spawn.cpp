// The child of a start runs in the server's memory until its exec: it calls nothing but the
// host (no allocation, no lock, nothing a sanitizer watches), and every signal stays blocked
// until all handlers are back at their defaults, so that no handler of the server runs in it.
// Only the actions that are not the default are set back (alteredSignals).
#include "host_spawn.h"

#include <fcntl.h>
#include <limits.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <mutex>

#include "platform/proc.h"

#ifndef CLONE_PIDFD
#define CLONE_PIDFD 0x00001000
#endif

// The C library's clone under its own name: sanitizers replace clone() with a version that
// treats the child as a forked process with memory of its own, which this child has not.
extern "C" int __clone(int (*fn)(void*), void* stack, int flags, void* arg, ...);

namespace {

// The child's stack: it holds one frame and the host calls' own; a start's arguments and
// environment stay where the parent keeps them.
constexpr size_t kStackSize = 64 * 1024;
// The host's numbers of signals run from 1 below this.
constexpr int kSignals = 65;

// The host's form of a signal action (rt_sigaction takes this, not the C library's).
struct HostAction {
  void* handler;
  unsigned long flags;
  void* restorer;
  uint64_t mask;
};

// Bit sig - 1 of a signal mask.
constexpr uint64_t bit(int sig) { return uint64_t{1} << (sig - 1); }
// The C library's own signals (cancellation and set-id): it may come to handle them at any
// time, without the platform knowing, so a child always sets them back.
constexpr uint64_t kLibrarySignals = bit(32) | bit(33);

// Changed whenever the platform changes a signal's action (Proc::signalActionsChanged).
std::atomic<uint32_t> g_actionsGeneration{1};

// The signals whose action in this process is not the default, as the host last told them:
// asked once, and again after the platform changed an action. A child sets back only these
// (and kLibrarySignals): asking for all 62 in every child would cost a start tens of
// microseconds, and nothing but the platform changes the server's actions once it serves.
uint64_t alteredSignals() {
  static std::mutex mutex;
  static uint32_t askedAt = 0;  // guarded by mutex: the generation the mask was asked at
  static uint64_t mask = 0;     // guarded by mutex
  const uint32_t now = g_actionsGeneration.load(std::memory_order_acquire);
  std::lock_guard lock(mutex);
  if (askedAt != now) {
    uint64_t altered = 0;
    for (int sig = 1; sig < kSignals; ++sig) {
      HostAction action{};
      if (sig != SIGKILL && sig != SIGSTOP &&
          (::syscall(SYS_rt_sigaction, sig, nullptr, &action, sizeof(uint64_t)) != 0 ||
           action.handler != nullptr)) {
        altered |= bit(sig);  // handled or ignored (or not told: set back too)
      }
    }
    mask = altered;
    askedAt = now;
  }
  return mask | kLibrarySignals;
}

struct Child {
  const SpawnPlan* plan;
  uint64_t altered;  // the signals to set back to their default action
  long openMax;  // where the host cannot close a range: every number below this is closed
  volatile int error;  // set by the child when a step or the exec failed
};

// The stack this thread's children run on: mapped at its first start, unmapped when the
// thread ends.
struct ChildStack {
  void* base = nullptr;
  ~ChildStack() {
    if (base) ::munmap(base, kStackSize);
  }
  char* top() {
    if (!base) {
      void* map = ::mmap(nullptr, kStackSize, PROT_READ | PROT_WRITE,
                         MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
      if (map == MAP_FAILED) return nullptr;
      base = map;
    }
    return static_cast<char*>(base) + kStackSize;
  }
};
thread_local ChildStack t_stack;

#define POSIX_UNWATCHED __attribute__((no_sanitize("address", "thread", "undefined")))

// A host call, as the child makes it: the negated errno value on failure.
POSIX_UNWATCHED long host(long number, long a = 0, long b = 0, long c = 0, long d = 0,
                          long e = 0) {
  long rc = ::syscall(number, a, b, c, d, e);
  return rc < 0 ? -errno : rc;
}

// Closes every descriptor above 2 but `keep` (the program's file, which closes at exec).
POSIX_UNWATCHED long closeAbove2(int keep, long openMax) {
  long rc = keep > 3 ? host(SYS_close_range, 3, keep - 1, 0) : 0;
  if (rc >= 0) rc = host(SYS_close_range, keep + 1, ~0u, 0);
  if (rc != -ENOSYS) return rc;
  for (long fd = 3; fd < openMax; ++fd) {
    if (fd != keep) host(SYS_close, fd);
  }
  return 0;
}

// Execs the program's file. A script is run by its interpreter, which opens it by name, and a
// file handed over as a descriptor that closes at exec has none: the host refuses it with
// ENOENT. Such a file is exec'd by the absolute name the host gives it instead.
POSIX_UNWATCHED long execProgram(const SpawnPlan& plan) {
  long rc = host(SYS_execveat, plan.program, reinterpret_cast<long>(""),
                 reinterpret_cast<long>(plan.argv), reinterpret_cast<long>(plan.envp),
                 AT_EMPTY_PATH);
  if (rc != -ENOENT) return rc;
  char link[32] = "/proc/self/fd/";  // written by hand: the child calls no library formatting
  char digits[12];
  int n = 0;
  for (unsigned v = static_cast<unsigned>(plan.program); n == 0 || v != 0; v /= 10)
    digits[n++] = static_cast<char>('0' + v % 10);
  for (size_t at = 14; n > 0;) link[at++] = digits[--n];
  char target[PATH_MAX];
  long length = host(SYS_readlink, reinterpret_cast<long>(link), reinterpret_cast<long>(target),
                     sizeof target - 1);
  if (length <= 0 || target[0] != '/') return rc;
  target[length] = '\0';
  return host(SYS_execve, reinterpret_cast<long>(target), reinterpret_cast<long>(plan.argv),
              reinterpret_cast<long>(plan.envp));
}

POSIX_UNWATCHED int childMain(void* arg) {
  Child* child = static_cast<Child*>(arg);
  const SpawnPlan& plan = *child->plan;
  const HostAction byDefault{};  // SIG_DFL
  for (int sig = 1; sig < kSignals; ++sig) {
    if ((child->altered & bit(sig)) != 0 && sig != SIGKILL && sig != SIGSTOP)
      host(SYS_rt_sigaction, sig, reinterpret_cast<long>(&byDefault), 0, sizeof(uint64_t));
  }
  long rc = host(SYS_setpgid, 0, 0);
  if (rc == 0 && plan.dir >= 0) rc = host(SYS_fchdir, plan.dir);
  for (int i = 0; rc >= 0 && i < 3; ++i) {
    if (plan.from[i] >= 0) {
      rc = host(SYS_dup3, plan.from[i], i, 0);
    } else if (plan.closed[i]) {
      host(SYS_close, i);
    }
  }
  // Nothing of the server's reaches the program, whatever it holds without close-on-exec.
  if (rc >= 0) rc = closeAbove2(plan.program, child->openMax);
  const uint64_t none = 0;
  if (rc >= 0) host(SYS_rt_sigprocmask, SIG_SETMASK, reinterpret_cast<long>(&none), 0, sizeof none);
  if (rc >= 0) rc = execProgram(plan);
  child->error = static_cast<int>(-rc);
  ::syscall(SYS_exit_group, 127);
  return 127;
}

}  // namespace

void Proc::signalActionsChanged() { g_actionsGeneration.fetch_add(1, std::memory_order_acq_rel); }

int hostSpawn(const SpawnPlan& plan, pid_t* pid) {
  char* stack = t_stack.top();
  if (!stack) return EAGAIN;
  static const long openMax = ::sysconf(_SC_OPEN_MAX);
  Child child{&plan, alteredSignals(), openMax, 0};
  // Every signal blocked, the C library's own too: the child must not run a handler of the
  // server before it has set them all to default.
  const uint64_t all = ~uint64_t{0};
  uint64_t before = 0;
  ::syscall(SYS_rt_sigprocmask, SIG_BLOCK, &all, &before, sizeof all);
  int pidfd = -1;
  int flags = CLONE_VM | CLONE_VFORK | SIGCHLD;
  int rc = __clone(childMain, stack, flags | (plan.pidfd ? CLONE_PIDFD : 0), &child, &pidfd);
  if (rc < 0 && errno == EINVAL && plan.pidfd) rc = __clone(childMain, stack, flags, &child);
  const int error = errno;
  ::syscall(SYS_rt_sigprocmask, SIG_SETMASK, &before, nullptr, sizeof before);
  if (plan.pidfd) *plan.pidfd = rc > 0 ? pidfd : -1;
  if (rc < 0) return error;
  // The parent resumes once the child has exec'd or ended: its error is final here.
  if (child.error != 0) {
    if (pidfd >= 0) ::close(pidfd);
    if (plan.pidfd) *plan.pidfd = -1;
    int status = 0;
    while (::waitpid(rc, &status, 0) < 0 && errno == EINTR) {
    }
    return child.error;
  }
  *pid = rc;
  return 0;
}
