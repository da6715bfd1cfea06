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
#include "bench_load.h"
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

namespace {

// The pair's ratio from one run's times: server time / Linux time for time pairs (lower is
// better), Linux time / server time for throughput pairs (the server's speed as a share of
// Linux's, higher is better). Negative when either benchmark did not run.
double ratioOf(const BenchPair& pair, const std::map<std::string, double>& times) {
  auto server = times.find(pair.server), linux = times.find(pair.linux);
  if (server == times.end() || linux == times.end() || server->second <= 0 || linux->second <= 0) return -1;
  return pair.higherIsBetter ? linux->second / server->second : server->second / linux->second;
}

// "1.07 met", "0.81 MISSED", "1.07" without a target, "-" when not measured.
std::string verdict(const BenchPair& pair, double ratio, double target) {
  if (ratio < 0) return "-";
  char text[32];
  bool met = pair.higherIsBetter ? ratio >= target : ratio <= target;
  std::snprintf(text, sizeof text, "%.2f%s", ratio, target <= 0 ? "" : met ? " met" : " MISSED");
  return text;
}

}  // namespace

// Runs every benchmark on an idle machine, then again beside one CPU-bound process per core
// (--idle-only skips that), and prints each pair's ratio in both. With
// --benchmark_repetitions=N the ratios are of the medians.
int main(int argc, char** argv) {
  bool busyToo = true;
  int kept = 1;
  for (int i = 1; i < argc; ++i) {
    if (std::string(argv[i]) == "--idle-only") busyToo = false;
    else argv[kept++] = argv[i];
  }
  argc = kept;
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  BenchInstance instance;
  if (!instance.start()) return 1;
  RatioReporter idle, busy;
  std::printf("Idle machine:\n");
  benchmark::RunSpecifiedBenchmarks(&idle);
  if (busyToo) {
    BusyLoad load;
    load.start();
    std::printf("\nBusy machine (%zu CPU-bound processes beside the benchmark):\n", load.size());
    benchmark::RunSpecifiedBenchmarks(&busy);
  }
  instance.stop();

  std::printf("\nRatios (each column from its own run):\n  %-34s %-22s %-14s %-14s %s\n", "pair",
              "measure", "idle", "busy", "target (idle / busy)");
  for (const BenchPair& pair : benchPairs()) {
    std::string measure = std::string(pair.higherIsBetter ? "speed vs " : "time vs ") + pair.versus;
    double busyTarget = pair.busyTarget >= 0 ? pair.busyTarget : pair.target;
    char target[48] = "none";
    const char* sense = pair.higherIsBetter ? ">=" : "<=";
    if (pair.target > 0) std::snprintf(target, sizeof target, "%s %.2f / %.2f", sense, pair.target, busyTarget);
    std::printf("  %-34s %-22s %-14s %-14s %s\n", pair.label, measure.c_str(),
                verdict(pair, ratioOf(pair, idle.times()), pair.target).c_str(),
                verdict(pair, ratioOf(pair, busy.times()), busyTarget).c_str(), target);
  }
  benchmark::Shutdown();
  return 0;
}
