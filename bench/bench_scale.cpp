// What a request costs when the server keeps many programs: two callers, each leading a group
// of kept children (programs that sleep until the benchmark ends), one with 100, the other with
// 12,000 (BENCH_SCALE_KEPT). Each caller is a forked process that connects by itself and so
// leads a group of its own; a caller may have at most 8192 children, so the large one starts
// half of its programs itself and the other half through a keeper it started (this binary with
// --scale-keeper), which joins its group.
//
// The two callers are measured in interleaved rounds (BENCH_SCALE_ROUNDS, 7), each request kind
// in ten turns per caller whose order alternates, so that what else runs on the machine falls on
// both alike; each round's ratio is the large caller's time over the small one's. The small caller is also measured before the
// large group exists, so the run shows too what the server's own growth costs. At the end the
// large caller signals KILL to its own group, which ends it, its keeper and every kept program,
// and the benchmark waits until none is left.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "bench_scale.h"
#include "bench_measure.h"
#include "posix_client.h"

extern char** environ;

namespace {

enum Op { kGetGroupId, kKillProbe, kGetParentId, kSpawnWait, kWaitOne, kDupClose, kOps,
          kGroupCont = 50, kSlowestTrip, kEnd = 99 };
const char* const kOpNames[kOps] = {"getGroupId", "kill0", "getParentId", "spawnWait", "waitOne",
                                    "dupClose"};
// Requests per caller and round: some tens of milliseconds each.
const int kOpCount[kOps] = {1000, 1000, 1000, 30, 30, 500};

bool writeAll(int fd, const void* data, size_t size) {
  return write(fd, data, size) == static_cast<ssize_t>(size);
}
bool readAll(int fd, void* data, size_t size) {
  size_t got = 0;
  while (got < size) {
    ssize_t n = read(fd, static_cast<char*>(data) + got, size - got);
    if (n <= 0) return false;
    got += static_cast<size_t>(n);
  }
  return true;
}

// Starts `count` programs that sleep until they are killed, as children of the caller; answers
// how many started and the last one's pid.
int startKept(int count, const std::string& marker, int64_t* newest) {
  static char empty0[] = "POSIX_STDIN=", empty1[] = "POSIX_STDOUT=", empty2[] = "POSIX_STDERR=";
  char* env[] = {empty0, empty1, empty2, nullptr};
  char* argv[] = {const_cast<char*>("sleep"), const_cast<char*>(marker.c_str()), nullptr};
  int started = 0;
  for (; started < count; ++started) {
    int64_t pid = px_spawn("/bin/sleep", argv, env, 0);
    if (pid <= 0) break;
    *newest = pid;
  }
  return started;
}

bool spawnTrue(int64_t* pid) {
  static char* argv[] = {const_cast<char*>("true"), nullptr};
  *pid = px_spawn("/bin/true", argv, environ, 0);
  return *pid > 0;
}

// One caller's measure of `op`, `count` times: the time it took in microseconds, or -1.
double measure(Op op, int count, int64_t newest, int fd) {
  double total = 0;
  int status = 0;
  for (int i = 0; i < count; ++i) {
    double began = nowUs();
    bool ok = true;
    switch (op) {
      case kGetGroupId: ok = px_getpgid(newest) > 0; break;
      // A probe reaches only a connected process: the caller itself.
      case kKillProbe: ok = px_kill(getpid(), 0) == 0; break;
      case kGetParentId: ok = px_getppid() >= 0; break;
      case kSpawnWait: {
        int64_t pid = 0;
        ok = spawnTrue(&pid) && px_waitpid(pid, &status, 0) == pid;
        break;
      }
      case kWaitOne: {
        // Collecting one ended child by pid: the start and the wait for its end are not timed.
        int64_t pid = 0;
        if (!spawnTrue(&pid)) return -1;
        while (px_waitpid(pid, &status, PX_WNOHANG | PX_WNOWAIT) == 0) usleep(200);
        began = nowUs();
        ok = px_waitpid(pid, &status, 0) == pid;
        break;
      }
      case kDupClose: {
        int copy = px_dup(fd);
        ok = copy >= 0 && px_close(copy) == 0;
        break;
      }
      case kGroupCont: ok = px_killpg(0, 17) == 0; break;  // continue: a host signal per member
      case kSlowestTrip: {
        ok = px_getppid() >= 0;
        total = std::max(total, nowUs() - began);  // the slowest, not the sum
        continue;
      }
      default: return -1;
    }
    total += nowUs() - began;
    if (!ok) {
      std::fprintf(stderr, "scale: %s failed: %s\n", kOpNames[op], std::strerror(errno));
      return -1;
    }
  }
  return total;
}

// A caller: a forked process that starts `direct` kept programs itself and `viaKeeper` through
// a keeper, answers how many it keeps, then serves measures until told to end.
[[noreturn]] void callerMain(int commands, int answers, int direct, int viaKeeper,
                             const std::string& marker) {
  int64_t newest = 0;
  double kept = startKept(direct, marker, &newest);
  if (viaKeeper > 0) {
    int report[2];
    char self[4096] = {};
    if (pipe(report) != 0 || readlink("/proc/self/exe", self, sizeof self - 1) <= 0) _exit(1);
    std::string out = "POSIX_STDOUT=/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(report[1]);
    std::vector<char*> env;
    for (char** e = environ; *e; ++e) env.push_back(*e);
    env.push_back(out.data());
    env.push_back(nullptr);
    std::string count = std::to_string(viaKeeper);
    char* argv[] = {self, const_cast<char*>("--scale-keeper"), count.data(),
                    const_cast<char*>(marker.c_str()), nullptr};
    int keeperKept = 0;
    if (px_spawn(self, argv, env.data(), 0) > 0) readAll(report[0], &keeperKept, sizeof keeperKept);
    kept += keeperKept;
  }
  int pipeFds[2];
  if (px_pipe(pipeFds) != 0) kept = -1;
  // Once each before anything is measured: the first descriptor call fetches the table.
  for (int op = 0; op < kOps && kept >= 0; ++op)
    if (measure(static_cast<Op>(op), 1, newest, pipeFds[0]) < 0) kept = -1;
  writeAll(answers, &kept, sizeof kept);
  for (;;) {
    int request[2];
    if (!readAll(commands, request, sizeof request)) break;
    if (request[0] == kEnd) break;
    double took = measure(static_cast<Op>(request[0]), request[1], newest, pipeFds[0]);
    writeAll(answers, &took, sizeof took);
  }
  // KILL to the caller's own group: its kept programs, its keeper and itself.
  px_killpg(0, 9);
  _exit(0);
}

struct Caller {
  pid_t pid = -1;
  int commands = -1, answers = -1;
  double kept = 0;

  bool start(int direct, int viaKeeper, const std::string& marker) {
    int toCaller[2], fromCaller[2];
    if (pipe(toCaller) != 0 || pipe(fromCaller) != 0) return false;
    pid = fork();
    if (pid == 0) {
      close(toCaller[1]);
      close(fromCaller[0]);
      callerMain(toCaller[0], fromCaller[1], direct, viaKeeper, marker);
    }
    close(toCaller[0]);
    close(fromCaller[1]);
    commands = toCaller[1];
    answers = fromCaller[0];
    if (pid > 0 && readAll(answers, &kept, sizeof kept) && kept >= 0) return true;
    std::fprintf(stderr, "scale: a caller could not start its kept programs\n");
    return false;
  }
  bool send(Op op, int count) {
    int request[2] = {op, count};
    return writeAll(commands, request, sizeof request);
  }
  double receive() {
    double took = -1;
    return readAll(answers, &took, sizeof took) ? took : -1;
  }
  double run(Op op, int count) { return send(op, count) ? receive() : -1; }
  void end() {
    if (pid <= 0) return;
    int request[2] = {kEnd, 0};
    writeAll(commands, request, sizeof request);
    int status = 0;
    waitpid(pid, &status, 0);
    close(commands);
    close(answers);
    pid = -1;
  }
};

// Host processes whose arguments are exactly `sleep MARKER`.
int keptLeft(const std::string& marker) {
  const std::string wanted = std::string("sleep") + '\0' + marker + '\0';
  int left = 0;
  std::error_code ignored;
  for (const auto& entry : std::filesystem::directory_iterator("/proc", ignored)) {
    int fd = open((entry.path() / "cmdline").c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) continue;
    char text[128];
    ssize_t n = read(fd, text, sizeof text);
    close(fd);
    if (n == static_cast<ssize_t>(wanted.size()) && std::memcmp(text, wanted.data(), wanted.size()) == 0) ++left;
  }
  return left;
}

// The host's tasks: the lowest of pid_max, threads-max and the user's limit, and those running.
long hostTasksFree() {
  long limit = 0, running = 0;
  std::ifstream("/proc/sys/kernel/pid_max") >> limit;
  long threads = 0;
  std::ifstream("/proc/sys/kernel/threads-max") >> threads;
  if (threads > 0) limit = std::min(limit, threads);
  std::ifstream loadavg("/proc/loadavg");
  std::string a, b, c, tasks;
  loadavg >> a >> b >> c >> tasks;
  running = std::atol(tasks.substr(tasks.find('/') + 1).c_str());
  return limit - running;
}

void BM_ScaleRounds(benchmark::State& state) {
  const int rounds = envCount("BENCH_SCALE_ROUNDS", 7);
  int kept = envCount("BENCH_SCALE_KEPT", 12000);
  // Each kept program takes two host tasks (itself and its agent thread in the server); leave
  // 2000 for everything else.
  const long free = hostTasksFree();
  if (2L * kept + 2000 > free) {
    std::printf("scale: the host has %ld tasks free; keeping %ld instead of %d\n", free,
                (free - 2000) / 2, kept);
    kept = static_cast<int>(std::max(100L, (free - 2000) / 2));
  }
  const std::string marker = "1000000." + std::to_string(getpid());
  signal(SIGPIPE, SIG_IGN);  // a caller that died is reported, not fatal
  Caller small, large;
  std::vector<double> alone[kOps], largeUs[kOps], ratios[kOps];
  bool ok = small.start(100, 0, marker);
  double began = nowUs();
  for (auto _ : state) {
    for (int round = 0; round < 3 && ok; ++round)
      for (int op = 0; op < kOps && ok; ++op) {
        double took = small.run(static_cast<Op>(op), kOpCount[op]);
        ok = took > 0;
        alone[op].push_back(took);
      }
    ok = ok && large.start(kept / 2, kept - kept / 2, marker);
    if (ok)
      std::printf("scale: %.0f and %.0f programs kept in the two callers' groups (%.1f s to start)\n",
                  small.kept, large.kept, (nowUs() - began) / 1e6);
    for (int round = 0; round < rounds && ok; ++round) {
      std::printf("  round %d:", round + 1);
      for (int op = 0; op < kOps && ok; ++op) {
        // In ten turns whose order alternates, so that a disturbance falls on both callers.
        double smallUs = 0, bigUs = 0;
        for (int turn = 0; turn < 10 && ok; ++turn) {
          const bool largeFirst = (round + turn) % 2 == 1;
          double a = (largeFirst ? large : small).run(static_cast<Op>(op), kOpCount[op] / 10);
          double b = (largeFirst ? small : large).run(static_cast<Op>(op), kOpCount[op] / 10);
          ok = a > 0 && b > 0;
          bigUs += largeFirst ? a : b;
          smallUs += largeFirst ? b : a;
        }
        ratios[op].push_back(bigUs / smallUs);
        largeUs[op].push_back(bigUs);
        std::printf(" %s %.2f", kOpNames[op], ratios[op].back());
      }
      std::printf("\n");
    }
  }
  // A signal to the whole large group, again and again, while the small caller times its
  // round trips: it is carried out a slice at a time between other requests.
  double slowest = -1, groupUs = -1;
  if (ok && large.send(kGroupCont, 20)) {
    slowest = small.run(kSlowestTrip, 2000);
    groupUs = large.receive();
    std::printf("scale: 20 continue signals to a group of %.0f took %.0f ms; another caller's "
                "slowest of 2000 round trips meanwhile: %.0f us\n", large.kept, groupUs / 1000, slowest);
  }
  small.end();
  large.end();
  for (int waited = 0; keptLeft(marker) > 0 && waited < 1200; ++waited)
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  const int left = keptLeft(marker);
  if (!ok || left > 0) {
    state.SkipWithError(left > 0 ? "kept programs were still running at the end" : "a caller failed");
    return;
  }
  std::printf("scale: %s kept vs 100, time ratio per request (worst / median of %d rounds; 100 "
              "alone: us per request before the large group existed, and the large caller's "
              "median time over it)\n",
              std::to_string(static_cast<int>(large.kept)).c_str(), rounds);
  for (int op = 0; op < kOps; ++op) {
    double worst = *std::max_element(ratios[op].begin(), ratios[op].end());
    double aloneUs = median(alone[op]) / kOpCount[op];
    std::printf("  %-12s %6.2f / %5.2f   (alone %.1f us, %.2f)\n", kOpNames[op], worst,
                median(ratios[op]), aloneUs, median(largeUs[op]) / kOpCount[op] / aloneUs);
    state.counters[std::string(kOpNames[op]) + "_worst"] = worst;
    state.counters[std::string(kOpNames[op]) + "_median"] = median(ratios[op]);
  }
  state.counters["kept"] = large.kept;
  state.counters["slowest_trip_us"] = slowest;
  std::fflush(stdout);
}
}  // namespace

void registerScaleBenchmark() {
  // One iteration holds every round.
  benchmark::RegisterBenchmark(kScaleBenchmark, BM_ScaleRounds)
      ->Iterations(1)
      ->Repetitions(1)
      ->Unit(benchmark::kMillisecond);
}

bool scaleKeeperMode(int argc, char** argv) {
  if (argc != 4 || std::strcmp(argv[1], "--scale-keeper") != 0) return false;
  int64_t newest = 0;
  int started = startKept(std::atoi(argv[2]), argv[3], &newest);
  writeAll(STDOUT_FILENO, &started, sizeof started);
  close(STDOUT_FILENO);
  for (;;) pause();  // until the caller's group is killed
}
