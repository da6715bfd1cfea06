// Starting programs: the environment handed to a program and posix_spawn. Waiting for the
// program that the calling thread started last is in proc_wait.cpp.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "platform/error.h"
#include "platform/proc.h"
#include "platform/runtime.h"
#include "program_files.h"
#include "started.h"

// The program that Binary::create last started on this thread; Proc::wait collects it. A
// thread that starts a program and then waits for it (the server's agent threads) needs
// nothing else to pair the two.
thread_local pid_t t_lastStarted = 0;
thread_local uint64_t t_lastStartTick = 0;

uint64_t bootTick() {
  static const uint64_t nsPerTick = 1000000000ull / static_cast<uint64_t>(::sysconf(_SC_CLK_TCK));
  timespec now{};
  ::clock_gettime(CLOCK_BOOTTIME, &now);
  return (static_cast<uint64_t>(now.tv_sec) * 1000000000ull + static_cast<uint64_t>(now.tv_nsec)) / nsPerTick;
}

namespace {

constexpr const char* kRuntimeDir = "POSIX_RUNTIME_DIR";

bool named(const Ref<String>& name, const char* text) { return name && name->equals(text); }

// The first regular, executable `dir/file` along a PATH-style list; an empty entry is the
// current directory, and a relative entry resolves against `base` (the program's working
// directory, where the program will be exec'd from).
bool searchPath(int base, const std::string& list, const std::string& file, std::string* found) {
  size_t start = 0;
  for (;;) {
    size_t colon = list.find(':', start);
    size_t length = colon == std::string::npos ? std::string::npos : colon - start;
    std::string dir = list.substr(start, length);
    std::string candidate = (dir.empty() ? std::string(".") : dir) + "/" + file;
    struct stat st;
    if (::fstatat(base, candidate.c_str(), &st, 0) == 0 && S_ISREG(st.st_mode) &&
        ::faccessat(base, candidate.c_str(), X_OK, 0) == 0) {
      *found = candidate;
      return true;
    }
    if (colon == std::string::npos) return false;
    start = colon + 1;
  }
}

// Owns the spawn attributes and file actions for one start.
struct SpawnSetup {
  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attr;
  SpawnSetup() {
    posix_spawn_file_actions_init(&actions);
    posix_spawnattr_init(&attr);
  }
  ~SpawnSetup() {
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attr);
  }
  SpawnSetup(const SpawnSetup&) = delete;
  SpawnSetup& operator=(const SpawnSetup&) = delete;
};

// The child must not inherit what the server blocks or ignores: an empty mask, and every
// catchable signal back to its default action. It leads a host process group of its own, so
// that a signal meant for the program and what it starts itself reaches no one else (and a
// terminal's signals for the server's group do not reach it).
int setAttributes(posix_spawnattr_t* attr) {
  sigset_t none;
  sigset_t all;
  sigemptyset(&none);
  sigfillset(&all);
  sigdelset(&all, SIGKILL);
  sigdelset(&all, SIGSTOP);
  int rc = posix_spawnattr_setsigmask(attr, &none);
  if (rc == 0) rc = posix_spawnattr_setsigdefault(attr, &all);
  if (rc == 0) rc = posix_spawnattr_setpgroup(attr, 0);
  if (rc == 0) {
    rc = posix_spawnattr_setflags(attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF |
                                            POSIX_SPAWN_SETPGROUP);
  }
  return rc;
}

uint64_t fail(int error) {
  Error::set(static_cast<uint32_t>(error));
  return 0;
}

}  // namespace

uint64_t Binary::create(const Ref<String>& path, uint32_t startFlags, const Ref<String>* args,
                        uint64_t argc, const Ref<Env>& env, uint32_t /*startOptions*/) {
  if (!path || path->length() == 0) return fail(ENOENT);
  if (std::strlen(path->c_str()) != path->length()) return fail(EINVAL);

  // The environment: env's pairs without the working directory and standard-file entries,
  // which are consumed here, and with this instance's runtime directory so that the program
  // finds its server.
  std::vector<std::string> envText;
  ProgramFiles files;
  Ref<String> pathList;
  for (uint64_t i = 0; env && i < env->count(); ++i) {
    Ref<String> name = env->nameAt(i);
    Ref<String> value = env->valueAt(i);
    if (files.take(name, value) || named(name, kRuntimeDir)) continue;
    if (named(name, "PATH")) pathList = value;
    envText.push_back(std::string(name->c_str()) + "=" + value->c_str());
  }
  envText.push_back(std::string(kRuntimeDir) + "=" + Runtime::dir());

  std::vector<char*> envp;
  for (std::string& entry : envText) envp.push_back(entry.data());
  envp.push_back(nullptr);
  std::vector<char*> argv;
  for (uint64_t i = 0; args && i < argc; ++i)
    argv.push_back(const_cast<char*>(args[i] ? args[i]->c_str() : ""));
  argv.push_back(nullptr);

  SpawnSetup setup;
  int rc = files.open();
  if (rc == 0) rc = files.addActions(&setup.actions);
  if (rc == 0) rc = setAttributes(&setup.attr);
  if (rc != 0) return fail(rc);

  std::string program = path->c_str();
  bool usePathSearch = (startFlags & kSearchPath) != 0 && program.find('/') == std::string::npos;
  if (usePathSearch && pathList) {
    std::string found;
    if (!searchPath(files.dirFd(), pathList->c_str(), program, &found)) return fail(ENOENT);
    program = found;
    usePathSearch = false;
  }

  pid_t pid = 0;
  const uint64_t before = bootTick();
  if (usePathSearch)
    rc = posix_spawnp(&pid, program.c_str(), &setup.actions, &setup.attr, argv.data(), envp.data());
  else
    rc = posix_spawn(&pid, program.c_str(), &setup.actions, &setup.attr, argv.data(), envp.data());
  const uint64_t after = bootTick();
  if (rc != 0) return fail(rc);
  t_lastStarted = pid;
  t_lastStartTick = before == after ? before : 0;
  return static_cast<uint64_t>(pid);
}
