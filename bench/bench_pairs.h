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
  // A pair measured in interleaved rounds by one benchmark (`server` names it with its
  // argument, e.g. "BM_PipeRounds/4096"), which reports the worst and the median round's ratio
  // itself: `target` holds for the median and this for the worst round in every run.
  // 0: no target for the worst round.
  double worstTarget = -1;
  // The prefix of the counters it reports them under ("server_worst", "server_median").
  const char* counterPrefix = "";
  bool rounds() const { return worstTarget >= 0; }
};

inline const std::vector<BenchPair>& benchPairs() {
  static const std::vector<BenchPair> pairs = {
      {"round trip (getParentId)", "BM_RoundTripServer", "BM_RoundTripEcho", 1.3, false},
      {"round trip, monitor reading", "BM_RoundTripMonitored", "BM_RoundTripServer", 1.15, false,
       "unwatched"},
      {"round trip, monitor stopped", "BM_RoundTripMonitorStopped", "BM_RoundTripServer", 1.15,
       false, "unwatched"},
      {"spawn + wait /bin/true", "BM_SpawnWaitInterleaved", "", 1.2, false, "posix_spawn", -1, 0,
       "server_"},
      {"spawn + wait, smallest server", "BM_SpawnWaitInterleaved", "", 0, false, "posix_spawn", -1, 0,
       "floor_"},
      {"pipe 64 MiB, 512 B calls", "BM_PipeRounds/512", "", 1.0, true, "4 KiB pipe", -1, 0.8},
      {"  the same, ring alone (floor)", "BM_PipeRounds/512", "", 0, true, "4 KiB pipe", -1, 0,
       "floor_"},
      {"pipe 64 MiB, 4 KiB calls", "BM_PipeRounds/4096", "", 1.0, true, "4 KiB pipe", -1, 0.8},
      {"  the same, ring alone (floor)", "BM_PipeRounds/4096", "", 0, true, "4 KiB pipe", -1, 0,
       "floor_"},
      {"pipe 64 MiB, 64 KiB calls", "BM_PipeRounds/65536", "", 1.0, true, "4 KiB pipe", -1, 0.8},
      {"  the same, ring alone (floor)", "BM_PipeRounds/65536", "", 0, true, "4 KiB pipe", -1, 0,
       "floor_"},
      {"pipe + 2 close", "BM_PipeCreateCloseServer", "BM_PipeCreateCloseLinux", 15.0, false},
      {"file read 64 MiB in 64 KiB reads", "BM_FileReadRounds", "", 0.9, true, "Linux", -1, 0},
      {"12000 kept: getGroupId of newest", "BM_ScaleRounds", "", 1.5, false, "100 kept", -1, 0, "getGroupId_"},
      {"12000 kept: kill 0 of the caller", "BM_ScaleRounds", "", 1.5, false, "100 kept", -1, 0, "kill0_"},
      {"12000 kept: getParentId", "BM_ScaleRounds", "", 1.5, false, "100 kept", -1, 0, "getParentId_"},
      {"12000 kept: spawn + wait /bin/true", "BM_ScaleRounds", "", 1.5, false, "100 kept", -1, 0, "spawnWait_"},
      {"12000 kept: waitpid of one child", "BM_ScaleRounds", "", 1.5, false, "100 kept", -1, 0, "waitOne_"},
      {"12000 kept: px_dup + px_close", "BM_ScaleRounds", "", 1.5, false, "100 kept", -1, 0, "dupClose_"},
  };
  return pairs;
}
