// Pipes: 64 MiB through a server pipe between this process and a spawned reader against the
// same through a Linux pipe(2) of 4096 bytes (the server's pipes hold 4096) to a forked reader,
// writer and reader using calls of 512, 4096 or 65536 bytes; and px_pipe with two px_close
// against pipe(2) with two close(2).
//
// A throughput pair is measured in rounds, each a Linux transfer, a server transfer and a
// transfer through the smallest program that does the server pipe's job (two forked processes
// and the same shared ring on an anonymous mapping, no server and no library: the floor) back
// to back, their order turning, so that every side of a round sees the same machine; the
// round's ratio is a speed as a share of Linux's. The benchmark reports the worst and the
// median round, and how far the Linux transfers spread (a spread far above 1 says the machine
// changed under the run).
//
// A transfer is timed from the moment its reader runs: the writer starts the clock once it has
// written two rings' worth (or its first call, when that is larger), which only goes through
// after the reader took bytes; it ends when the reader sees end-of-file, which the reader notes
// in a file of the benchmark's own. Starting a reader, and its exit and collection after the
// end, are not the pipe's work, and they differ by far between the pairs: a fork here, a spawn
// and an exec through the server there (the spawn pair measures those). What the start took,
// up to the clock, and what the end took after it are reported beside the ratios.
//
// The server pipe's reader is this benchmark program itself, started through the server with
// BENCH_PIPE_READER set: it then only drains the inherited descriptor and ends, before main.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include "bench_measure.h"
#include "bench_rounds.h"
#include "posix/pipe_ring.h"
#include "posix_client.h"

namespace {

// Bytes per transfer: 64 MiB, or BENCH_PIPE_KIB kibibytes (at least 256, so that the clock
// starts before the end; a small figure gives quick runs).
const size_t kTotal = [] {
  const char* kib = getenv("BENCH_PIPE_KIB");
  return kib != nullptr && atol(kib) > 0 ? std::max<size_t>(static_cast<size_t>(atol(kib)), 256) << 10 : size_t{64} << 20;
}();
constexpr int kRounds = 5;
constexpr const char* kReaderVar = "BENCH_PIPE_READER";
constexpr const char* kEndVar = "BENCH_PIPE_END";
// What a server pipe holds, and so the Linux pipe and the ring alone beside it.
constexpr uint32_t kRingBytes = 4096;

double nowMs() { return nowUs() / 1000; }

// Reads up to kTotal bytes in `chunk`-byte calls; true when exactly kTotal came before the end.
template <class Read>
bool drain(size_t chunk, Read read) {
  std::vector<char> buf(chunk);
  size_t total = 0;
  long n;
  while ((n = read(buf.data(), chunk)) > 0) total += static_cast<size_t>(n);
  return n == 0 && total == kTotal;
}

// A transfer's clock: when its reader was asked for, when the clock started, when the reader saw
// end-of-file, and when the writer had collected it.
struct Timing {
  double asked = 0;
  double began = 0;
  double eof = 0;
  double ended = 0;
  double ms() const { return eof - began; }
  double startMs() const { return began - asked; }
  double endMs() const { return ended - eof; }
};

// Where a reader notes the moment it saw end-of-file, for its writer to take after the wait: a
// file in a directory the benchmark made for itself, removed when it ends.
class EndNote {
 public:
  EndNote() {
    char dir[] = "/tmp/posix-bench-pipe-XXXXXX";
    if (mkdtemp(dir) == nullptr) return;
    dir_ = dir;
    path_ = dir_ + "/end";
    int fd = open(path_.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
    if (fd >= 0) close(fd);
  }
  ~EndNote() {
    if (dir_.empty()) return;
    unlink(path_.c_str());
    rmdir(dir_.c_str());
  }
  const std::string& path() const { return path_; }
  // In a reader, at end-of-file.
  static void note(const char* path) {
    const double now = nowMs();
    int fd = open(path, O_WRONLY | O_CLOEXEC);
    if (fd < 0) return;
    (void)!pwrite(fd, &now, sizeof now, 0);
    close(fd);
  }
  // In the writer, once the reader is collected: the moment noted (0 when none), cleared.
  double take() const {
    double at = 0;
    const double none = 0;
    int fd = open(path_.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) return 0;
    if (pread(fd, &at, sizeof at, 0) != static_cast<ssize_t>(sizeof at)) at = 0;
    (void)!pwrite(fd, &none, sizeof none, 0);
    close(fd);
    return at;
  }

 private:
  std::string dir_;
  std::string path_;
};

const EndNote& endNote() {
  static const EndNote note;
  return note;
}

// Ends a reader: notes end-of-file (reached when `drained`), exits 0 when the byte count was
// right.
[[noreturn]] void endReader(const char* endPath, bool drained) {
  EndNote::note(endPath);
  _exit(drained ? 0 : 1);
}

// Bytes written before the clock starts: two rings' worth (the reader has taken the first by
// then), or the first call when it is larger (it returns only once the reader took most of it).
size_t untimedBytes(size_t chunk) { return std::max<size_t>(chunk, 2 * kRingBytes); }

// Writes kTotal bytes in `chunk`-byte calls, starting `t`'s clock after untimedBytes(); true
// when every call took its whole chunk.
template <class Write>
bool feed(size_t chunk, Timing* t, Write write) {
  std::vector<char> data(chunk, 'p');
  bool ok = true;
  for (size_t done = 0; ok && done < kTotal; done += chunk) {
    if (t->began == 0 && done >= untimedBytes(chunk)) t->began = nowMs();
    ok = write(data.data(), chunk) == static_cast<long>(chunk);
  }
  return ok && t->began != 0;
}

// The reader's side: closes its copy of the write end (else end-of-file would never come),
// drains the read end; the exit code tells whether the byte count was right.
[[noreturn]] void serveAsReader(int fd, int writeFd, size_t chunk, const char* endPath) {
  if (px_close(writeFd) != 0) _exit(2);
  endReader(endPath, drain(chunk, [fd](char* b, size_t n) { return static_cast<long>(px_read(fd, b, n)); }));
}

// Runs before main in the spawned reader.
const bool readerChecked = [] {
  const char* ends = getenv(kReaderVar);  // "<read end>,<write end>,<chunk>"
  if (ends != nullptr) {
    char* rest = nullptr;
    int fd = static_cast<int>(strtol(ends, &rest, 10));
    int writeFd = static_cast<int>(strtol(rest + 1, &rest, 10));
    const char* endPath = getenv(kEndVar);
    serveAsReader(fd, writeFd, strtoul(rest + 1, nullptr, 10), endPath != nullptr ? endPath : "");
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

// One transfer through a server pipe; false when bytes were lost.
bool serverTransfer(size_t chunk, Timing* t) {
  static const std::string self = selfPath();
  int fds[2];
  if (px_pipe(fds) != 0) return false;
  std::string var = std::string(kReaderVar) + "=" + std::to_string(fds[0]) + "," +
                    std::to_string(fds[1]) + "," + std::to_string(chunk);
  char* argv[] = {const_cast<char*>(self.c_str()), nullptr};
  std::string kib = "BENCH_PIPE_KIB=" + std::to_string(kTotal >> 10);
  std::string end = std::string(kEndVar) + "=" + endNote().path();
  char* envp[] = {var.data(), kib.data(), end.data(), nullptr};  // the server adds POSIX_RUNTIME_DIR
  t->asked = nowMs();
  int64_t reader = px_spawn(self.c_str(), argv, envp, 0);
  px_close(fds[0]);  // the reader holds the read end now
  bool ok = reader > 0 && feed(chunk, t, [&fds](const char* b, size_t n) { return static_cast<long>(px_write(fds[1], b, n)); });
  px_close(fds[1]);
  int status = -1;
  if (reader > 0 && (px_waitpid(reader, &status, 0) != reader || status != 0)) ok = false;
  t->ended = nowMs();
  t->eof = endNote().take();
  return ok && t->eof != 0;
}

// The same transfer through a Linux pipe of 4096 bytes to a forked reader.
bool linuxTransfer(size_t chunk, Timing* t) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return false;
  if (fcntl(fds[1], F_SETPIPE_SZ, kRingBytes) < 0) {
    close(fds[0]);
    close(fds[1]);
    return false;
  }
  t->asked = nowMs();
  pid_t reader = fork();
  if (reader == 0) {
    close(fds[1]);
    endReader(endNote().path().c_str(), drain(chunk, [&fds](char* b, size_t n) { return static_cast<long>(read(fds[0], b, n)); }));
  }
  close(fds[0]);
  bool ok = reader > 0 && feed(chunk, t, [&fds](const char* b, size_t n) { return static_cast<long>(write(fds[1], b, n)); });
  close(fds[1]);
  int status = -1;
  if (reader > 0 && (waitpid(reader, &status, 0) != reader || status != 0)) ok = false;
  t->ended = nowMs();
  t->eof = endNote().take();
  return ok && t->eof != 0;
}

// The same transfer through the shared ring alone: a page on an anonymous shared mapping, this
// process writing and a forked one reading, end-of-file set as the server would set it.
bool floorTransfer(size_t chunk, Timing* t) {
  using posix::PipeRing;
  const size_t size = PX_PIPE_RING_OFFSET + kRingBytes;
  void* page = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (page == MAP_FAILED) return false;
  PipeRing owner(page, kRingBytes, 3, PipeRing::Holder::kServer);
  owner.format();
  t->asked = nowMs();
  pid_t reader = fork();
  if (reader == 0) {
    PipeRing ring(page, kRingBytes, 7, PipeRing::Holder::kClient);
    endReader(endNote().path().c_str(), drain(chunk, [&ring](char* b, size_t n) {
                PipeRing::Result r = ring.read(b, n, PipeRing::kForever);
                return r.end == PipeRing::End::kDone ? static_cast<long>(r.count) : r.end == PipeRing::End::kEof ? 0L : -1L;
              }));
  }
  PipeRing ring(page, kRingBytes, 5, PipeRing::Holder::kClient);
  bool ok = reader > 0 && feed(chunk, t, [&ring](const char* b, size_t n) {
              return static_cast<long>(ring.write(b, n, PipeRing::kForever).count);
            });
  owner.setFlags(PX_PIPE_EOF);
  int status = -1;
  if (reader > 0 && (waitpid(reader, &status, 0) != reader || status != 0)) ok = false;
  t->ended = nowMs();
  t->eof = endNote().take();
  munmap(page, size);
  return ok && t->eof != 0;
}

void BM_PipeRounds(benchmark::State& state) {
  const auto chunk = static_cast<size_t>(state.range(0));
  // Made here, before any reader is forked from this process.
  if (endNote().path().empty()) {
    state.SkipWithError("no directory for the readers' end-of-file notes");
    return;
  }
  std::vector<double> ratios, floorRatios, linuxMs, serverMs, linuxStartMs, serverStartMs, linuxEndMs,
      serverEndMs;
  for (auto _ : state) {
    for (int round = 0; round < kRounds; ++round) {
      Timing t[3];  // Linux, server, floor
      bool ok[3] = {false, false, false};
      for (int k = 0; k < 3; ++k) {
        const int which = (round + k) % 3;
        ok[which] = which == 0 ? linuxTransfer(chunk, &t[0]) : which == 1 ? serverTransfer(chunk, &t[1]) : floorTransfer(chunk, &t[2]);
      }
      if (!ok[0] || !ok[1] || !ok[2]) {
        state.SkipWithError(!ok[1] ? "the server pipe lost bytes" : "the Linux pipe or the ring alone failed");
        return;
      }
      linuxMs.push_back(t[0].ms());
      serverMs.push_back(t[1].ms());
      linuxStartMs.push_back(t[0].startMs());
      serverStartMs.push_back(t[1].startMs());
      linuxEndMs.push_back(t[0].endMs());
      serverEndMs.push_back(t[1].endMs());
      ratios.push_back(t[0].ms() / t[1].ms());
      floorRatios.push_back(t[0].ms() / t[2].ms());
    }
  }
  const std::string name = "BM_PipeRounds/" + std::to_string(chunk);
  logRounds(name, "", ratios);
  logRounds(name, "floor_", floorRatios);
  state.counters["floor_worst"] = *std::min_element(floorRatios.begin(), floorRatios.end());
  state.counters["floor_median"] = median(floorRatios);
  state.counters["worst"] = *std::min_element(ratios.begin(), ratios.end());
  state.counters["median"] = median(ratios);
  state.counters["best"] = *std::max_element(ratios.begin(), ratios.end());
  state.counters["linux_ms"] = median(linuxMs);
  state.counters["server_ms"] = median(serverMs);
  // What starting the reader took, up to the clock: a fork, or a spawn through the server.
  state.counters["linux_start_ms"] = median(linuxStartMs);
  state.counters["server_start_ms"] = median(serverStartMs);
  // What ending the reader took after its end-of-file: its exit and its collection.
  state.counters["linux_end_ms"] = median(linuxEndMs);
  state.counters["server_end_ms"] = median(serverEndMs);
  state.counters["linux_spread"] = *std::max_element(linuxMs.begin(), linuxMs.end()) /
                                   *std::min_element(linuxMs.begin(), linuxMs.end());
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
