// Every round's ratio of the benchmarks that run in rounds and report only their worst and
// median as counters: the run prints them all, in the order they ran, after its ratios.
#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

// The rounds one load condition logged, by benchmark name with its argument and counter prefix
// ("BM_PipeRounds/4096" and "floor_").
using RoundLog = std::map<std::pair<std::string, std::string>, std::vector<double>>;

inline RoundLog& roundLog() {
  static RoundLog log;
  return log;
}

// Called by a benchmark once its rounds are done.
inline void logRounds(const std::string& benchmark, const std::string& prefix,
                      std::vector<double> ratios) {
  roundLog()[{benchmark, prefix}] = std::move(ratios);
}

// What the benchmarks logged since the last call (main takes it after each load condition).
inline RoundLog takeRounds() { return std::exchange(roundLog(), {}); }
