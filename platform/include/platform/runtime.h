// The instance's runtime directory RT: $POSIX_RUNTIME_DIR, else $XDG_RUNTIME_DIR/posix, else
// /tmp/posix-<effective uid>, without trailing slashes (the rule the client library follows
// too). It is created with mode 0700 and refused when it is not a directory owned by the
// current user or is open to group or others.
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

// The pid of the process listening on the socket at `path`: 0 when nobody listens (no file,
// or a socket left behind by a process that died), -1 when someone listens but its backlog is
// full so that its pid cannot be asked. Nothing is sent.
long listener(const std::string& path);
// Removes what a server that was killed left in RT/chn: sockets nobody listens on (and that
// were not made in the last second, which may still be on their way to listening) and names
// that lead to no socket. Call it before making channels, when no server answers on RT.
void removeStaleChannels();
// Called with the path RT/chn/<name> each time this process claims a channel name; one
// observer, set before channels are made (the loader logs that the server serves).
void onNameClaimed(void (*observer)(const std::string& namePath));
void nameClaimed(const std::string& namePath);

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
