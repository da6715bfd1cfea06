// Processes: the platform's calls on a process. A process id is the Linux pid.
#pragma once

#include <cstdint>

#include "platform/object.h"
#include "platform/proc_info.h"
#include "platform/started_program.h"
#include "platform/string.h"

class Proc {
 public:
  static uint64_t current();
  // Null when there is no process `pid`: no /proc/<pid>, or `pid` is a thread that does not
  // lead its process.
  static Ref<ProcInfo> info(uint64_t pid);
  // The identity of process `pid` now; empty when there is none or `pid` is a thread that does
  // not lead its process.
  static ProcIdentity identity(uint64_t pid);
  // The identity of a program the caller started and has not collected: nobody else can have
  // its pid, so it is read from what its start left (its pidfd, which the caller then drops).
  static ProcIdentity identity(const StartedProgram& program);
  // Sends `what` to the process `who`, only while its pid still names that process (a pidfd is
  // opened and its serial checked first). With `withGroup` it also goes to the host process
  // group that `who` leads; the caller makes sure that `who` has not been collected yet, so that
  // the group id is still its own. False with Error ESRCH when `who` has gone, EPERM for the
  // calling process itself (nothing signals its own process), else the host's error.
  static bool send(const ProcIdentity& who, HostSignal what, bool withGroup = false);
  // The privilege level (ProcInfo::level) of a process of user `uid`, and the calling process's
  // real user, whose level every program it starts has.
  static uint32_t levelOfUser(uint64_t uid);
  static uint64_t uid();
  // Waits until `program` has ended, without collecting it: its pid, and the process group it
  // leads, stay its own until wait(). Answers what wait() will answer.
  static uint32_t awaitEnd(const StartedProgram& program);
  // Waits for `program`, collects it and answers its exit status, or 128 + the signal number
  // when a signal ended it; 0xFFFFFFFF with Error ECHILD when it was collected already.
  static uint32_t wait(StartedProgram& program);
  // The tasks (processes and threads) the host lets the calling process's user have at once:
  // the least of the kernel's pid_max and threads-max and the user's process limit
  // (RLIMIT_NPROC, read afresh on each call); UINT64_MAX when none is known.
  static uint64_t taskLimit();
  // Ends the process with code & 0xFF.
  [[noreturn]] static void exit(int32_t code);
  // The calling process's name.
  static Ref<String> name();
  // Tells the program start that this process has changed a signal's action: the platform's
  // code calls it after every change (a start sets back only actions it knows of).
  static void signalActionsChanged();
  // Whether every thread of process `pid` is stopped now (by a stop signal or a tracer); false
  // when any runs or may run, or the process has gone.
  static bool stopped(uint64_t pid);
};
