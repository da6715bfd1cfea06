#include "bench_load.h"

#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

void BusyLoad::start(size_t count) {
  for (size_t i = 0; i < count; ++i) {
    pid_t pid = fork();
    if (pid == 0) {
      setsid();
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

double loadAverage() {
  double load[1];
  return getloadavg(load, 1) == 1 ? load[0] : -1;
}
