// A client's descriptor, opened as the host follows /proc/<pid>/fd/<n> (ClientPath::open's
// way for the descriptors a client hands over).
#pragma once

#include <sys/types.h>

#include <cstdint>

namespace ClientPath {

// Opens descriptor `name` of process `owner` as the host follows /proc/<owner>/fd/<name>, with
// `flags` (close-on-exec added) and `mode`; a descriptor or -1 with errno set. The result is
// not checked: the caller checks it as every result.
int openDescriptor(uint64_t owner, const char* name, int flags, mode_t mode);

}  // namespace ClientPath
