// Files: a 64 MiB file read through the server in 64 KiB reads (px_open, px_read, px_close)
// against read(2) of the same file in 64 KiB reads, both from the page cache, in one run.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <string>
#include <vector>

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

// One whole read of the file through `open_`, `read_` and `close_`; false on a short file.
template <class Open, class Read, class Close>
void readWhole(benchmark::State& state, Open open_, Read read_, Close close_) {
  static char buf[kReadSize];
  const std::string& path = benchFile();
  if (path.empty()) {
    state.SkipWithError("could not write the file");
    return;
  }
  for (auto _ : state) {
    int fd = open_(path.c_str());
    size_t total = 0;
    ssize_t n = fd < 0 ? -1 : 0;
    while (fd >= 0 && (n = read_(fd, buf, sizeof buf)) > 0) total += static_cast<size_t>(n);
    if (fd >= 0) close_(fd);
    if (n != 0 || total != kFileSize) {
      state.SkipWithError("the read came out short or failed");
      break;
    }
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kFileSize));
}

void BM_FileReadServer(benchmark::State& state) {
  readWhole(
      state, [](const char* p) { return px_open(p, O_RDONLY, 0); }, px_read, px_close);
}
BENCHMARK(BM_FileReadServer)->MinTime(2.0)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_FileReadLinux(benchmark::State& state) {
  readWhole(
      state, [](const char* p) { return open(p, O_RDONLY | O_CLOEXEC); }, read, close);
}
BENCHMARK(BM_FileReadLinux)->MinTime(2.0)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
