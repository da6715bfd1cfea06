// Starting and collecting /bin/true: px_spawn + px_waitpid through the server, the same through
// the smallest server that does the job (spawn_floor.h), and posix_spawn + waitpid directly.
//
// A start lasts about a millisecond, and on a small shared machine what else runs moves that
// by more than the differences sought. So the three are not measured one after another: each
// round makes a list of single starts, STARTS of each case, shuffles it, and times each start
// on its own; the round's ratio is a case's total time over posix_spawn's. A disturbance then
// falls on every case alike. The run reports every round's ratios, and the worst and the
// median of the rounds (counters server_*, floor_*; BENCH_SPAWN_ROUNDS and BENCH_SPAWN_STARTS
// change the 10 rounds of 300 starts per case).
#include <benchmark/benchmark.h>
#include <spawn.h>
#include <sys/wait.h>
#include <time.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <vector>

#include "bench_measure.h"
#include "posix_client.h"
#include "spawn_floor.h"

extern char** environ;

namespace {

enum Case { kServer, kFloor, kLinux, kCases };
const char* const kCaseNames[kCases] = {"server", "floor", "linux"};

// One start and its collection; false when anything failed.
bool startOnce(Case which, SpawnFloor& floor) {
  static char* argv[] = {const_cast<char*>("true"), nullptr};
  int status = -1;
  switch (which) {
    case kServer: {
      int64_t pid = px_spawn("/bin/true", argv, environ, 0);
      return pid > 0 && px_waitpid(pid, &status, 0) == pid && status == 0;
    }
    case kFloor: {
      pid_t pid = floor.spawn("/bin/true");
      return pid > 0 && floor.wait(pid) == 0;
    }
    default: {
      pid_t pid = -1;
      return posix_spawn(&pid, "/bin/true", nullptr, nullptr, argv, environ) == 0 &&
             waitpid(pid, &status, 0) == pid && status == 0;
    }
  }
}

void BM_SpawnWaitInterleaved(benchmark::State& state) {
  const int rounds = envCount("BENCH_SPAWN_ROUNDS", 10);
  const int starts = envCount("BENCH_SPAWN_STARTS", 300);
  SpawnFloor floor;
  if (!floor.start()) {
    state.SkipWithError("the floor server did not start");
    return;
  }
  std::mt19937 shuffle(12345);
  std::vector<Case> order;
  for (int c = 0; c < kCases; ++c) order.insert(order.end(), static_cast<size_t>(starts), Case(c));
  std::vector<double> ratios[kCases];
  std::vector<double> meanUs[kCases];
  bool ok = true;
  for (auto _ : state) {
    for (int c = 0; c < kCases && ok; ++c) {
      for (int i = 0; i < 20 && ok; ++i) ok = startOnce(Case(c), floor);  // warm up
    }
    std::printf("spawn + wait /bin/true, single starts in shuffled order (%d per case a round), "
                "time / posix_spawn's:\n  round   server   floor   (us per start: server floor linux)\n",
                starts);
    for (int round = 0; round < rounds && ok; ++round) {
      std::shuffle(order.begin(), order.end(), shuffle);
      double total[kCases] = {0, 0, 0};
      for (Case which : order) {
        double began = nowUs();
        ok = startOnce(which, floor);
        total[which] += nowUs() - began;
        if (!ok) break;
      }
      for (int c = 0; c < kCases; ++c) {
        ratios[c].push_back(total[c] / total[kLinux]);
        meanUs[c].push_back(total[c] / starts);
      }
      std::printf("  %5d   %6.3f  %6.3f   (%.0f %.0f %.0f)\n", round + 1, ratios[kServer].back(),
                  ratios[kFloor].back(), meanUs[kServer].back(), meanUs[kFloor].back(),
                  meanUs[kLinux].back());
    }
  }
  floor.stop();
  if (!ok) {
    state.SkipWithError("a start or its wait failed");
    return;
  }
  for (int c : {kServer, kFloor}) {
    double worst = *std::max_element(ratios[c].begin(), ratios[c].end());
    std::printf("  %-6s worst %.3f  median %.3f\n", kCaseNames[c], worst, median(ratios[c]));
    state.counters[std::string(kCaseNames[c]) + "_worst"] = worst;
    state.counters[std::string(kCaseNames[c]) + "_median"] = median(ratios[c]);
  }
  state.counters["linux_us"] = median(meanUs[kLinux]);
  std::fflush(stdout);
}
// One iteration holds every round; repeating it would only repeat the rounds.
BENCHMARK(BM_SpawnWaitInterleaved)->Iterations(1)->Repetitions(1)->Unit(benchmark::kMillisecond);

}  // namespace
