// Host paths opened on behalf of a client process, read as that process would read them.
//
// The server opens paths that its clients name. Names that mean "the caller" to the host
// (/proc/self, /proc/thread-self, and through them /dev/fd/N and /dev/stdin, stdout and
// stderr) would otherwise mean the server, and /proc/<server pid> is the server under any
// name. ClientPath reads /proc/self as the client's /proc/<pid>, /proc/thread-self as the
// client's /proc/<pid>/task/<pid>, and refuses with EACCES whatever lands inside the process
// directory of the server or one of its threads, however the path is spelled (symbolic links,
// "..", "/proc/./self"). Every other name means to the client what it means to the server, as
// both share the host's root and mounts.
#pragma once

#include <sys/types.h>

#include <cstdint>

namespace ClientPath {

// Opens `path` relative to `dir` (a directory descriptor or AT_FDCWD) as open(2) would, with
// the Linux O_* `flags` (close-on-exec is added) and `mode`, for process `pid` (0: a process
// that has no /proc/self, for whom such names are refused). The host's error codes otherwise;
// a descriptor or -1 with errno set.
int open(int dir, const char* path, int flags, mode_t mode, uint64_t pid);

// Whether `fd` is a file inside the /proc directory of this process or of one of its threads.
bool ofThisProcess(int fd);

}  // namespace ClientPath
