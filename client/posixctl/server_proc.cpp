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

void writePidFile(pid_t pid) {
  std::string path = pidFilePath();
  std::string tmp = path + ".tmp";
  FILE* f = fopen(tmp.c_str(), "we");
  if (f == nullptr) return;
  fprintf(f, "%d\n", pid);
  if (fclose(f) == 0) rename(tmp.c_str(), path.c_str());
}

pid_t readPidFile() {
  FILE* f = fopen(pidFilePath().c_str(), "re");
  if (f == nullptr) return 0;
  int pid = 0;
  if (fscanf(f, "%d", &pid) != 1 || pid <= 0) pid = 0;
  fclose(f);
  return pid;
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

int64_t answeringServer() {
  if (px_getppid() < 0) return 0;
  int64_t pid = px_server_pid();
  return pid > 0 ? pid : 0;
}

}  // namespace posixctl
