// The pipe tests' fixture.
#include "pipe_fixture.h"

#include <errno.h>

#include <cstring>


int64_t PipeFixture::spawnPeer(const std::vector<std::string>& args, OutputPipe* out) {
  return spawnProgram(helper("px_pipe_peer"), args, out);
}

int64_t PipeFixture::serverThreads() {
  HeapStats stats;
  return heapStats(&stats) ? static_cast<int64_t>(stats.threads) : -1;
}

int64_t PipeFixture::awaitThreadsAtMost(int64_t count, int timeoutMs) {
  int64_t deadline = monotonicMs() + timeoutMs;
  int64_t seen = serverThreads();
  while (seen > count && monotonicMs() < deadline) {
    sleepMs(50);
    seen = serverThreads();
  }
  return seen;
}

int PipeFixture::collect(int64_t child, int timeoutMs) {
  int64_t deadline = monotonicMs() + timeoutMs;
  while (monotonicMs() < deadline) {
    int status = -1;
    int64_t got = px_waitpid(child, &status, PX_WNOHANG);
    if (got == child) return status;
    if (got < 0) return -1;
    sleepMs(10);
  }
  return -1;
}

std::string readAll(int fd, size_t limit) {
  std::string data;
  char buf[8192];
  while (data.size() < limit) {
    ssize_t n = px_read(fd, buf, sizeof buf);
    EXPECT_GE(n, 0) << strerror(errno);
    if (n <= 0) break;
    data.append(buf, static_cast<size_t>(n));
  }
  return data;
}
