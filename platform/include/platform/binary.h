// Starting programs, and the modules loaded in this process.
#pragma once

#include <cstdint>
#include <vector>

#include "platform/env.h"
#include "platform/object.h"
#include "platform/started_program.h"
#include "platform/string.h"

struct ModuleInfo;

class Binary {
 public:
  // Start-flag bits.
  static constexpr uint32_t kSearchPath = 1;

  // Starts a program (as posix_spawn would) and answers its pid, or 0 with Error set. argv is
  // args[0..argc) as given; the environment is env's pairs plus POSIX_RUNTIME_DIR. These
  // names in env are consumed, not passed on: POSIX_CWD, the program's working directory
  // (else the server's); POSIX_STDIN, POSIX_STDOUT, POSIX_STDERR, the host files that become
  // its standard input, output and error (a relative name resolves against POSIX_CWD; an
  // empty one starts the program with that descriptor closed), else /dev/null for input and
  // the server's own output and error. Nothing named can make the start wait: an output FIFO
  // with no reader fails with ENXIO. The program leads a host process group of its own and
  // has no descriptor but 0, 1 and 2. Bit kSearchPath looks a path without a slash up in env's
  // PATH (else the server's). The program, its directory and its files are named as process
  // `forPid` names them (ClientPath: /proc/self is that process's, the server's own /proc
  // directory is refused with EACCES). `started` receives the program for Proc::wait.
  // `handed` (may be null) holds files the starter passed itself: each stands for the name of
  // its slot when env does not set that name, and is given to the program as it is (the
  // program shares its open file description with the starter, as after a fork).
  static uint64_t create(const Ref<String>& path, uint32_t startFlags, const Ref<String>* args,
                         uint64_t argc, const Ref<Env>& env, const StartFiles* handed,
                         uint64_t forPid, StartedProgram* started);

  // The modules loaded in this process, the main program first (ModuleInfo stands in
  // platform/binary_services.h).
  static std::vector<Ref<ModuleInfo>> moduleList();
};
