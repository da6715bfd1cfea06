// The pipe tests' fixture: a private server, the pipe peer helper, and the server's thread
// count for tests that check that nothing stays behind.
#pragma once

#include <string>
#include <vector>

#include "server_fixture.h"

class PipeFixture : public ServerFixture {
 protected:
  // Starts px_pipe_peer with `args` through the server (it inherits the caller's descriptors);
  // its standard output and error go to `out`.
  int64_t spawnPeer(const std::vector<std::string>& args, OutputPipe* out);
  // The server's thread count, or -1 when it did not tell.
  int64_t serverThreads();
  // Waits until the server's thread count is at most `count`; the last count seen.
  int64_t awaitThreadsAtMost(int64_t count, int timeoutMs);
  // Collects `child` with a bounded wait; its exit code, or -1.
  int collect(int64_t child, int timeoutMs = 10000);
};

// Reads from `fd` until end-of-file (or `limit` bytes); the bytes. Fails the test on error.
std::string readAll(int fd, size_t limit = 1 << 20);
