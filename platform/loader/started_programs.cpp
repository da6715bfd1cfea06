// Ending what a stopping server started: a program left running after its server has gone
// would be nobody's (reparented to init, its starter's wait broken), so the server ends them
// before it removes its files.
#include "started_programs.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

namespace {

constexpr int kStepMs = 20;
constexpr int kAfterKillMs = 1000;

// The parent pid and state letter from /proc/<pid>/stat; false when it cannot be read.
bool parentAndState(const char* pid, pid_t* parent, char* state) {
  std::string file = std::string("/proc/") + pid + "/stat";
  int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  char text[512];
  ssize_t got = ::read(fd, text, sizeof text - 1);
  ::close(fd);
  if (got <= 0) return false;
  text[got] = '\0';
  const char* end = std::strrchr(text, ')');  // the command name may hold spaces
  if (end == nullptr || end[1] == '\0' || end[2] == '\0') return false;
  *state = end[2];
  *parent = static_cast<pid_t>(std::strtol(end + 3, nullptr, 10));
  return true;
}

// Signals the program's group, or the program alone when it has left the group it led.
void signalProgram(pid_t pid, int sig) {
  if (::kill(-pid, sig) != 0) ::kill(pid, sig);
}

void pause(int ms) {
  struct timespec ts = {ms / 1000, (ms % 1000) * 1000000L};
  ::nanosleep(&ts, nullptr);
}

}  // namespace

namespace StartedPrograms {

std::vector<pid_t> children() {
  std::vector<pid_t> found;
  DIR* proc = ::opendir("/proc");
  if (proc == nullptr) return found;
  pid_t self = ::getpid();
  while (dirent* entry = ::readdir(proc)) {
    if (entry->d_name[0] < '0' || entry->d_name[0] > '9') continue;
    pid_t parent = 0;
    char state = '?';
    if (parentAndState(entry->d_name, &parent, &state) && parent == self)
      found.push_back(static_cast<pid_t>(std::atoi(entry->d_name)));
  }
  ::closedir(proc);
  return found;
}

// Waits up to `ms` until the server has collected every child (its agents collect them and
// answer their starters' waits); the children still there.
std::vector<pid_t> collected(int ms) {
  std::vector<pid_t> left = children();
  for (int waited = 0; !left.empty() && waited < ms; waited += kStepMs) {
    pause(kStepMs);
    left = children();
  }
  return left;
}

std::vector<pid_t> end(const std::vector<pid_t>& programs, int graceMs) {
  for (pid_t pid : programs) signalProgram(pid, SIGTERM);
  std::vector<pid_t> left = collected(graceMs);
  for (pid_t pid : left) signalProgram(pid, SIGKILL);
  if (!left.empty()) collected(kAfterKillMs);
  pause(kStepMs);  // the last collected program's starter is being answered
  return left;
}

}  // namespace StartedPrograms
