// Files: a 64 MiB file read through the server in 64 KiB reads (px_open, px_read, px_close)
// against read(2) of the same file in 64 KiB reads, both from the page cache, the two in turns
// within each round.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "bench_measure.h"
#include "posix_client.h"

namespace {

constexpr size_t kFileSize = 64u << 20;
constexpr size_t kReadSize = 64u << 10;

// The file, made once in the instance's runtime directory (removed with it); "" on failure.
// It is on disk before the first measurement, so that no write-back of its pages runs
// beside a read, and read once, so that both sides read from the page cache.
const std::string& benchFile() {
  static const std::string path = [] {
    std::string p = std::string(px_runtime_dir()) + "/bench-64m.bin";
    int fd = open(p.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) return std::string();
    std::vector<char> block(1 << 20);
    for (size_t i = 0; i < block.size(); ++i) block[i] = static_cast<char>(i * 131 >> 3);
    bool ok = true;
    for (size_t done = 0; ok && done < kFileSize; done += block.size()) {
      ok = write(fd, block.data(), block.size()) == static_cast<ssize_t>(block.size());
    }
    ok = ok && fsync(fd) == 0;
    close(fd);
    fd = open(p.c_str(), O_RDONLY | O_CLOEXEC);
    while (ok && read(fd, block.data(), block.size()) > 0) {
    }
    close(fd);
    return ok && fd >= 0 ? p : std::string();
  }();
  return path;
}

// One whole read of the file through `open_`, `read_` and `close_`: its milliseconds, or a
// negative value when the file came out short or a call failed.
template <class Open, class Read, class Close>
double readWhole(const std::string& path, Open open_, Read read_, Close close_) {
  static char buf[kReadSize];
  const double began = nowUs();
  int fd = open_(path.c_str());
  size_t total = 0;
  ssize_t n = fd < 0 ? -1 : 0;
  while (fd >= 0 && (n = read_(fd, buf, sizeof buf)) > 0) total += static_cast<size_t>(n);
  if (fd >= 0) close_(fd);
  return n == 0 && total == kFileSize ? (nowUs() - began) / 1000 : -1;
}

double serverRead(const std::string& path) {
  return readWhole(path, [](const char* p) { return px_open(p, O_RDONLY, 0); }, px_read, px_close);
}

double linuxRead(const std::string& path) {
  return readWhole(path, [](const char* p) { return open(p, O_RDONLY | O_CLOEXEC); }, read, close);
}

// Rounds of kReadsPerRound whole reads each way, in turns, so that both see the same machine;
// a round's ratio is Linux's time over the server's (the server's speed as a share of
// Linux's). Reports the worst and the median round, and the median time of one read each way.
void BM_FileReadRounds(benchmark::State& state) {
  constexpr int kRounds = 10;
  constexpr int kReadsPerRound = 4;
  const std::string& path = benchFile();
  if (path.empty()) {
    state.SkipWithError("could not write the file");
    return;
  }
  std::vector<double> ratios, serverMs, linuxMs;
  for (auto _ : state) {
    for (int round = 0; round < kRounds; ++round) {
      double server = 0, linux = 0;
      for (int i = 0; i < 2 * kReadsPerRound; ++i) {
        const bool serverTurn = (i + round) % 2 == 0;
        const double ms = serverTurn ? serverRead(path) : linuxRead(path);
        if (ms < 0) {
          state.SkipWithError("the read came out short or failed");
          return;
        }
        (serverTurn ? server : linux) += ms;
      }
      ratios.push_back(linux / server);
      serverMs.push_back(server / kReadsPerRound);
      linuxMs.push_back(linux / kReadsPerRound);
    }
  }
  state.counters["worst"] = *std::min_element(ratios.begin(), ratios.end());
  state.counters["median"] = median(ratios);
  state.counters["server_ms"] = median(serverMs);
  state.counters["linux_ms"] = median(linuxMs);
}
// One iteration holds every round.
BENCHMARK(BM_FileReadRounds)->Iterations(1)->Repetitions(1)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
