// posix-server's main: prepares the instance, sets up signal handling and runs the linked
// image. SIGTERM and SIGINT shut the instance down cleanly (the programs it started end, its
// sockets and node files go);
// SIGUSR1 writes one line of heap, thread and host descriptor counts so that tests can watch
// for leaks. The log says when the server serves and when it stopped, and which server holds RT
// when another one already runs there.
#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/heap.h"
#include "platform/host_files.h"
#include "platform/image.h"
#include "platform/log.h"
#include "platform/runtime.h"
#include "platform/string.h"
#include "posix/posix_service.h"
#include "started_programs.h"

namespace {

// How long the programs a stopping server started have to end after SIGTERM.
constexpr int kStopGraceMs = 3000;

const char kHelp[] =
    "usage: posix-server [--help | --version]\n"
    "\n"
    "Runs the POSIX service server in the foreground on the runtime directory RT\n"
    "($POSIX_RUNTIME_DIR, else $XDG_RUNTIME_DIR/posix, else /tmp/posix-<uid>), which it creates\n"
    "with mode 0700 and refuses when another user owns it or group or others may use it.\n"
    "Clients connect to RT/chn/posix.service. One server runs per RT. SIGTERM or SIGINT stops\n"
    "it cleanly, ending the programs it started (SIGTERM, SIGKILL 3 s later); SIGUSR1\n"
    "writes a line of heap, thread and descriptor counts to the log.\n"
    "\n"
    "The log goes to standard error. POSIX_LOG_LEVEL (default 2) hides lines below a level:\n"
    "1 adds a line for every process the server meets, starts and sees end, and for every\n"
    "request an adapter refuses as an invalid command.\n"
    "POSIX_LOG_OFF names filters to switch off (e.g. \"POSIX SERVER\").\n"
    "'posixctl start' runs a server in the background instead.\n";

// One line of the loader's own at `level`, unless the log level hides it.
void logLine(uint32_t level, const std::string& text) {
  if (SysLogFilter::level() > level) return;
  Ref<LogPrinter> printer = SysLogStream::stdOutPrinter();
  printer->setLevel(level);
  printer->setSource(String::create("PLATFORM"));
  *printer << text.c_str();
  printer->endLine();
}

// The sweep of RT/chn leaves a socket younger than this, which may be a starting server's.
constexpr int64_t kFreshMs = 1000;

// A server killed just before this start left sockets too young for the sweep. No server
// answers on RT, so one nobody listens on is stale once it is old enough to tell from a
// starting server's: waits until the youngest such socket is (at most kFreshMs).
void waitForYoungSockets() {
  std::string chn = Runtime::path("chn");
  DIR* dir = ::opendir(chn.c_str());
  if (dir == nullptr) return;
  int64_t waitMs = 0;
  struct timespec now;
  ::clock_gettime(CLOCK_REALTIME, &now);
  while (dirent* entry = ::readdir(dir)) {
    std::string file = chn + "/" + entry->d_name;
    struct stat st;
    if (::lstat(file.c_str(), &st) != 0 || !S_ISSOCK(st.st_mode)) continue;
    int64_t age = (now.tv_sec - st.st_ctim.tv_sec) * 1000 + (now.tv_nsec - st.st_ctim.tv_nsec) / 1000000;
    if (age < kFreshMs && Runtime::listener(file) == 0) waitMs = std::max(waitMs, kFreshMs - age + 50);
  }
  ::closedir(dir);
  struct timespec pause = {static_cast<time_t>(waitMs / 1000), static_cast<long>(waitMs % 1000) * 1000000L};
  if (waitMs > 0) ::nanosleep(&pause, nullptr);
}

void serving(const std::string& namePath) {
  std::string suffix = std::string("/") + PX_SERVICE_NAME;
  if (namePath.size() < suffix.size() ||
      namePath.compare(namePath.size() - suffix.size(), suffix.size(), suffix) != 0) {
    return;
  }
  logLine(2, "serving on " + namePath + ", pid " + std::to_string(::getpid()));
}

// /proc/self/status, opened at start and kept: the stats are asked for most when something
// is wrong, and a server out of descriptors could not open it then.
int statusFd = -1;

// The "Threads:" line of /proc/self/status; 0 when it cannot be read. A read from offset 0
// makes the kernel write the file afresh.
uint64_t threadCount() {
  char text[4096];
  ssize_t got = statusFd >= 0 ? ::pread(statusFd, text, sizeof text - 1, 0) : -1;
  if (got <= 0) return 0;
  text[got] = '\0';
  const char* line = std::strstr(text, "\nThreads:");
  return line != nullptr ? std::strtoull(line + 9, nullptr, 10) : 0;
}

void writeStats() {
  Heap::Stats heap = Heap::stats();  // read before the line itself allocates anything
  uint64_t threads = threadCount();
  uint64_t descriptors = HostFiles::inUse();
  Ref<LogPrinter> printer = SysLogStream::stdOutPrinter();
  printer->setLevel(1);
  printer->setSource(String::create("PLATFORM"));
  *printer << "stats: heap bytes " << heap.liveBytes << " blocks " << heap.liveBlocks
           << " threads " << threads << " descriptors " << descriptors << " of "
           << HostFiles::limit();
  printer->endLine();
}

sigset_t handledSignals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGUSR1);
  return set;
}

std::string pidList(const std::vector<pid_t>& pids) {
  std::string text;
  for (pid_t pid : pids) {
    if (!text.empty()) text += ' ';
    text += std::to_string(pid);
  }
  return text;
}

// A stopping server ends what it started: TERM to each program's group, KILL after a grace
// period. It still serves meanwhile, so a starter waiting for its program learns how it ended.
void endStartedPrograms() {
  std::vector<pid_t> programs = StartedPrograms::children();
  if (programs.empty()) return;
  logLine(2, "stopping: ending the programs it started (pids " + pidList(programs) + ")");
  std::vector<pid_t> killed = StartedPrograms::end(programs, kStopGraceMs);
  if (!killed.empty()) {
    logLine(3, "killed the programs still running " + std::to_string(kStopGraceMs / 1000) +
                   " s after SIGTERM (pids " + pidList(killed) + ")");
  }
}

// Every thread blocks the handled signals, so they all arrive here.
void* signalThread(void*) {
  sigset_t set = handledSignals();
  for (;;) {
    siginfo_t info;
    int received = sigwaitinfo(&set, &info);
    if (received == SIGTERM || received == SIGINT) {
      endStartedPrograms();
      Runtime::shutDown();
      logLine(2, "stopped");
      _exit(0);
    }
    if (received == SIGUSR1) writeStats();
  }
  return nullptr;
}

}  // namespace

int main(int argc, char** argv) {
  // What whoever started the server left open is no business of the server's, and would be
  // handed on to every program it starts.
  HostFiles::closeInherited();
  // No process of the server's user reads or writes the server's memory or open files
  // through /proc/<pid> (mem, maps, fd); the server itself still can.
  prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
      std::fputs(kHelp, stdout);
      return 0;
    }
    if (std::strcmp(argv[i], "--version") == 0) {
      std::printf("posix-server %s\n", POSIX_VERSION);
      return 0;
    }
    std::fprintf(stderr, "posix-server: unknown argument '%s' (see posix-server --help)\n", argv[i]);
    return 2;
  }
  std::string why;
  if (!Runtime::prepare(&why)) {
    std::fprintf(stderr, "posix-server: %s\n", why.c_str());
    return 1;
  }
  // A server that already runs keeps RT: the name claim below fails and says so; this line
  // says who holds it. Otherwise whatever a killed server left in RT/chn goes now.
  std::string service = Runtime::path(std::string("chn/") + PX_SERVICE_NAME);
  long holder = Runtime::listener(service);
  if (holder > 0) {
    logLine(4, "a server already runs on " + service + ", pid " + std::to_string(holder));
  } else if (holder < 0) {
    logLine(4, "a server already runs on " + service);
  } else {
    waitForYoungSockets();
    Runtime::removeStaleChannels();
  }
  Runtime::onNameClaimed(serving);
  // A reply to a client that has gone must fail with EPIPE, not end the server.
  signal(SIGPIPE, SIG_IGN);
  // A shell starts background jobs with SIGINT ignored, and an ignored signal is discarded
  // even while blocked: the default action makes it wait pending for the signal thread.
  signal(SIGTERM, SIG_DFL);
  signal(SIGINT, SIG_DFL);
  signal(SIGUSR1, SIG_DFL);
  // Blocked before any thread exists, so that every later thread inherits the mask.
  sigset_t set = handledSignals();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  // Every client link and every description is a descriptor: take all the host allows. The
  // server's bounds on descriptions follow from this limit.
  struct rlimit files;
  if (getrlimit(RLIMIT_NOFILE, &files) == 0 && files.rlim_cur < files.rlim_max) {
    files.rlim_cur = files.rlim_max;
    setrlimit(RLIMIT_NOFILE, &files);
  }
  statusFd = ::open("/proc/self/status", O_RDONLY | O_CLOEXEC);
  // Still one thread: what the process holds now is its starting point.
  HostFiles::calibrate();
  pthread_t waiter;
  if (pthread_create(&waiter, nullptr, signalThread, nullptr) != 0) {
    std::fprintf(stderr, "posix-server: cannot start the signal thread\n");
    return 1;
  }
  pthread_detach(waiter);
  Image::_start(0, Image::kReasonLoad);
  return 0;
}
