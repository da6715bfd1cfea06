// CPU-bound processes beside the benchmarks: the "busy machine" runs. Each spins until
// stopped, so every hand-over between a client and the server competes for a core as it would
// on a loaded host. Each starts a session of its own (setsid), as a program started from
// another terminal or by another user does; the host's scheduler then shares a core between
// sessions before it shares it between the processes of one.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <vector>

class BusyLoad {
 public:
  // Starts `count` spinning processes.
  void start(size_t count);
  // Kills and collects them.
  void stop();
  ~BusyLoad() { stop(); }
  size_t size() const { return spinners_.size(); }

 private:
  std::vector<pid_t> spinners_;
};

// The host's load average over the last minute (-1 when unknown).
double loadAverage();
