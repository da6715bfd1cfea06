// The working directory and standard files of a program about to start: the ones its starter
// handed over (used as they are), else opened by the server by name before the program exists.
//
// A start must never wait on what its starter named: the start waits for the child until it
// has set up its files and exec'd, the agent thread waits for the start, and the service
// thread waits for the agent. An open() in the child's file actions of a FIFO with no writer
// would block that whole chain. So the directory is opened as a path only (O_PATH, which never
// blocks) and each standard file without blocking (O_NONBLOCK: a FIFO with no writer opens at
// once, one with no reader fails with ENXIO), then made blocking again for the program. The
// child then only changes directory through a descriptor and duplicates descriptors.
#pragma once

#include <posix/posix_service.h>

#include "platform/env.h"
#include "platform/proc.h"
#include "platform/string.h"
#include "host_spawn.h"

class ProgramFiles {
 public:
  // The names consumed from a program's environment; a standard file whose name is set to the
  // empty string starts closed.
  static constexpr const char* kNames[3] = {PX_ENV_STDIN, PX_ENV_STDOUT, PX_ENV_STDERR};
  static constexpr const char* kDirName = PX_ENV_CWD;

  ProgramFiles() = default;
  ~ProgramFiles();
  ProgramFiles(const ProgramFiles&) = delete;
  ProgramFiles& operator=(const ProgramFiles&) = delete;

  // Keeps the value of `env`'s pair `i` when its name is one of the consumed names; false for
  // any other name.
  bool take(const Env& env, uint64_t i);
  // Opens the directory, then the standard files (a relative name resolves against the
  // directory), each read as process `pid` names it (ClientPath); 0 or an errno value. A slot
  // without a name takes the file `handed` holds for it (null: none), without any look-up.
  int open(uint64_t pid, const StartFiles* handed);
  // Fills in `plan`'s directory and standard descriptors for this start.
  void place(SpawnPlan* plan) const;
  // Where a relative path of this start resolves: the directory, or AT_FDCWD without one.
  int dirFd() const;

 private:
  Ref<String> dirName_;
  Ref<String> names_[3];
  // Used for the start; those this object opened are also in owned_ and closed by it.
  int dir_ = -1;
  int fds_[3] = {-1, -1, -1};
  int owned_[4] = {-1, -1, -1, -1};
};
