// Runs every benchmark against a private server and prints, after Google Benchmark's own
// table, the ratio of each server path to its Linux equivalent measured in the same run.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <map>
#include <set>
#include <sstream>
#include <string>

#include "bench_instance.h"
#include "bench_pairs.h"

namespace {

// Keeps each run's time per iteration, by benchmark name, beside the console output. Colour
// only on a terminal, so that a redirected run leaves a plain file.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  RatioReporter() : ConsoleReporter(isatty(STDOUT_FILENO) ? OO_ColorTabular : OO_Tabular) {}

  // Debian builds Google Benchmark without NDEBUG, so its context always warns "Library was
  // built as DEBUG": that is about the benchmark library's own build, not about the code
  // measured here (the release preset builds it optimised). The line is replaced by a note.
  bool ReportContext(const Context& context) override {
    std::ostream& err = GetErrorStream();
    std::ostringstream text;
    SetErrorStream(&text);
    bool ok = ConsoleReporter::ReportContext(context);
    SetErrorStream(&err);
    std::istringstream lines(text.str());
    for (std::string line; std::getline(lines, line);) {
      if (line.find("Library was built as DEBUG") != std::string::npos) {
        line = "(Google Benchmark was built without NDEBUG; the code measured is optimised)";
      }
      err << line << '\n';
    }
    return ok;
  }

  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    // With --benchmark_repetitions the median of the repetitions stands for the benchmark.
    for (const Run& run : runs) {
      const std::string& name = run.run_name.function_name;
      if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "median") {
        times_[name] = run.GetAdjustedRealTime();
        medians_.insert(name);
      } else if (run.run_type == Run::RT_Iteration && run.iterations > 0 && !medians_.contains(name)) {
        times_[name] = run.GetAdjustedRealTime();
      }
    }
  }
  const std::map<std::string, double>& times() const { return times_; }

 private:
  std::map<std::string, double> times_;
  std::set<std::string> medians_;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  BenchInstance instance;
  if (!instance.start()) return 1;
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  instance.stop();

  // Time pairs report server time / Linux time (lower is better); throughput pairs report the
  // server's speed as a share of Linux's, Linux time / server time (higher is better).
  std::printf("\nRatios (same run):\n");
  for (const BenchPair& pair : benchPairs()) {
    auto server = reporter.times().find(pair.server);
    auto linux = reporter.times().find(pair.linux);
    if (server == reporter.times().end() || linux == reporter.times().end() || linux->second <= 0) continue;
    if (server->second <= 0) continue;
    double ratio = pair.higherIsBetter ? linux->second / server->second : server->second / linux->second;
    std::string measure = std::string(pair.higherIsBetter ? "speed vs " : "time vs ") + pair.versus;
    if (pair.target <= 0) {
      std::printf("  %-34s %-22s %6.2f  (no target)\n", pair.label, measure.c_str(), ratio);
      continue;
    }
    std::printf("  %-34s %-22s %6.2f  (target %s %.2f)  %s\n", pair.label, measure.c_str(), ratio,
                pair.higherIsBetter ? ">=" : "<=", pair.target,
                (pair.higherIsBetter ? ratio >= pair.target : ratio <= pair.target) ? "met" : "MISSED");
  }
  benchmark::Shutdown();
  return 0;
}
