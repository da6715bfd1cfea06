// How many tasks (processes and threads) the host lets the server's user run at once.
#include <sys/resource.h>

#include <cstdint>
#include <cstdio>

#include "platform/proc.h"

namespace {

// A number from a one-line file of /proc/sys, or `otherwise`.
uint64_t kernelValue(const char* path, uint64_t otherwise) {
  FILE* file = std::fopen(path, "re");
  if (!file) return otherwise;
  unsigned long long value = 0;
  bool read = std::fscanf(file, "%llu", &value) == 1 && value > 0;
  std::fclose(file);
  return read ? value : otherwise;
}

}  // namespace

uint64_t Proc::taskLimit() {
  // The host-wide limits are read once; the user's own limit each time, as it may be changed
  // while the server runs (prlimit).
  static const uint64_t hostTasks = [] {
    uint64_t pids = kernelValue("/proc/sys/kernel/pid_max", UINT64_MAX);
    uint64_t threads = kernelValue("/proc/sys/kernel/threads-max", UINT64_MAX);
    return pids < threads ? pids : threads;
  }();
  rlimit user{};
  if (::getrlimit(RLIMIT_NPROC, &user) != 0 || user.rlim_cur == RLIM_INFINITY) return hostTasks;
  return user.rlim_cur < hostTasks ? static_cast<uint64_t>(user.rlim_cur) : hostTasks;
}
