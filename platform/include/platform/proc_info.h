// What the platform knows of a process: its record, who it is on this host, and the
// signals that act on it.
#pragma once

#include <cstdint>

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
