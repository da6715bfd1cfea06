// The fixture that runs a private posix-server for each behaviour test.
#include "server_fixture.h"

#include <dirent.h>
#include <fcntl.h>
#include <inttypes.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "command_runner.h"
#include "diag_query.h"

extern char** environ;

namespace {

// Whether the report at `at` is the undefined-behaviour checker's own probe failing, not a
// fault: it reads an object's type through a host pipe, and in a process that has no
// descriptor free (a test drives the server to its limit on purpose) every object then looks
// like one of no type, and its memory "cannot be printed" through the same pipe.
bool probeFailed(const std::string& text, size_t at) {
  const std::string report = text.substr(at, 400);
  return report.find("invalid vptr") != std::string::npos &&
         report.find("<memory cannot be printed>") != std::string::npos;
}

// The server and the programs it starts write to the logs in RT; under a sanitizer their
// reports land there too, and a report is a failure of the test that provoked it.
void expectNoSanitizerReports(const std::string& dir) {
  static const char* const kMarkers[] = {"ERROR: AddressSanitizer", "ERROR: LeakSanitizer",
                                         "WARNING: ThreadSanitizer", "runtime error:"};
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator(dir, ec)) {
    if (entry.path().extension() != ".log") continue;
    std::string text = hostRead(entry.path());
    for (const char* marker : kMarkers) {
      size_t at = text.find(marker);
      while (at != std::string::npos && probeFailed(text, at)) at = text.find(marker, at + 1);
      if (at == std::string::npos) continue;
      ADD_FAILURE() << "sanitizer report in " << entry.path() << ":\n" << text.substr(at, 4000);
      break;
    }
  }
}

// The pids whose parent is `parent` (read from /proc/<pid>/stat).
std::vector<pid_t> childrenOf(pid_t parent) {
  std::vector<pid_t> found;
  DIR* dir = opendir("/proc");
  if (dir == nullptr) return found;
  while (struct dirent* e = readdir(dir)) {
    char* end = nullptr;
    long pid = strtol(e->d_name, &end, 10);
    if (*end != '\0' || pid <= 0) continue;
    std::string text = procStat(static_cast<pid_t>(pid));
    size_t paren = text.rfind(')');
    long ppid = 0;
    if (paren != std::string::npos && sscanf(text.c_str() + paren + 1, " %*c %ld", &ppid) == 1 &&
        ppid == parent) {
      found.push_back(static_cast<pid_t>(pid));
    }
  }
  closedir(dir);
  return found;
}

}  // namespace

std::string procStat(pid_t pid) {
  // Read with plain read(2): a process that ends between open and read makes the read fail
  // with ESRCH, which a stream would turn into an exception.
  int fd = open(("/proc/" + std::to_string(pid) + "/stat").c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return {};
  char buffer[1024];
  ssize_t n = read(fd, buffer, sizeof buffer);
  close(fd);
  return n > 0 ? std::string(buffer, static_cast<size_t>(n)) : std::string();
}

char hostState(pid_t pid) {
  std::string text = procStat(pid);
  size_t paren = text.rfind(')');
  return paren == std::string::npos || paren + 2 >= text.size() ? '?' : text[paren + 2];
}

int64_t monotonicMs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

void sleepMs(int ms) {
  struct timespec ts = {ms / 1000, (ms % 1000) * 1000000L};
  while (nanosleep(&ts, &ts) != 0) {
  }
}

bool sendNumber(int fd, int64_t value) { return write(fd, &value, sizeof value) == sizeof value; }

int64_t takeNumber(int fd) {
  int64_t value = -1;
  return read(fd, &value, sizeof value) == sizeof value ? value : -1;
}

int waitExit(pid_t pid, int timeoutMs) {
  int status = -1;
  pid_t got = 0;
  eventually([&] { return (got = waitpid(pid, &status, WNOHANG)) != 0; }, timeoutMs);
  return got == pid ? status : -1;
}

void ServerFixture::SetUp() {
  char tmpl[] = "/tmp/px-behaviour-XXXXXX";
  ASSERT_NE(mkdtemp(tmpl), nullptr) << strerror(errno);
  rt_ = tmpl;
  setenv("POSIX_RUNTIME_DIR", rt_.c_str(), 1);
  px_fini();  // forget the previous test's instance
  if (!startServerInSetUp_) return;
  server_ = launchServer(path("server.log"));
  ASSERT_GT(server_, 0);
  // Answering, or ended already (then it never will).
  bool ended = false;
  bool answered = eventually([&] {
    return px_getppid() >= 0 || (ended = waitpid(server_, nullptr, WNOHANG) == server_);
  }, 10000, 20);
  if (ended) server_ = 0;
  ASSERT_TRUE(answered && !ended) << "server did not answer; log:\n" << serverLog();
}

void ServerFixture::TearDown() {
  px_fini();
  // Everything the server started is its host child; note them before it goes.
  std::vector<pid_t> started = server_ > 0 ? childrenOf(server_) : std::vector<pid_t>{};
  if (server_ > 0) stopServer();
  // A server started by posixctl records its pid; stop it and its children too.
  std::ifstream pidFile(path("server.pid"));
  pid_t background = 0;
  if (pidFile >> background && background > 0) {
    std::vector<pid_t> more = childrenOf(background);
    started.insert(started.end(), more.begin(), more.end());
    started.push_back(background);
  }
  for (pid_t pid : started) kill(pid, SIGKILL);
  if (rt_.empty()) return;
  expectNoSanitizerReports(rt_);
  std::error_code ec;
  std::filesystem::remove_all(rt_, ec);
}

pid_t ServerFixture::launchServer(const std::string& logPath) {
  int log = open(logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  if (log < 0) return -1;
  pid_t pid = startCommand({POSIX_SERVER_BINARY}, log, -1, -1, true);
  close(log);
  return pid;
}

int ServerFixture::stopServer(int timeoutMs) {
  if (server_ <= 0) return -1;
  kill(server_, SIGTERM);
  int status = waitExit(server_, timeoutMs);
  if (status == -1) {
    kill(server_, SIGKILL);
    waitExit(server_, 2000);
  }
  server_ = 0;
  return status;
}

std::string ServerFixture::helper(const std::string& name) {
  return std::string(POSIX_HELPER_DIR) + "/" + name;
}

bool ServerFixture::heapStats(HeapStats* out, int timeoutMs) {
  // The first whole stats line written after the signal.
  static const std::string kMarker = "stats: heap bytes ";
  size_t from = serverLog().size(), at = std::string::npos;
  if (server_ <= 0 || kill(server_, SIGUSR1) != 0) return false;
  std::string log;
  unsigned long long bytes = 0, blocks = 0, threads = 0, descriptors = 0;
  if (!eventually([&] {
        log = serverLog();
        at = log.find(kMarker, from);
        return at != std::string::npos && log.find('\n', at) != std::string::npos;
      }, timeoutMs) ||
      sscanf(log.c_str() + at, "stats: heap bytes %llu blocks %llu threads %llu descriptors %llu",
             &bytes, &blocks, &threads, &descriptors) != 4) {
    return false;
  }
  *out = HeapStats{bytes, blocks, threads, descriptors};
  return true;
}

int64_t ServerFixture::serverThreads() {
  HeapStats stats;
  return heapStats(&stats) ? static_cast<int64_t>(stats.threads) : -1;
}

int64_t entriesIn(const std::string& dir) {
  std::error_code ec;
  auto all = std::filesystem::directory_iterator(dir, ec);
  return ec ? -1 : std::distance(begin(all), end(all));
}

int64_t ServerFixture::serverFds() const { return entriesIn("/proc/" + std::to_string(server_) + "/fd"); }

int ServerFixture::lowestFreeServerFd() const {
  int fd = 0;
  while (std::filesystem::exists("/proc/" + std::to_string(server_) + "/fd/" + std::to_string(fd))) ++fd;
  return fd;
}

int64_t ServerFixture::awaitThreadsAtMost(int64_t count, int timeoutMs) {
  int64_t seen = -1;
  eventually([&] { return (seen = serverThreads()) <= count; }, timeoutMs, 50);
  return seen;
}

bool ServerFixture::awaitKept(uint64_t pid, uint32_t waits, bool signalWait, int timeoutMs) {
  RawLink link(path("chn/" PX_DIAG_SERVICE_NAME));
  return eventually([&] {
    std::vector<px_diag_process> records;
    if (!diagProcesses(link, &records)) return false;
    for (const px_diag_process& record : records) {
      if (record.pid == pid) return record.waits >= waits && (!signalWait || record.signal_waiter != 0);
    }
    return false;
  }, timeoutMs, 5);
}

bool ServerFixture::awaitInsidePipeCall(uint64_t pid, int timeoutMs) {
  RawLink link(path("chn/" PX_DIAG_SERVICE_NAME));
  return eventually([&] { return diagInsidePipeCall(link, pid); }, timeoutMs, 5);
}

int64_t ServerFixture::spawnRaw(std::vector<std::string> argv, std::vector<std::string> env,
                                int flags, px_shm_id* shm) {
  std::vector<char*> argp, envp;
  for (std::string& a : argv) argp.push_back(a.data());
  for (std::string& e : env) envp.push_back(e.data());
  argp.push_back(nullptr);
  envp.push_back(nullptr);
  return shm != nullptr ? px_spawn_shared(argp[0], argp.data(), envp.data(), flags, shm)
                        : px_spawn(argp[0], argp.data(), envp.data(), flags);
}

int64_t ServerFixture::spawnProgram(const std::string& program,
                                    const std::vector<std::string>& args, OutputPipe* out) {
  std::vector<std::string> env;
  for (char** e = environ; *e != nullptr; ++e) env.push_back(*e);
  if (out != nullptr) {
    env.push_back("POSIX_STDOUT=" + out->writePath());
    env.push_back("POSIX_STDERR=" + out->writePath());
  }
  std::vector<std::string> argv{program};
  argv.insert(argv.end(), args.begin(), args.end());
  return spawnRaw(argv, env);
}

int64_t ServerFixture::spawnProbe(const std::vector<std::string>& args, OutputPipe* out) {
  return spawnProgram(helper("px_probe"), args, out);
}

int ServerFixture::collect(int64_t child, int timeoutMs) {
  int status = -1;
  int64_t got = 0;
  eventually([&] { return (got = px_waitpid(child, &status, PX_WNOHANG)) != 0; }, timeoutMs);
  return got == child ? status : -1;
}

void ServerFixture::expectOthersServed() {
  int fds[2];
  ASSERT_EQ(px_pipe(fds), 0) << strerror(errno);
  int64_t start = monotonicMs();
  char buf[4];
  EXPECT_EQ(px_write(fds[1], "ok", 2), 2);
  EXPECT_EQ(px_read(fds[0], buf, sizeof buf), 2);
  EXPECT_EQ(px_close(fds[0]) | px_close(fds[1]), 0);
  EXPECT_GE(px_getppid(), 0);
  EXPECT_LT(monotonicMs() - start, 1000) << "a pipe's bytes and a round trip";
  int64_t child = spawnProgram("/bin/true", {});
  ASSERT_GT(child, 0) << strerror(errno);
  EXPECT_EQ(collect(child), 0);
}

pid_t ServerFixture::flood(const std::string& socket, int links, int inFlight,
                           const std::vector<uint8_t>& frame) {
  int ready[2];
  if (pipe2(ready, O_CLOEXEC) != 0) return -1;
  pid_t pid = inChild([&] {
    Links held;
    std::vector<pollfd> polls;
    for (int i = 0; i < links; ++i) {
      held.push_back(std::make_unique<RawLink>(socket));
      polls.push_back({held.back()->fd(), POLLIN, 0});
      for (int k = 0; k < inFlight; ++k) held.back()->send(frame);
    }
    sendNumber(ready[1], 1);
    for (RawReply reply;;) {
      if (poll(polls.data(), polls.size(), -1) < 0) continue;
      for (size_t i = 0; i < held.size(); ++i) {
        if ((polls[i].revents & POLLIN) && held[i]->receive(&reply, 0) == 1) held[i]->send(frame);
      }
    }
  });
  close(ready[1]);
  bool started = takeNumber(ready[0]) == 1;
  close(ready[0]);
  sleepMs(300);
  return started ? pid : -1;
}

std::vector<int64_t> ServerFixture::timeCalls(const char* what, int count, int pauseMs,
                                              const std::function<bool()>& call) {
  std::vector<int64_t> times;
  for (bool ok = true; ok && static_cast<int>(times.size()) < count; sleepMs(pauseMs)) {
    int64_t start = monotonicMs();
    ok = call();
    times.push_back(monotonicMs() - start);
  }
  std::sort(times.begin(), times.end());
  std::printf("%s: median %" PRId64 " ms, slowest %" PRId64 " ms\n", what, times[times.size() / 2],
              times.back());
  return times;
}
