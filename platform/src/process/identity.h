// Reading who a process is from /proc, shared by the process and channel parts of the platform.
#pragma once

#include <cstdint>

namespace ProcIdentityRead {

// The host's start time of process `pid` (field 22 of /proc/<pid>/stat, clock ticks after
// boot); false when it cannot be read.
bool startTime(uint64_t pid, uint64_t* start);
// Whether the host keeps pidfds in a file system of their own, whose inode numbers tell
// processes apart for the host's whole life.
bool pidfdSerials();
// The serial (ProcIdentity) of process `pid`, whose pidfd is `pidfd`: the pidfd's inode
// number, or the start time where pidfdSerials() is false. False when it cannot be read.
bool serialOf(int pidfd, uint64_t pid, uint64_t* serial);
// A pidfd for process `pid`, or -1 with errno set. The host refuses a thread that does not lead
// its process (EINVAL), and so does this.
int openPidfd(uint64_t pid);
// True once the process of `pidfd` has ended (it may not have been collected yet).
bool hasEnded(int pidfd);

}  // namespace ProcIdentityRead
