// Where an instance's runtime directory RT is and when a process may trust it: the one rule that
// the client library, posixctl and the platform all follow, so that a client and the server it
// talks to never disagree on the directory or on what makes it unsafe.
#pragma once

#include <sys/stat.h>

#include <string>

namespace posix::host {

// RT: $POSIX_RUNTIME_DIR, else $XDG_RUNTIME_DIR/posix, else /tmp/posix-<effective uid>; an
// empty variable counts as unset. Trailing slashes are dropped ("/" stays): "RT/" would make
// lstat follow a symlink planted at RT, and every path below RT is built as RT + "/...".
std::string runtimeDirectory();

// What makes a directory unsafe for this process, from its lstat.
enum class DirFault {
  kNone,
  kSymlink,        // a link someone could point anywhere
  kNotDirectory,
  kForeignOwner,   // not owned by the effective uid
  kOpenToOthers,   // group or others have any access
};
DirFault runtimeDirFault(const struct stat& st);

}  // namespace posix::host
