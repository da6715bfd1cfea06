// The programs a server started, as the host sees them: its host children. Every program the
// server starts is one, and leads a host process group of its own.
#pragma once

#include <sys/types.h>

#include <vector>

namespace StartedPrograms {

// The host children of this process, ended ones not yet collected included.
std::vector<pid_t> children();

// Asks each running program's group to end (SIGTERM), waits up to `graceMs` for them, then
// kills (SIGKILL) the groups of those still there. Answers the pids that had to be killed.
std::vector<pid_t> end(const std::vector<pid_t>& programs, int graceMs);

}  // namespace StartedPrograms
