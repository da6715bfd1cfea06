// The instance's runtime directory RT: $POSIX_RUNTIME_DIR, else $XDG_RUNTIME_DIR/posix, else
// /tmp/posix-<uid>. It is created with mode 0700 and refused when it is not a directory owned
// by the current user or is open to group or others.
#pragma once

#include <string>

namespace Runtime {

// The path RT, by the rule above (not checked, not created).
std::string dir();
// Creates RT and its sub-directories chn/, dev/, root/ and shm/ when missing and checks RT.
// Answers false with a message in `why` when RT cannot be used.
bool prepare(std::string* why);
// RT/<relative>.
std::string path(const std::string& relative);

// Files this process made and must remove when it shuts down (sockets, node files, links).
void ownFile(const std::string& path);
void disownFile(const std::string& path);
// Removes every owned file. Safe to call once from the shut-down path.
void removeOwnedFiles();

}  // namespace Runtime
