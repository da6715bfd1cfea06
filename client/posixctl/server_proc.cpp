// The pid file and host process checks for start and stop.
#include "server_proc.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <iterator>

#include "posix_client.h"
#include "posixctl.h"

namespace posixctl {

namespace {

std::string pidFilePath() { return std::string(px_runtime_dir()) + "/server.pid"; }

}  // namespace

// Written to a temporary file and renamed, so that a reader never sees half a pid. Both names
// are opened without following links and the temporary one is made fresh (O_EXCL): whatever
// stands in the directory under those names, nothing outside it is written.
void writePidFile(int rtFd, pid_t pid) {
  const char* tmp = "server.pid.tmp";
  unlinkat(rtFd, tmp, 0);
  int fd = openat(rtFd, tmp, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0) return;
  std::string text = std::to_string(pid) + "\n";
  bool written = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  if (close(fd) == 0 && written) {
    renameat(rtFd, tmp, rtFd, "server.pid");
  } else {
    unlinkat(rtFd, tmp, 0);
  }
}

pid_t readPidFile() {
  int fd = open(pidFilePath().c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return 0;
  char text[32] = {};
  ssize_t n = read(fd, text, sizeof text - 1);
  close(fd);
  int64_t pid = 0;
  if (n <= 0) return 0;
  text[n] = '\0';
  if (text[n - 1] == '\n') text[n - 1] = '\0';
  return parseInt(text, &pid) && pid > 0 && pid <= INT32_MAX ? static_cast<pid_t>(pid) : 0;
}

void removePidFile() { unlink(pidFilePath().c_str()); }

bool processAlive(pid_t pid) {
  if (pid <= 0 || (kill(pid, 0) != 0 && errno == ESRCH)) return false;
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
  size_t paren = text.rfind(')');
  if (paren == std::string::npos || paren + 2 >= text.size()) return false;
  char state = text[paren + 2];
  return state != 'Z' && state != 'X';
}

bool serverOfInstance(pid_t pid) {
  if (!processAlive(pid)) return false;
  std::ifstream env("/proc/" + std::to_string(pid) + "/environ");
  std::string text((std::istreambuf_iterator<char>(env)), std::istreambuf_iterator<char>());
  std::string want = std::string("POSIX_RUNTIME_DIR=") + px_runtime_dir();
  for (size_t at = 0; at < text.size();) {
    size_t end = text.find('\0', at);
    if (end == std::string::npos) end = text.size();
    if (text.compare(at, end - at, want) == 0) return true;
    at = end + 1;
  }
  return false;
}

int64_t answeringServer(int* err) {
  int64_t pid = px_getppid() < 0 ? -1 : px_server_pid();
  if (pid > 0) return pid;
  if (err != nullptr) *err = errno;
  return 0;
}

}  // namespace posixctl
