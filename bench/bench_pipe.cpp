// Pipes: 64 MiB through a server pipe between this process and a spawned reader against the
// same through a Linux pipe(2) of 4096 bytes (the server's pipes hold 4096) to a forked reader,
// writer and reader using calls of 512, 4096 or 65536 bytes; and px_pipe with two px_close
// against pipe(2) with two close(2).
//
// A throughput pair is measured in rounds, each a Linux transfer and a server transfer back to
// back (their order alternating), so that both sides of a round see the same machine; the
// round's ratio is the server's speed as a share of Linux's. The benchmark reports the worst
// and the median round, and how far the Linux transfers spread (a spread far above 1 says the
// machine changed under the run).
//
// The server pipe's reader is this benchmark program itself, started through the server with
// BENCH_PIPE_READER set: it then only drains the inherited descriptor and ends, before main.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include "posix_client.h"

namespace {

constexpr size_t kTotal = 64u << 20;
constexpr int kRounds = 5;
constexpr const char* kReaderVar = "BENCH_PIPE_READER";

double nowMs() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) * 1e3 + static_cast<double>(ts.tv_nsec) / 1e6;
}

// Reads up to kTotal bytes in `chunk`-byte calls; true when exactly kTotal came before the end.
template <class Read>
bool drain(size_t chunk, Read read) {
  std::vector<char> buf(chunk);
  size_t total = 0;
  long n;
  while ((n = read(buf.data(), chunk)) > 0) total += static_cast<size_t>(n);
  return n == 0 && total == kTotal;
}

// The reader's side: closes its copy of the write end (else end-of-file would never come),
// drains the read end; the exit code tells whether the byte count was right.
[[noreturn]] void serveAsReader(int fd, int writeFd, size_t chunk) {
  if (px_close(writeFd) != 0) _exit(2);
  _exit(drain(chunk, [fd](char* b, size_t n) { return static_cast<long>(px_read(fd, b, n)); }) ? 0 : 1);
}

// Runs before main in the spawned reader.
const bool readerChecked = [] {
  const char* spec = getenv(kReaderVar);  // "<read end>,<write end>,<chunk>"
  if (spec != nullptr) {
    char* rest = nullptr;
    int fd = static_cast<int>(strtol(spec, &rest, 10));
    int writeFd = static_cast<int>(strtol(rest + 1, &rest, 10));
    serveAsReader(fd, writeFd, strtoul(rest + 1, nullptr, 10));
  }
  return true;
}();

std::string selfPath() {
  char path[PATH_MAX];
  ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
  if (n <= 0) return {};
  path[n] = '\0';
  return path;
}

// One transfer through a server pipe: milliseconds, or a negative value when bytes were lost.
double serverTransfer(size_t chunk) {
  static const std::string self = selfPath();
  std::vector<char> data(chunk, 'p');
  int fds[2];
  if (px_pipe(fds) != 0) return -1;
  std::string var = std::string(kReaderVar) + "=" + std::to_string(fds[0]) + "," +
                    std::to_string(fds[1]) + "," + std::to_string(chunk);
  char* argv[] = {const_cast<char*>(self.c_str()), nullptr};
  char* envp[] = {var.data(), nullptr};  // the server adds POSIX_RUNTIME_DIR
  double start = nowMs();
  int64_t reader = px_spawn(self.c_str(), argv, envp, 0);
  px_close(fds[0]);  // the reader holds the read end now
  bool ok = reader > 0;
  for (size_t done = 0; ok && done < kTotal; done += chunk)
    ok = px_write(fds[1], data.data(), chunk) == static_cast<ssize_t>(chunk);
  px_close(fds[1]);
  int status = -1;
  if (reader > 0 && (px_waitpid(reader, &status, 0) != reader || status != 0)) ok = false;
  return ok ? nowMs() - start : -1;
}

// The same transfer through a Linux pipe of 4096 bytes to a forked reader.
double linuxTransfer(size_t chunk) {
  std::vector<char> data(chunk, 'p');
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return -1;
  if (fcntl(fds[1], F_SETPIPE_SZ, 4096) < 0) {
    close(fds[0]);
    close(fds[1]);
    return -1;
  }
  double start = nowMs();
  pid_t reader = fork();
  if (reader == 0) {
    close(fds[1]);
    _exit(drain(chunk, [&fds](char* b, size_t n) { return static_cast<long>(read(fds[0], b, n)); }) ? 0 : 1);
  }
  close(fds[0]);
  bool ok = reader > 0;
  for (size_t done = 0; ok && done < kTotal; done += chunk)
    ok = write(fds[1], data.data(), chunk) == static_cast<ssize_t>(chunk);
  close(fds[1]);
  int status = -1;
  if (reader > 0 && (waitpid(reader, &status, 0) != reader || status != 0)) ok = false;
  return ok ? nowMs() - start : -1;
}

void BM_PipeRounds(benchmark::State& state) {
  const auto chunk = static_cast<size_t>(state.range(0));
  std::vector<double> ratios, linuxMs, serverMs;
  for (auto _ : state) {
    for (int round = 0; round < kRounds; ++round) {
      double server = -1, linux = -1;
      if (round % 2 == 0) {
        linux = linuxTransfer(chunk);
        server = serverTransfer(chunk);
      } else {
        server = serverTransfer(chunk);
        linux = linuxTransfer(chunk);
      }
      if (server <= 0 || linux <= 0) {
        state.SkipWithError(server <= 0 ? "the server pipe lost bytes" : "the Linux pipe failed");
        return;
      }
      linuxMs.push_back(linux);
      serverMs.push_back(server);
      ratios.push_back(linux / server);
    }
  }
  std::sort(ratios.begin(), ratios.end());
  std::sort(linuxMs.begin(), linuxMs.end());
  std::sort(serverMs.begin(), serverMs.end());
  state.counters["worst"] = ratios.front();
  state.counters["median"] = ratios[ratios.size() / 2];
  state.counters["best"] = ratios.back();
  state.counters["linux_ms"] = linuxMs[linuxMs.size() / 2];
  state.counters["server_ms"] = serverMs[serverMs.size() / 2];
  state.counters["linux_spread"] = linuxMs.back() / linuxMs.front();
}
BENCHMARK(BM_PipeRounds)->Arg(512)->Arg(4096)->Arg(65536)->Iterations(1)->Repetitions(1)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_PipeCreateCloseServer(benchmark::State& state) {
  for (auto _ : state) {
    int fds[2];
    if (px_pipe(fds) != 0 || px_close(fds[0]) != 0 || px_close(fds[1]) != 0) {
      state.SkipWithError("px_pipe or px_close failed");
      break;
    }
  }
}
BENCHMARK(BM_PipeCreateCloseServer)->MinTime(1.0)->UseRealTime();

void BM_PipeCreateCloseLinux(benchmark::State& state) {
  for (auto _ : state) {
    int fds[2];
    if (pipe(fds) != 0 || close(fds[0]) != 0 || close(fds[1]) != 0) {
      state.SkipWithError("pipe or close failed");
      break;
    }
  }
}
BENCHMARK(BM_PipeCreateCloseLinux)->MinTime(1.0)->UseRealTime();

}  // namespace
