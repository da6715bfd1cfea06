// Processes: the calling process, and the /proc view of other processes.
#include "platform/proc.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/error.h"
#include "platform/runtime.h"

namespace {

// A pid that Linux can name. 0 and anything that does not fit a positive pid_t are refused
// before they reach kill(): kill(0, ...) and kill(-1, ...) would signal whole groups.
bool validPid(uint64_t pid) { return pid != 0 && pid <= static_cast<uint64_t>(INT32_MAX); }

// Reads a whole (small) file; false with Error set when it cannot be opened or read.
bool readFile(const std::string& path, std::string* text) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    Error::set(static_cast<uint32_t>(errno));
    return false;
  }
  text->clear();
  char buffer[4096];
  for (;;) {
    ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      Error::set(static_cast<uint32_t>(errno));
      ::close(fd);
      return false;
    }
    if (n == 0) break;
    text->append(buffer, static_cast<size_t>(n));
  }
  ::close(fd);
  return true;
}

// The first number after "<key>:" on a line of a /proc status text, or `fallback`. The text
// starts with the "Name:" line, so every key asked for here follows a newline.
uint64_t statusField(const std::string& status, const char* key, uint64_t fallback) {
  std::string label = std::string("\n") + key + ":";
  size_t at = status.find(label);
  if (at == std::string::npos) return fallback;
  const char* start = status.c_str() + at + label.size();
  char* end = nullptr;
  unsigned long long value = std::strtoull(start, &end, 10);
  return end == start ? fallback : value;
}

}  // namespace

Ref<String> ProcInfo::name() const { return name_; }
uint64_t ProcInfo::pid() const { return pid_; }
uint64_t ProcInfo::parentPid() const { return parentPid_; }
uint32_t ProcInfo::level() const { return level_; }

uint64_t Proc::current() { return static_cast<uint64_t>(::getpid()); }

Ref<ProcInfo> Proc::info(uint64_t pid) {
  if (!validPid(pid)) {
    Error::set(ESRCH);
    return nullptr;
  }
  std::string base = "/proc/" + std::to_string(pid);
  std::string stat;
  std::string status;
  if (!readFile(base + "/stat", &stat) || !readFile(base + "/status", &status)) return nullptr;

  // "<pid> (<comm>) <state> <ppid> ...": the name may itself hold ')' and blanks, so it ends
  // at the last ')'.
  size_t open = stat.find('(');
  size_t close = stat.rfind(')');
  if (open == std::string::npos || close == std::string::npos || close < open) {
    Error::set(EIO);
    return nullptr;
  }
  char state = 0;
  unsigned long long parent = 0;
  if (std::sscanf(stat.c_str() + close + 1, " %c %llu", &state, &parent) != 2) {
    Error::set(EIO);
    return nullptr;
  }

  Ref<ProcInfo> info = new ProcInfo();
  info->name_ = String::create(stat.c_str() + open + 1, static_cast<int64_t>(close - open - 1));
  info->pid_ = pid;
  info->parentPid_ = parent;
  info->threads_ = statusField(status, "Threads", 0);
  // /proc/<id> exists for every thread too; only the thread that leads its process is one.
  if (statusField(status, "Tgid", 0) != pid) {
    Error::set(ESRCH);
    return nullptr;
  }
  // The server itself is out of every client's reach; root's processes rank above the rest.
  if (pid == current()) {
    info->level_ = 2;
  } else {
    info->level_ = statusField(status, "Uid", UINT64_MAX) == 0 ? 1 : 0;
  }
  return info;
}

void Proc::exit(int32_t code) {
  Runtime::shutDown();
  ::_exit(static_cast<int>(static_cast<uint32_t>(code) & 0xFF));
}

Ref<String> Proc::name() {
  std::string comm;
  if (!readFile("/proc/self/comm", &comm)) return String::create("");
  while (!comm.empty() && (comm.back() == '\n' || comm.back() == '\0')) comm.pop_back();
  return String::create(comm.c_str(), static_cast<int64_t>(comm.size()));
}

bool Proc::stopped(uint64_t pid) {
  if (!validPid(pid)) return false;
  const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
  DIR* dir = ::opendir(tasks.c_str());
  if (dir == nullptr) return false;
  bool all = true, any = false;
  while (dirent* entry = ::readdir(dir)) {
    if (entry->d_name[0] == '.') continue;
    std::string stat;
    size_t close = std::string::npos;
    if (readFile(tasks + "/" + entry->d_name + "/stat", &stat)) close = stat.rfind(')');
    // The state letter follows the name: T stopped by a signal, t by a tracer.
    char state = close != std::string::npos && close + 2 < stat.size() ? stat[close + 2] : '?';
    // Any other state, or a thread that could not be read, may run.
    if (state != 'T' && state != 't') {
      all = false;
      break;
    }
    any = true;
  }
  ::closedir(dir);
  return all && any;
}
