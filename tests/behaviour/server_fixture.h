// The behaviour tests' fixture: a real posix-server on a private runtime directory.
//
// SetUp makes RT with mkdtemp, points POSIX_RUNTIME_DIR at it, starts POSIX_SERVER_BINARY
// with its output appended to RT/server.log and waits (bounded) until "posix.service" answers.
// TearDown stops the server with SIGTERM (bounded, then SIGKILL), kills the programs it
// started that are still running, fails the test on a sanitizer report in RT/*.log, and
// removes RT.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "posix_client.h"
#include "raw_link.h"

// Milliseconds since an arbitrary start (monotonic).
int64_t monotonicMs();
void sleepMs(int ms);

// Polls `done` every `stepMs` until it answers true; false after `timeoutMs`.
template <class F>
bool eventually(F&& done, int timeoutMs = 5000, int stepMs = 10) {
  int64_t deadline = monotonicMs() + timeoutMs;
  while (!done()) {
    if (monotonicMs() >= deadline) return false;
    sleepMs(stepMs);
  }
  return true;
}

// Expects `call` to fail (answer -1) with errno `err`.
#define EXPECT_ERRNO(call, err)                  \
  do {                                           \
    auto result_ = (call);                       \
    int errno_ = errno;                          \
    EXPECT_EQ(result_, -1) << #call;             \
    EXPECT_EQ(errno_, err) << #call << ": " << strerror(errno_); \
  } while (0)

using Links = std::vector<std::unique_ptr<RawLink>>;

// Runs `body` in a forked child, which then ends with 0; the child's pid.
template <class F>
pid_t inChild(F&& body) {
  pid_t pid = fork();
  if (pid == 0) {
    body();
    _exit(0);
  }
  return pid;
}
// A number passed through a host pipe between the test and its forked children; -1 when none
// could be read.
bool sendNumber(int fd, int64_t value);
int64_t takeNumber(int fd);

// The text of /proc/<pid>/stat, empty when the process has gone; and its state letter ('?').
std::string procStat(pid_t pid);
char hostState(pid_t pid);
// The number of entries of a host directory, -1 when it cannot be read.
int64_t entriesIn(const std::string& dir);
// Waits for a host child of the test to end; its wait status, or -1 after `timeoutMs`.
int waitExit(pid_t pid, int timeoutMs);
// The whole content of a host file ("" when it cannot be read).
std::string hostRead(const std::string& path);
// Reads through px_read until `limit` bytes or end-of-file; fails the test on an error.
std::string readUpTo(int fd, size_t limit = 1 << 20);

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
  // The next line without its newline; false after `timeoutMs` or at end of file.
  bool readLine(std::string* line, int timeoutMs = 5000);
  // Reads lines until one starts with `prefix`; the whole line, or "" on time-out.
  std::string expect(const std::string& prefix, int timeoutMs = 5000);

 private:
  int read_ = -1;
  int write_ = -1;
  std::string pending_;
};

struct HeapStats {
  uint64_t bytes = 0;
  uint64_t blocks = 0;
  uint64_t threads = 0;
  uint64_t descriptors = 0;  // host descriptors the server holds
};

class ServerFixture : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Set before SetUp (in a constructor) to get an RT without a server.
  bool startServerInSetUp_ = true;

  // Starts POSIX_SERVER_BINARY on RT with stdout and stderr appended to `logPath`.
  pid_t launchServer(const std::string& logPath);
  // Sends SIGTERM to the fixture's server and answers its wait status (-1: it did not end).
  int stopServer(int timeoutMs = 10000);

  std::string path(const std::string& relative) const { return rt_ + "/" + relative; }
  static std::string helper(const std::string& name);
  // RT/server.log.
  std::string serverLog() const { return hostRead(path("server.log")); }
  // Writes `bytes` to the host file RT/<name>; its path.
  std::string hostFile(const std::string& name, const std::string& bytes);

  // Asks the server for its heap, thread and descriptor counts (SIGUSR1 writes them to the
  // log).
  bool heapStats(HeapStats* out, int timeoutMs = 5000);
  // The server's thread count, or -1 when it did not tell.
  int64_t serverThreads();
  // The number of descriptors the server has open, or -1; the lowest number it has free.
  int64_t serverFds() const;
  int lowestFreeServerFd() const;
  // Waits until the server's thread count is at most `count`; the last count seen.
  int64_t awaitThreadsAtMost(int64_t count, int timeoutMs = 10000);
  // What the introspection service says, waited for (false after `timeoutMs`): at least `waits`
  // blocking waits of `pid` queued in the server, and a signal wait of it kept when
  // `signalWait`; some pipe listing `pid` inside a read or a write.
  bool awaitKept(uint64_t pid, uint32_t waits, bool signalWait = false, int timeoutMs = 5000);
  bool awaitInsidePipeCall(uint64_t pid, int timeoutMs = 5000);

  // Spawns argv[0] with exactly the environment `env` (and `shm` as its shared memory).
  static int64_t spawnRaw(std::vector<std::string> argv, std::vector<std::string> env,
                          int flags = 0, px_shm_id* shm = nullptr);
  // Spawns `program` through the server with this process's environment, its output and
  // error going to `out` when given. The child inherits the caller's descriptors.
  int64_t spawnProgram(const std::string& program, const std::vector<std::string>& args,
                       OutputPipe* out = nullptr);
  // The same for the px_probe helper.
  int64_t spawnProbe(const std::vector<std::string>& args, OutputPipe* out = nullptr);
  // Collects `child` with a bounded non-blocking wait; its exit code, or -1.
  static int collect(int64_t child, int timeoutMs = 10000);
  // What a well-behaved client gets beside a greedy one: a new pipe that carries bytes and a
  // round trip, within a second, and a program started and collected.
  void expectOthersServed();

  // A forked child that keeps `links` links to `socket` busy: each sends `frame` `inFlight`
  // times, then once more for every reply. Answers its pid once the flood has run a moment (-1
  // when it did not start); the caller kills it.
  static pid_t flood(const std::string& socket, int links, int inFlight,
                     const std::vector<uint8_t>& frame);
  // Times `call` up to `count` times, `pauseMs` apart, until one fails; the times in ms,
  // sorted, also printed (median and slowest) after `what`.
  static std::vector<int64_t> timeCalls(const char* what, int count, int pauseMs,
                                        const std::function<bool()>& call);

  // The serialised table's record of `fd`; false when the table has none.
  static bool tableRecord(int fd, px_fd_record* out);
  // The interface types of a record's node entries, in order.
  static std::vector<uint64_t> interfaceTypes(const px_fd_record& record);
  // A link to the first entry of `type` in fd's node, bound to its service; null (and a test
  // failure) when there is none or the bind is refused.
  std::unique_ptr<RawLink> bindService(int fd, uint64_t type);
  // A link bound to the service of one node entry; null when the bind is refused.
  std::unique_ptr<RawLink> bindEntry(const px_node_entry& entry) const;

  std::string rt_;
  pid_t server_ = 0;
};
