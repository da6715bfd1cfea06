// Starting a program: a child that shares the calling thread's memory until it has exec'd (as
// posix_spawn makes one), on a stack the thread keeps from one start to the next.
//
// posix_spawn maps a fresh stack for every child and unmaps it after: on a server with many
// threads the unmapping flushes the address space's translations on every processor that ran
// one of them, a fifth of what an agent thread spends on a start. The child's stack is only in
// use until the parent resumes, so one stack per thread serves all its starts.
#pragma once

#include <sys/types.h>

struct SpawnPlan {
  // The program's file, opened (O_PATH, close-on-exec) where the starter named it: exec'd as
  // the very file found, so that nothing can change what the name means in between.
  int program = -1;
  char* const* argv = nullptr;
  char* const* envp = nullptr;
  int dir = -1;  // the working directory to change to, or -1 for the server's
  int from[3] = {-1, -1, -1};  // the descriptor that becomes 0, 1 and 2, or -1
  bool closed[3] = {false, false, false};  // with from[i] == -1: the program starts without i
  int* pidfd = nullptr;  // where the host supports it, receives a pidfd of the program
};

// Starts `plan` in a child that leads a process group of its own, with every catchable signal
// at its default action, nothing blocked, and no descriptor above 2. 0 with `*pid` set (and
// `*plan.pidfd`, or -1 there), or the errno value of what failed; a child that could not
// exec has been collected.
int hostSpawn(const SpawnPlan& plan, pid_t* pid);
