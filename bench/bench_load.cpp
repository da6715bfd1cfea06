#include "bench_load.h"

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

void BusyLoad::start() {
  long cores = sysconf(_SC_NPROCESSORS_ONLN);
  for (long i = 0; i < (cores > 0 ? cores : 1); ++i) {
    pid_t pid = fork();
    if (pid == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);  // never outlives the benchmark
      for (;;) asm volatile("" ::: "memory");  // spins; the barrier keeps the loop
    }
    if (pid > 0) spinners_.push_back(pid);
  }
}

void BusyLoad::stop() {
  for (pid_t pid : spinners_) kill(pid, SIGKILL);
  for (pid_t pid : spinners_) waitpid(pid, nullptr, 0);
  spinners_.clear();
}
