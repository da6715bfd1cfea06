// The program that Binary::create last started on the calling thread (binary.cpp sets it);
// Proc::awaitEnd and Proc::wait look for it. A thread that starts a program and then waits for
// it (the server's agent threads) needs nothing else to pair the two.
#pragma once

#include <sys/types.h>

extern thread_local pid_t t_lastStarted;
