// The fixture that runs a private posix-server for each behaviour test.
#include "server_fixture.h"

#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <iterator>

extern char** environ;

namespace {

constexpr int kStartTimeoutMs = 10000;

int removeEntry(const char* p, const struct stat*, int, struct FTW*) { return remove(p); }

// The server and the programs it starts write to the logs in RT; under a sanitizer their
// reports land there too, and a report is a failure of the test that provoked it.
void expectNoSanitizerReports(const std::string& dir) {
  static const char* const kMarkers[] = {"ERROR: AddressSanitizer", "ERROR: LeakSanitizer",
                                         "WARNING: ThreadSanitizer", "runtime error:"};
  DIR* d = opendir(dir.c_str());
  if (d == nullptr) return;
  while (dirent* entry = readdir(d)) {
    std::string name = entry->d_name;
    if (name.size() < 4 || name.compare(name.size() - 4, 4, ".log") != 0) continue;
    std::ifstream in(dir + "/" + name);
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    for (const char* marker : kMarkers) {
      size_t at = text.find(marker);
      if (at == std::string::npos) continue;
      ADD_FAILURE() << "sanitizer report in " << name << ":\n" << text.substr(at, 4000);
      break;
    }
  }
  closedir(d);
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
    if (paren == std::string::npos) continue;
    char state = 0;
    long ppid = 0;
    if (sscanf(text.c_str() + paren + 1, " %c %ld", &state, &ppid) == 2 && ppid == parent) {
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

void ServerFixture::SetUp() {
  char tmpl[] = "/tmp/px-behaviour-XXXXXX";
  ASSERT_NE(mkdtemp(tmpl), nullptr) << strerror(errno);
  rt_ = tmpl;
  setenv("POSIX_RUNTIME_DIR", rt_.c_str(), 1);
  px_fini();  // forget the previous test's instance
  if (!startServerInSetUp_) return;
  server_ = launchServer(path("server.log"));
  ASSERT_GT(server_, 0);
  ASSERT_TRUE(waitAnswering(kStartTimeoutMs)) << "server did not answer; log:\n" << serverLog();
}

void ServerFixture::TearDown() {
  px_fini();
  // Everything the server started is its host child; note them before it goes.
  std::vector<pid_t> started = server_ > 0 ? childrenOf(server_) : std::vector<pid_t>{};
  if (server_ > 0) stopServer();
  for (pid_t pid : started) kill(pid, SIGKILL);
  // A server started by posixctl records its pid; stop it too.
  std::ifstream pidFile(path("server.pid"));
  pid_t background = 0;
  if (pidFile >> background && background > 0) {
    std::vector<pid_t> more = childrenOf(background);
    kill(background, SIGKILL);
    for (pid_t pid : more) kill(pid, SIGKILL);
  }
  if (rt_.empty()) return;
  expectNoSanitizerReports(rt_);
  nftw(rt_.c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS);
}

pid_t ServerFixture::launchServer(const std::string& logPath) {
  int log = open(logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  if (log < 0) return -1;
  pid_t pid = fork();
  if (pid == 0) {
    int devnull = open("/dev/null", O_RDONLY);
    dup2(devnull, 0);
    dup2(log, 1);
    dup2(log, 2);
    execl(POSIX_SERVER_BINARY, POSIX_SERVER_BINARY, static_cast<char*>(nullptr));
    _exit(127);
  }
  close(log);
  return pid;
}

bool ServerFixture::waitAnswering(int timeoutMs) {
  int64_t deadline = monotonicMs() + timeoutMs;
  while (monotonicMs() < deadline) {
    if (px_getppid() >= 0) return true;
    if (server_ > 0 && waitpid(server_, nullptr, WNOHANG) == server_) {
      server_ = 0;  // it ended already
      return false;
    }
    sleepMs(20);
  }
  return false;
}

int waitExit(pid_t pid, int timeoutMs) {
  int64_t deadline = monotonicMs() + timeoutMs;
  for (;;) {
    int status = 0;
    pid_t got = waitpid(pid, &status, WNOHANG);
    if (got == pid) return status;
    if (got < 0 || monotonicMs() >= deadline) return -1;
    sleepMs(10);
  }
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

std::string ServerFixture::serverLog() const {
  std::ifstream log(path("server.log"));
  return std::string((std::istreambuf_iterator<char>(log)), std::istreambuf_iterator<char>());
}

bool ServerFixture::heapStats(HeapStats* out, int timeoutMs) {
  static const std::string kMarker = "stats: heap bytes ";
  auto count = [&](const std::string& log) {
    size_t n = 0;
    for (size_t at = log.find(kMarker); at != std::string::npos; at = log.find(kMarker, at + 1)) {
      ++n;
    }
    return n;
  };
  size_t before = count(serverLog());
  if (server_ <= 0 || kill(server_, SIGUSR1) != 0) return false;
  int64_t deadline = monotonicMs() + timeoutMs;
  while (monotonicMs() < deadline) {
    std::string log = serverLog();
    if (count(log) > before) {
      size_t at = log.rfind(kMarker);
      unsigned long long bytes = 0, blocks = 0, threads = 0;
      if (sscanf(log.c_str() + at, "stats: heap bytes %llu blocks %llu threads %llu", &bytes,
                 &blocks, &threads) != 3) {
        return false;
      }
      *out = HeapStats{bytes, blocks, threads};
      return true;
    }
    sleepMs(10);
  }
  return false;
}

int64_t ServerFixture::spawnProgram(const std::string& program, const std::vector<std::string>& args,
                                    OutputPipe* out, const std::vector<std::string>& extraEnv) {
  std::vector<std::string> env;
  for (char** e = environ; *e != nullptr; ++e) env.push_back(*e);
  if (out != nullptr) {
    env.push_back("POSIX_STDOUT=" + out->writePath());
    env.push_back("POSIX_STDERR=" + out->writePath());
  }
  env.insert(env.end(), extraEnv.begin(), extraEnv.end());
  std::vector<std::string> argv{program};
  argv.insert(argv.end(), args.begin(), args.end());
  std::vector<char*> argp, envp;
  for (std::string& a : argv) argp.push_back(a.data());
  argp.push_back(nullptr);
  for (std::string& e : env) envp.push_back(e.data());
  envp.push_back(nullptr);
  return px_spawn(argp[0], argp.data(), envp.data(), 0);
}

int64_t ServerFixture::spawnProbe(const std::vector<std::string>& args, OutputPipe* out,
                                  const std::vector<std::string>& extraEnv) {
  return spawnProgram(helper("px_probe"), args, out, extraEnv);
}

std::string ServerFixture::expectLine(OutputPipe& out, const std::string& prefix, int timeoutMs) {
  int64_t deadline = monotonicMs() + timeoutMs;
  std::string line;
  for (;;) {
    int64_t left = deadline - monotonicMs();
    if (left <= 0 || !out.readLine(&line, static_cast<int>(left))) return "";
    if (line.compare(0, prefix.size(), prefix) == 0) return line;
  }
}
