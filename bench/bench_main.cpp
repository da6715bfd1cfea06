// Runs every benchmark against a private server and prints, after Google Benchmark's own
// table, the ratio of each server path to its Linux equivalent measured in the same run.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>

#include "bench_instance.h"
#include "bench_load.h"
#include "bench_pairs.h"
#include "bench_rounds.h"
#include "bench_scale.h"

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
      failed_ |= run.error_occurred;
      if (run.run_type == Run::RT_Iteration && !run.counters.empty()) {
        auto& kept = counters_[run.run_name.args.empty() ? name : name + "/" + run.run_name.args];
        for (const auto& [key, counter] : run.counters) kept[key] = counter.value;
      }
      if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "median") {
        times_[name] = run.GetAdjustedRealTime();
        medians_.insert(name);
      } else if (run.run_type == Run::RT_Iteration && run.iterations > 0 && !medians_.contains(name)) {
        times_[name] = run.GetAdjustedRealTime();
      }
    }
  }
  const std::map<std::string, double>& times() const { return times_; }
  // The counters a benchmark reported, by name with its argument ("BM_PipeRounds/4096").
  const std::map<std::string, std::map<std::string, double>>& counters() const { return counters_; }
  // Whether a benchmark could not run to its end (it reported an error).
  bool failed() const { return failed_; }

 private:
  std::map<std::string, double> times_;
  std::map<std::string, std::map<std::string, double>> counters_;
  bool failed_ = false;
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

bool meets(const BenchPair& pair, double ratio, double target) {
  return pair.higherIsBetter ? ratio >= target : ratio <= target;
}

// "1.07 met", "0.81 MISSED", "1.07" without a target, "-" when not measured; for a pair in
// rounds "0.85 / 1.20 met" (worst / median), marked "noisy" when the Linux side's transfers
// spread more than twofold.
std::string verdict(const BenchPair& pair, const RatioReporter& run, double target) {
  char text[64];
  if (pair.rounds()) {
    auto found = run.counters().find(pair.server);
    const std::string worstName = std::string(pair.counterPrefix) + "worst";
    const std::string medianName = std::string(pair.counterPrefix) + "median";
    if (found == run.counters().end() || !found->second.contains(medianName)) return "-";
    const auto& c = found->second;
    double worst = c.at(worstName), median = c.at(medianName);
    bool met = meets(pair, median, target) && (pair.worstTarget <= 0 || meets(pair, worst, pair.worstTarget));
    const bool noisy = c.contains("linux_spread") && c.at("linux_spread") > 2;
    std::snprintf(text, sizeof text, "%.2f / %.2f%s%s", worst, median,
                  target <= 0 ? "" : met ? " met" : " MISSED", noisy ? " noisy" : "");
    return text;
  }
  double ratio = ratioOf(pair, run.times());
  if (ratio < 0) return "-";
  std::snprintf(text, sizeof text, "%.2f%s", ratio,
                target <= 0 ? "" : meets(pair, ratio, target) ? " met" : " MISSED");
  return text;
}

// A load the benchmarks run beside: how many CPU-bound processes, each in a session of its own.
struct Condition {
  const char* name;
  size_t spinners;
  RatioReporter report;
  double load = -1;  // the host's one-minute load average when the condition ended
  RoundLog rounds = {};  // every round of the benchmarks that log them
};

std::string trimmed(std::string text) {
  text.erase(text.find_last_not_of(' ') + 1);
  return text;
}

// Every logged round of each pair in rounds, in the order they ran, one column per condition:
// a median hides whether the rounds split into two kinds.
void printRounds(const Condition* conditions, size_t count) {
  bool any = false;
  for (const BenchPair& pair : benchPairs()) {
    if (!pair.rounds()) continue;
    std::string row;
    bool logged = false;
    for (size_t i = 0; i < count; ++i) {
      auto found = conditions[i].rounds.find({pair.server, pair.counterPrefix});
      std::string cell;
      if (found != conditions[i].rounds.end()) {
        logged = true;
        for (double ratio : found->second) {
          char text[16];
          std::snprintf(text, sizeof text, "%s%.2f", cell.empty() ? "" : " ", ratio);
          cell += text;
        }
      }
      char column[64];
      std::snprintf(column, sizeof column, " %-30s", cell.empty() ? "-" : cell.c_str());
      row += column;
    }
    if (!logged) continue;
    if (!any) {
      std::string header;
      for (size_t i = 0; i < count; ++i) {
        char column[64];
        std::snprintf(column, sizeof column, " %-30s", conditions[i].name);
        header += column;
      }
      std::printf("\nEvery round, in the order run:\n  %-34s%s\n", "pair", trimmed(header).c_str());
      any = true;
    }
    std::printf("  %-34s%s\n", pair.label, trimmed(row).c_str());
  }
}

// Whether Google Benchmark's --benchmark_filter `filter` (a regular expression, or one that
// excludes what it matches when it starts with '-') takes the benchmark `name`.
bool filterTakes(const std::string& filter, const std::string& name) {
  const bool negated = !filter.empty() && filter[0] == '-';
  const std::string pattern = negated ? filter.substr(1) : filter;
  if (pattern.empty() || pattern == "all") return !negated;
  bool found = std::regex_search(name, std::regex(pattern, std::regex::extended));
  return negated ? !found : found;
}

}  // namespace

// Runs every benchmark on an idle machine, then beside one CPU-bound process, then beside one
// per core (--idle-only skips those two), the scale benchmark after all others under each load
// again, and prints each pair's ratio under each load. With
// --benchmark_repetitions=N the ratios of time pairs are of the medians; pairs in rounds give
// their worst and median round.
int main(int argc, char** argv) {
  if (scaleKeeperMode(argc, argv)) return 0;
  bool busyToo = true;
  bool scaleToo = true;
  int kept = 1;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--idle-only") {
      busyToo = false;
      continue;
    }
    if (arg.starts_with("--benchmark_filter=")) scaleToo = filterTakes(arg.substr(19), kScaleBenchmark);
    argv[kept++] = argv[i];
  }
  argc = kept;
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  BenchInstance instance;
  if (!instance.start()) return 1;
  long cores = sysconf(_SC_NPROCESSORS_ONLN);
  Condition conditions[] = {{"idle", 0, {}},
                            {"1 beside", 1, {}},
                            {"1 per core", static_cast<size_t>(cores > 0 ? cores : 1), {}}};
  const size_t count = busyToo ? 3 : 1;
  double idleLoad = 0;
  for (size_t i = 0; i < count; ++i) {
    Condition& c = conditions[i];
    BusyLoad load;
    load.start(c.spinners);
    const double before = loadAverage();
    if (i == 0) idleLoad = before;
    std::printf("%s%s (%zu CPU-bound processes beside the benchmark, each in a session of its own; "
                "load average %.2f):\n", i ? "\n" : "", c.name, load.size(), before);
    benchmark::RunSpecifiedBenchmarks(&c.report);
    c.load = loadAverage();
    c.rounds = takeRounds();
  }
  // The scale benchmark last, under each load again.
  registerScaleBenchmark();
  for (size_t i = 0; scaleToo && i < count; ++i) {
    Condition& c = conditions[i];
    BusyLoad load;
    load.start(c.spinners);
    std::printf("\n%s, the scale benchmark (load average %.2f):\n", c.name, loadAverage());
    benchmark::RunSpecifiedBenchmarks(&c.report, kScaleBenchmark);
  }
  instance.stop();

  std::printf("\nRatios (each column from its own run; spawn and pipes: worst / median of %s):\n  %-34s %-22s",
              "interleaved rounds", "pair", "measure");
  for (size_t i = 0; i < count; ++i) std::printf(" %-20s", conditions[i].name);
  std::printf(" %s\n", "target (idle / busy)");
  for (const BenchPair& pair : benchPairs()) {
    std::string measure = std::string(pair.higherIsBetter ? "speed vs " : "time vs ") + pair.versus;
    double busyTarget = pair.busyTarget >= 0 ? pair.busyTarget : pair.target;
    char target[64] = "none";
    const char* sense = pair.higherIsBetter ? ">=" : "<=";
    if (pair.rounds() && pair.worstTarget > 0) std::snprintf(target, sizeof target, "worst %s %.2f, median %s %.2f", sense, pair.worstTarget, sense, pair.target);
    else if (pair.rounds() && pair.target > 0) std::snprintf(target, sizeof target, "median %s %.2f", sense, pair.target);
    else if (pair.target > 0) std::snprintf(target, sizeof target, "%s %.2f / %.2f", sense, pair.target, busyTarget);
    std::printf("  %-34s %-22s", pair.label, measure.c_str());
    for (size_t i = 0; i < count; ++i)
      std::printf(" %-20s", verdict(pair, conditions[i].report, i == 0 ? pair.target : busyTarget).c_str());
    std::printf(" %s\n", target);
  }
  std::printf("  load average at the end of each run:");
  for (size_t i = 0; i < count; ++i) std::printf(" %s %.2f;", conditions[i].name, conditions[i].load);
  std::printf("\n");
  // The benchmark's own processes add about one to the load; much more means other work ran.
  if (idleLoad > 1.0)
    std::printf("  The idle run was not idle (load average %.2f at its start): its figures do not count.\n",
                idleLoad);
  printRounds(conditions, count);
  benchmark::Shutdown();
  bool failed = false;
  for (size_t i = 0; i < count; ++i) failed |= conditions[i].report.failed();
  return failed ? 1 : 0;
}
