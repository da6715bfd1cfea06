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
// Removes every owned file listed now.
void removeOwnedFiles();
// The process is about to end: removes every owned file for good. A file owned after it is
// removed at once, and MakingFile no longer allows one to be made.
void shutDown();

// Held while a file of the instance is made and listed, so that the shut-down never runs
// between the two (a file made but not yet listed would be left behind). Make the file only
// when allowed(): not once the process has shut down. Release nothing that disowns a
// file while holding it.
class MakingFile {
 public:
  MakingFile();
  ~MakingFile();
  MakingFile(const MakingFile&) = delete;
  MakingFile& operator=(const MakingFile&) = delete;
  bool allowed() const;
  void own(const std::string& path);
};

}  // namespace Runtime
