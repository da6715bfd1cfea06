// Pipes: 256 MiB through a server pipe between this process and a spawned reader, against a
// Linux pipe(2) of 4096 bytes (the server's pipes hold 4096) and a default Linux pipe, all in
// 4096-byte writes and reads; and px_pipe with two px_close against pipe(2) with two close(2).
//
// The server pipe's reader is this benchmark program itself, started through the server with
// BENCH_PIPE_READER set: it then only drains the inherited descriptor and ends, before main.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include "posix_client.h"

namespace {

constexpr size_t kTotal = 256u << 20;
constexpr size_t kChunk = 4096;
constexpr const char* kReaderVar = "BENCH_PIPE_READER";

// The reader's side: closes its copy of the write end (else end-of-file would never come),
// drains the read end; the exit code tells whether the byte count was right.
[[noreturn]] void serveAsReader(int fd, int writeFd) {
  static char buf[kChunk];
  if (px_close(writeFd) != 0) _exit(2);
  size_t total = 0;
  ssize_t n;
  while ((n = px_read(fd, buf, sizeof buf)) > 0) total += static_cast<size_t>(n);
  _exit(n == 0 && total == kTotal ? 0 : 1);
}

// Runs before main in the spawned reader.
const bool readerChecked = [] {
  const char* fds = getenv(kReaderVar);  // "<read end>,<write end>"
  if (fds != nullptr) {
    const char* comma = strchr(fds, ',');
    serveAsReader(atoi(fds), comma != nullptr ? atoi(comma + 1) : -1);
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

void BM_PipeThroughputServer(benchmark::State& state) {
  static char chunk[kChunk];
  std::memset(chunk, 'p', sizeof chunk);
  std::string self = selfPath();
  for (auto _ : state) {
    int fds[2];
    if (px_pipe(fds) != 0) {
      state.SkipWithError("px_pipe failed");
      break;
    }
    std::string var = std::string(kReaderVar) + "=" + std::to_string(fds[0]) + "," +
                      std::to_string(fds[1]);
    char* argv[] = {self.data(), nullptr};
    char* envp[] = {var.data(), nullptr};  // the server adds POSIX_RUNTIME_DIR
    int64_t reader = px_spawn(self.c_str(), argv, envp, 0);
    px_close(fds[0]);  // the reader holds the read end now
    bool ok = reader > 0;
    for (size_t done = 0; ok && done < kTotal; done += kChunk) {
      ok = px_write(fds[1], chunk, kChunk) == static_cast<ssize_t>(kChunk);
    }
    px_close(fds[1]);
    int status = -1;
    if (reader > 0 && (px_waitpid(reader, &status, 0) != reader || status != 0)) ok = false;
    if (!ok) {
      state.SkipWithError("the server pipe lost bytes or its reader failed");
      break;
    }
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kTotal));
}
BENCHMARK(BM_PipeThroughputServer)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);

// The same transfer through a Linux pipe to a forked reader; pipeSize 0 keeps the default.
void linuxThroughput(benchmark::State& state, int pipeSize) {
  static char chunk[kChunk];
  std::memset(chunk, 'p', sizeof chunk);
  for (auto _ : state) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0 || (pipeSize > 0 && fcntl(fds[1], F_SETPIPE_SZ, pipeSize) < 0)) {
      state.SkipWithError("pipe set-up failed");
      break;
    }
    pid_t reader = fork();
    if (reader == 0) {
      close(fds[1]);
      char buf[kChunk];
      size_t total = 0;
      ssize_t n;
      while ((n = read(fds[0], buf, sizeof buf)) > 0) total += static_cast<size_t>(n);
      _exit(total == kTotal ? 0 : 1);
    }
    close(fds[0]);
    bool ok = reader > 0;
    for (size_t done = 0; ok && done < kTotal; done += kChunk) {
      ok = write(fds[1], chunk, kChunk) == static_cast<ssize_t>(kChunk);
    }
    close(fds[1]);
    int status = -1;
    if (reader > 0 && (waitpid(reader, &status, 0) != reader || status != 0)) ok = false;
    if (!ok) {
      state.SkipWithError("the Linux pipe lost bytes");
      break;
    }
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kTotal));
}

void BM_PipeThroughputLinux4K(benchmark::State& state) { linuxThroughput(state, 4096); }
BENCHMARK(BM_PipeThroughputLinux4K)->Iterations(3)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_PipeThroughputLinuxDefault(benchmark::State& state) { linuxThroughput(state, 0); }
BENCHMARK(BM_PipeThroughputLinuxDefault)->Iterations(3)->UseRealTime()->Unit(benchmark::kMillisecond);

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
