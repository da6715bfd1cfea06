// CPU-bound processes beside the benchmarks: the "busy machine" half of a run. One process per
// core spins until stopped, so every hand-over between the client and the server competes for
// a core as it would on a loaded host.
#pragma once

#include <sys/types.h>

#include <vector>

class BusyLoad {
 public:
  // Starts one spinning process per online core.
  void start();
  // Kills and collects them.
  void stop();
  ~BusyLoad() { stop(); }
  size_t size() const { return spinners_.size(); }

 private:
  std::vector<pid_t> spinners_;
};
