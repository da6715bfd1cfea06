// The background server's pid file and host process checks used by start and stop.
#pragma once

#include <sys/types.h>

#include <string>

namespace posixctl {

// RT/server.pid: written by start (into the checked runtime directory `rtFd`), removed by stop.
void writePidFile(int rtFd, pid_t pid);
pid_t readPidFile();  // 0 when there is none or it holds no pid
void removePidFile();

// Alive and not a zombie.
bool processAlive(pid_t pid);
// Whether `pid` is a server of this runtime directory (its environment names it), so that a
// stale pid file never gets an unrelated process signalled.
bool serverOfInstance(pid_t pid);

}  // namespace posixctl
