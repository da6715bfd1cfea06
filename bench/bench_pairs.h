// The pairs of benchmarks whose ratio the run reports: the server's path and its Linux
// equivalent. Each benchmark file adds its pairs here.
#pragma once

#include <vector>

struct BenchPair {
  const char* label;
  const char* server;  // benchmark name of the server's path
  const char* linux;   // benchmark name of the Linux equivalent
  double target;       // the ratio the server must stay within; 0 when none is set
  bool higherIsBetter;  // throughput pairs: the ratio of speeds must reach the target
  const char* versus = "Linux";  // what the second benchmark is, for the report
  double busyTarget = -1;         // the target beside CPU-bound load; negative: as `target`
};

inline const std::vector<BenchPair>& benchPairs() {
  static const std::vector<BenchPair> pairs = {
      {"round trip (getParentId)", "BM_RoundTripServer", "BM_RoundTripEcho", 1.3, false},
      {"round trip, monitor reading", "BM_RoundTripMonitored", "BM_RoundTripServer", 1.15, false,
       "unwatched"},
      {"round trip, monitor stopped", "BM_RoundTripMonitorStopped", "BM_RoundTripServer", 1.15,
       false, "unwatched"},
      {"pipe 256 MiB vs 4 KiB pipe", "BM_PipeThroughputServer", "BM_PipeThroughputLinux4K", 1.0,
       true, "Linux", 0.6},
      {"pipe 256 MiB vs default pipe", "BM_PipeThroughputServer", "BM_PipeThroughputLinuxDefault",
       0.0, true},
      {"pipe + 2 close", "BM_PipeCreateCloseServer", "BM_PipeCreateCloseLinux", 15.0, false},
      {"file read 64 MiB in 64 KiB reads", "BM_FileReadServer", "BM_FileReadLinux", 0.9, true},
  };
  return pairs;
}
