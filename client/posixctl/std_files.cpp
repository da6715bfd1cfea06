#include "std_files.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <posix/posix_service.h>

#include "posixctl.h"

namespace posixctl {

namespace {

const char* const kNames[] = {PX_ENV_STDIN, PX_ENV_STDOUT, PX_ENV_STDERR};

std::string procPath(int fd) { return "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(fd); }

// Copies until end of file on `from` or a failed write to `to`.
void copyAll(int from, int to) {
  char buf[65536];
  for (;;) {
    ssize_t got = read(from, buf, sizeof buf);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return;
    for (ssize_t done = 0; done < got;) {
      ssize_t put = write(to, buf + done, static_cast<size_t>(got - done));
      if (put < 0 && errno == EINTR) continue;
      if (put <= 0) return;
      done += put;
    }
  }
}

}  // namespace

// One relayed standard file: the pipe between the program and posixctl's descriptor `target`.
struct StdFiles::Relay {
  bool output = true;
  int target = -1;
  int programEnd = -1;  // the end the program opens through /proc; closed once it started
  int ownEnd = -1;      // the end the relay thread copies through; closed by the thread
  pthread_t thread{};
  bool running = false;  // the thread was started and has not been joined

  static void* run(void* arg) {
    Relay* relay = static_cast<Relay*>(arg);
    if (relay->output) {
      copyAll(relay->ownEnd, relay->target);
    } else {
      copyAll(relay->target, relay->ownEnd);
    }
    close(relay->ownEnd);  // an input relay's close is the program's end of file
    return nullptr;
  }
};

StdFiles::StdFiles() {
  for (int fd = 0; fd < 3; ++fd) {
    closed_[fd] = fcntl(fd, F_GETFD) < 0 && errno == EBADF;
    // The lowest free number is `fd` itself: the ones below are open or occupied by now.
    if (closed_[fd]) ::open("/dev/null", fd == 0 ? O_RDONLY : O_WRONLY);
  }
}

void StdFiles::prepare(std::vector<std::string>& env) {
  // A relay that writes to a pipe or socket whose reader has gone sees EPIPE, not a signal.
  signal(SIGPIPE, SIG_IGN);
  struct stat seen[3];
  Relay* outputRelays[3] = {nullptr, nullptr, nullptr};
  for (int fd = 0; fd < 3; ++fd) {
    if (closed_[fd] || fstat(fd, &seen[fd]) != 0) {
      setEnvEntry(env, std::string(kNames[fd]) + "=");  // the program starts with it closed
      continue;
    }
    bool reopens = !S_ISREG(seen[fd].st_mode) && !S_ISSOCK(seen[fd].st_mode);
    if (reopens) {
      int probe = ::open(procPath(fd).c_str(), (fd == 0 ? O_RDONLY : O_WRONLY) | O_NONBLOCK | O_CLOEXEC);
      if (probe >= 0) {
        close(probe);
        setEnvEntry(env, std::string(kNames[fd]) + "=" + procPath(fd));
        continue;
      }
    }
    // Standard error going to the same file as standard output shares its relay, so the
    // program's writes to the two keep their order.
    if (fd == 2 && outputRelays[1] != nullptr && seen[1].st_dev == seen[2].st_dev &&
        seen[1].st_ino == seen[2].st_ino) {
      setEnvEntry(env, std::string(kNames[fd]) + "=" + procPath(outputRelays[1]->programEnd));
      continue;
    }
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) continue;
    Relay* relay = new Relay();
    relay->output = fd != 0;
    relay->target = fd;
    relay->programEnd = relay->output ? ends[1] : ends[0];
    relay->ownEnd = relay->output ? ends[0] : ends[1];
    relays_.push_back(relay);
    if (relay->output) outputRelays[fd] = relay;
    setEnvEntry(env, std::string(kNames[fd]) + "=" + procPath(relay->programEnd));
  }
  for (Relay* relay : relays_) {
    relay->running = pthread_create(&relay->thread, nullptr, &Relay::run, relay) == 0;
    if (!relay->running) close(relay->ownEnd);
  }
}

void StdFiles::started() {
  for (Relay* relay : relays_) {
    if (relay->programEnd >= 0) close(relay->programEnd);
    relay->programEnd = -1;
  }
}

void StdFiles::finish() {
  started();
  // Output is drained to its end. An input relay may be blocked reading posixctl's own input,
  // which nobody needs any more; it is left to end with the process.
  for (Relay* relay : relays_) {
    if (!relay->running || !relay->output) continue;
    pthread_join(relay->thread, nullptr);
    relay->running = false;
  }
}

StdFiles::~StdFiles() {
  started();
  // Records of threads still running stay reachable until the process ends.
  static std::vector<Relay*>* const stillRunning = new std::vector<Relay*>();
  for (Relay* relay : relays_) {
    if (relay->running) {
      pthread_detach(relay->thread);
      stillRunning->push_back(relay);
    } else {
      delete relay;
    }
  }
}

}  // namespace posixctl
