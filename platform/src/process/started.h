// The program that Binary::create last started on the calling thread (binary.cpp sets it);
// Proc::awaitEnd and Proc::wait look for it. A thread that starts a program and then waits for
// it (the server's agent threads) needs nothing else to pair the two.
#pragma once

#include <sys/types.h>

extern thread_local pid_t t_lastStarted;

// The host's start time of that program (clock ticks after boot, as /proc/<pid>/stat tells it)
// as the clock read around its start pins it down: both readings fell in one tick, so the
// program's start did too. 0 when they fell in different ticks.
extern thread_local uint64_t t_lastStartTick;

// A pidfd of that program, taken from its start where the host gives one, or -1: Proc::identity
// reads it (and closes it) instead of opening one.
extern thread_local int t_lastStartedPidfd;

// The boot-time clock in /proc's start-time ticks.
uint64_t bootTick();
