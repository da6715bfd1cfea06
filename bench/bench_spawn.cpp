// Starting and collecting a program: px_spawn + px_waitpid of /bin/true through the server
// against posix_spawn + waitpid directly.
#include <benchmark/benchmark.h>
#include <spawn.h>
#include <sys/wait.h>

#include "posix_client.h"

extern char** environ;

namespace {

void BM_SpawnWaitServer(benchmark::State& state) {
  char* argv[] = {const_cast<char*>("true"), nullptr};
  for (auto _ : state) {
    int64_t pid = px_spawn("/bin/true", argv, environ, 0);
    int status = -1;
    if (pid <= 0 || px_waitpid(pid, &status, 0) != pid || status != 0) {
      state.SkipWithError("spawn or wait through the server failed");
      break;
    }
  }
}
BENCHMARK(BM_SpawnWaitServer)->MinTime(2.0)->UseRealTime();

void BM_SpawnWaitLinux(benchmark::State& state) {
  char* argv[] = {const_cast<char*>("true"), nullptr};
  for (auto _ : state) {
    pid_t pid = -1;
    int status = -1;
    if (posix_spawn(&pid, "/bin/true", nullptr, nullptr, argv, environ) != 0 ||
        waitpid(pid, &status, 0) != pid || status != 0) {
      state.SkipWithError("posix_spawn or waitpid failed");
      break;
    }
  }
}
BENCHMARK(BM_SpawnWaitLinux)->MinTime(2.0)->UseRealTime();

}  // namespace
