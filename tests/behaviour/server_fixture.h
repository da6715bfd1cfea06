// The behaviour tests' fixture: a real posix-server on a private runtime directory.
//
// SetUp makes RT with mkdtemp, points POSIX_RUNTIME_DIR at it, starts POSIX_SERVER_BINARY
// with its output appended to RT/server.log and waits (bounded) until "posix.service" answers.
// TearDown stops the server with SIGTERM (bounded, then SIGKILL), kills the programs it
// started that are still running, and removes RT.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "posix_client.h"

// A pipe whose write end a spawned program gets as its standard output (POSIX_STDOUT names
// it through /proc), so that the test reads the program's lines.
class OutputPipe {
 public:
  OutputPipe();
  ~OutputPipe();
  OutputPipe(const OutputPipe&) = delete;
  OutputPipe& operator=(const OutputPipe&) = delete;

  // "/proc/<test pid>/fd/<write end>".
  std::string writePath() const;
  int writeFd() const { return write_; }
  void closeWrite();
  // The next line without its newline; false after `timeoutMs` or at end of file.
  bool readLine(std::string* line, int timeoutMs = 5000);

 private:
  int read_ = -1;
  int write_ = -1;
  std::string pending_;
};

struct HeapStats {
  uint64_t bytes = 0;
  uint64_t blocks = 0;
  uint64_t threads = 0;
};

class ServerFixture : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Set before SetUp (in a constructor) to get an RT without a server.
  bool startServerInSetUp_ = true;

  // Starts POSIX_SERVER_BINARY on RT with stdout and stderr appended to `logPath`.
  pid_t launchServer(const std::string& logPath);
  // Waits until a round trip to "posix.service" answers; false after `timeoutMs`.
  bool waitAnswering(int timeoutMs);
  // Sends SIGTERM to the fixture's server and answers its wait status (-1: it did not end).
  int stopServer(int timeoutMs = 10000);

  std::string path(const std::string& relative) const { return rt_ + "/" + relative; }
  static std::string helper(const std::string& name);
  std::string serverLog() const;
  // Asks the server for its heap and thread counts (SIGUSR1 writes them to the log).
  bool heapStats(HeapStats* out, int timeoutMs = 5000);

  // Starts the probe helper with `args` through the server; with `out`, its standard output
  // and error go to that pipe. Extra entries are added to the environment.
  // Spawns `program` through the server with this process's environment plus `extraEnv`,
  // its output and error going to `out` when given.
  int64_t spawnProgram(const std::string& program, const std::vector<std::string>& args,
                       OutputPipe* out = nullptr, const std::vector<std::string>& extraEnv = {});
  int64_t spawnProbe(const std::vector<std::string>& args, OutputPipe* out = nullptr,
                     const std::vector<std::string>& extraEnv = {});
  // Reads lines from `out` until one starts with `prefix`; the whole line, or "" on time-out.
  static std::string expectLine(OutputPipe& out, const std::string& prefix, int timeoutMs = 5000);

  std::string rt_;
  pid_t server_ = 0;
};

// Milliseconds since an arbitrary start (monotonic).
// The text of /proc/<pid>/stat, empty when the process has gone.
std::string procStat(pid_t pid);
int64_t monotonicMs();
void sleepMs(int ms);
// Waits for a host child of the test to end; its wait status, or -1 after `timeoutMs`.
int waitExit(pid_t pid, int timeoutMs);
