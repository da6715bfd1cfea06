#include "bench_instance.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <thread>

#include "posix_client.h"

extern char** environ;

bool BenchInstance::start() {
  char pattern[] = "/tmp/posix-bench-XXXXXX";
  if (!mkdtemp(pattern)) return false;
  runtimeDir_ = pattern;
  setenv("POSIX_RUNTIME_DIR", runtimeDir_.c_str(), 1);
  setenv("POSIX_LOG_LEVEL", "3", 1);  // no per-process lines while measuring
  std::string log = runtimeDir_ + "/server.log";
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 2, log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  char* argv[] = {const_cast<char*>(POSIX_SERVER_BINARY), nullptr};
  int rc = posix_spawn(&server_, POSIX_SERVER_BINARY, &actions, nullptr, argv, environ);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) return false;
  std::string socket = runtimeDir_ + "/chn/posix.service";
  for (int i = 0; i < 500; ++i) {
    struct stat st;
    if (stat(socket.c_str(), &st) == 0 && px_init() == 0) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  std::fprintf(stderr, "posix-server did not answer; see %s\n", log.c_str());
  return false;
}

void BenchInstance::stop() {
  px_fini();
  if (server_ > 0) {
    kill(server_, SIGTERM);
    int status = 0;
    waitpid(server_, &status, 0);
    server_ = -1;
  }
  std::error_code ignored;
  if (!runtimeDir_.empty()) std::filesystem::remove_all(runtimeDir_, ignored);
}
