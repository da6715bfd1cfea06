// Processes and programs. A process id is the Linux pid.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "platform/env.h"
#include "platform/object.h"
#include "platform/string.h"

// What the platform knows of one process; the operations stand in this order on purpose.
class ProcInfo : public Object {
 public:
  virtual Ref<String> name() const;
  virtual uint64_t pid() const;
  virtual uint64_t parentPid() const;
  // 2 for the server's own process, 1 for a process of uid 0, 0 otherwise.
  virtual uint32_t level() const;
  // Threads of the process (from /proc).
  uint64_t threadCount() const { return threads_; }

 private:
  friend class Proc;
  ProcInfo() = default;
  Ref<String> name_;
  uint64_t pid_ = 0;
  uint64_t parentPid_ = 0;
  uint32_t level_ = 0;
  uint64_t threads_ = 0;
};

// Who a process is on this host: its pid and a serial number the host gives that process and
// no other. A pid is handed out again once its process has been collected; the pair names one
// process only. The serial is the inode number of the process's pidfd where the host keeps
// pidfds in a file system of their own (Linux 6.9 on), which no other process ever gets, else
// the host's start time of the process in clock ticks (field 22 of /proc/<pid>/stat), which a
// process that gets the pid within the same tick shares.
struct ProcIdentity {
  uint64_t pid = 0;
  uint64_t serial = 0;
  bool operator==(const ProcIdentity&) const = default;
  explicit operator bool() const { return pid != 0; }
};

// The three signals that act on a host process; every other signal is the server's business.
enum class HostSignal { Kill, Stop, Cont };

// A program as the one who started it holds it (Binary::create fills it in): its pid, the
// host's start time read around its start, and a pidfd from its start. Proc::identity,
// Proc::awaitEnd and Proc::wait take it, so that whoever started a program, on whatever thread,
// waits for that program and no other. Moves, does not copy; closes its pidfd when it goes.
class StartedProgram {
 public:
  StartedProgram() = default;
  StartedProgram(StartedProgram&& other) noexcept { *this = std::move(other); }
  StartedProgram& operator=(StartedProgram&& other) noexcept;
  StartedProgram(const StartedProgram&) = delete;
  StartedProgram& operator=(const StartedProgram&) = delete;
  ~StartedProgram() { dropPidfd(); }
  // 0 once collected (or before a start).
  uint64_t pid() const { return pid_; }

 private:
  friend class Binary;
  friend class Proc;
  void dropPidfd();
  uint64_t pid_ = 0;
  // The start time in /proc's clock ticks when the clock read before and after the start fell
  // in one tick, else 0.
  uint64_t startTick_ = 0;
  int pidfd_ = -1;
};

// The files a starter handed over with its start request, as it holds them: its standard
// input, output and error and its working directory. Each is owned (HostFd) until the
// StartFiles goes, which is after the start has answered; -1 where none came. Moves, does not
// copy.
class StartFiles {
 public:
  static constexpr int kSlots = 4;
  static constexpr int kDirSlot = 3;  // 0, 1 and 2 are the standard numbers

  StartFiles() = default;
  StartFiles(StartFiles&& other) noexcept { *this = std::move(other); }
  StartFiles& operator=(StartFiles&& other) noexcept;
  StartFiles(const StartFiles&) = delete;
  StartFiles& operator=(const StartFiles&) = delete;
  ~StartFiles() { clear(); }

  // Keeps `fd` for `slot` (closing what it held there); a negative one leaves it empty.
  void set(int slot, int fd);
  int get(int slot) const { return slot >= 0 && slot < kSlots ? fds_[slot] : -1; }
  void clear();

 private:
  int fds_[kSlots] = {-1, -1, -1, -1};
};

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
  // its pid, so it is read from what its start left (the pidfd is used up and closed).
  static ProcIdentity identity(StartedProgram& program);
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

// Shared memory: RT/shm/<id> (16 lowercase hex digits); its id is the pair (id, size).
struct ShMemID {
  uint64_t id = 0;
  uint64_t size = 0;
};

class SharedMemory : public Object {
 public:
  ShMemID id() const { return id_; }
  // Lets `pid` open the object; the hosted platform has nothing to grant and answers true.
  bool grant(uint64_t pid);
  ~SharedMemory() override;

 private:
  friend class ShMem;
  SharedMemory(int fd, ShMemID id) : fd_(fd), id_(id) {}
  int fd_;
  ShMemID id_;
};

class ShMem {
 public:
  // Opens an existing object without waiting (EWOULDBLOCK when someone holds a lease on it);
  // null with Error set when it is missing (ENOENT), is a link (ELOOP) or no regular file
  // (EINVAL).
  static Ref<SharedMemory> open(ShMemID id);
  // Makes a new object of `size` bytes (used by tests; clients make their own).
  static Ref<SharedMemory> create(uint64_t size);
};
