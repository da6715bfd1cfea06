// Starting programs: the environment handed to a program and its start (host_spawn.cpp).
// Waiting for a started program is in proc_wait.cpp.
#include <fcntl.h>
#include <linux/magic.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "platform/client_path.h"
#include "platform/error.h"
#include "platform/proc.h"
#include "platform/runtime.h"
#include "platform/binary.h"
#include "file/host_fd.h"
#include "host_spawn.h"
#include "program_files.h"
#include "started.h"

StartedProgram& StartedProgram::operator=(StartedProgram&& other) noexcept {
  if (this != &other) {
    dropPidfd();
    pid_ = std::exchange(other.pid_, 0);
    startTick_ = std::exchange(other.startTick_, 0);
    pidfd_ = std::exchange(other.pidfd_, -1);
  }
  return *this;
}

void StartedProgram::dropPidfd() { HostFd::close(std::exchange(pidfd_, -1)); }

uint64_t bootTick() {
  static const uint64_t nsPerTick = 1000000000ull / static_cast<uint64_t>(::sysconf(_SC_CLK_TCK));
  timespec now{};
  ::clock_gettime(CLOCK_BOOTTIME, &now);
  return (static_cast<uint64_t>(now.tv_sec) * 1000000000ull + static_cast<uint64_t>(now.tv_nsec)) / nsPerTick;
}

namespace {

constexpr const char* kRuntimeDir = "POSIX_RUNTIME_DIR";

// A program file opened (O_PATH) as process `pid` names it, relative to `base`. With `check`,
// only a regular file that may be executed: -1 with EACCES for any other, so that a search
// goes on to the next directory. Without, whatever the path names: the host's exec refuses
// anything else with the same EACCES, and a start by path saves the two look-ups.
int openProgram(int base, const std::string& path, uint64_t pid, bool check = true) {
  int fd = ClientPath::open(base, path.c_str(), O_PATH, 0, pid);
  if (fd < 0 || !check) return fd;
  struct stat st;
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) ||
      ::faccessat(fd, "", X_OK, AT_EMPTY_PATH) != 0) {
    ::close(fd);
    errno = EACCES;
    return -1;
  }
  return fd;
}

// The first program `dir/file` along a PATH-style list; an empty entry is the current
// directory, and a relative entry resolves against `base` (the program's working directory,
// where the program will be exec'd from). -1 with ENOENT when there is none.
int searchPath(int base, const std::string& list, const std::string& file, uint64_t pid) {
  for (size_t start = 0;;) {
    size_t colon = list.find(':', start);
    size_t length = colon == std::string::npos ? std::string::npos : colon - start;
    std::string dir = list.substr(start, length);
    int fd = openProgram(base, (dir.empty() ? std::string(".") : dir) + "/" + file, pid);
    if (fd >= 0) return fd;
    if (colon == std::string::npos) break;
    start = colon + 1;
  }
  errno = ENOENT;
  return -1;
}

// A program is never a /proc file: what the host follows from /proc/<pid>/exe or fd/N there
// is another process's file.
bool onProcfs(int fd) {
  struct statfs fs;
  return ::fstatfs(fd, &fs) != 0 || fs.f_type == PROC_SUPER_MAGIC;
}

// A descriptor opened and closed within one start.
struct OpenedHere {
  int fd;
  ~OpenedHere() { ::close(fd); }
};

uint64_t fail(int error) {
  Error::set(static_cast<uint32_t>(error));
  return 0;
}

}  // namespace

uint64_t Binary::create(const Ref<String>& path, uint32_t startFlags, const Ref<String>* args,
                        uint64_t argc, const Ref<Env>& env, const StartFiles* handed,
                        uint64_t forPid, StartedProgram* started) {
  if (!path || path->length() == 0) return fail(ENOENT);
  if (std::strlen(path->c_str()) != path->length()) return fail(EINVAL);

  // The environment: env's pairs without the working directory and standard-file entries,
  // which are consumed here, and with this instance's runtime directory so that the program
  // finds its server. The pairs' texts are handed over as env keeps them.
  ProgramFiles files;
  Ref<String> pathList;
  const uint64_t pairs = env ? env->count() : 0;
  std::vector<char*> envp;
  envp.reserve(pairs + 2);
  for (uint64_t i = 0; i < pairs; ++i) {
    if (files.take(*env, i) || env->named(i, kRuntimeDir)) continue;
    if (env->named(i, "PATH")) pathList = env->valueAt(i);
    envp.push_back(const_cast<char*>(env->text(i)));
  }
  std::string runtimeDir = std::string(kRuntimeDir) + "=" + Runtime::dir();
  envp.push_back(runtimeDir.data());
  envp.push_back(nullptr);
  std::vector<char*> argv;
  argv.reserve(argc + 1);
  for (uint64_t i = 0; args && i < argc; ++i)
    argv.push_back(const_cast<char*>(args[i] ? args[i]->c_str() : ""));
  argv.push_back(nullptr);

  int rc = files.open(forPid, handed);
  if (rc != 0) return fail(rc);

  // The program's file is found as the starter names it, and exec'd as that very file.
  std::string program = path->c_str();
  int programFd;
  if ((startFlags & kSearchPath) != 0 && program.find('/') == std::string::npos) {
    const char* serverList = std::getenv("PATH");
    std::string list = pathList ? pathList->c_str() : serverList ? serverList : "/bin:/usr/bin";
    programFd = searchPath(files.dirFd(), list, program, forPid);
  } else {
    programFd = openProgram(files.dirFd(), program, forPid, false);
  }
  if (programFd < 0) return fail(errno);
  // Above the three standard numbers, which the child fills before it execs this one.
  if (programFd < 3) {
    int above = ::fcntl(programFd, F_DUPFD_CLOEXEC, 3);
    ::close(programFd);
    if (above < 0) return fail(errno);
    programFd = above;
  }
  const OpenedHere programFile{programFd};
  if (onProcfs(programFd)) return fail(EACCES);

  // The child leads a process group of its own, so that a signal meant for the program and
  // what it starts itself reaches no one else (and a terminal's signals for the server's group
  // do not reach it); it inherits nothing the server blocks or ignores.
  SpawnPlan plan;
  plan.program = programFd;
  plan.argv = argv.data();
  plan.envp = envp.data();
  files.place(&plan);
  int pidfd = -1;
  plan.pidfd = &pidfd;
  pid_t pid = 0;
  const uint64_t before = bootTick();
  rc = hostSpawn(plan, &pid);
  const uint64_t after = bootTick();
  if (rc != 0) return fail(rc);
  StartedProgram child;
  child.pid_ = static_cast<uint64_t>(pid);
  child.startTick_ = before == after ? before : 0;
  child.pidfd_ = HostFd::opened(pidfd);
  *started = std::move(child);
  return static_cast<uint64_t>(pid);
}
