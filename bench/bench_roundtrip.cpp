// The server's own cost per request: a getParentId round trip through posix.service against a
// plain SOCK_SEQPACKET echo server (another process) moving frames of the same sizes, its
// client looking for the reply before it sleeps as the library does.
#include <benchmark/benchmark.h>
#include <posix/wire.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "bench_measure.h"
#include "posix_client.h"

namespace {

constexpr size_t kRequestSize = PX_FRAME_HEADER_SIZE;      // getParentId carries no values
constexpr size_t kReplySize = PX_FRAME_HEADER_SIZE + 8;    // one u64

// A forked echo server: answers every datagram with a reply-sized datagram.
class EchoServer {
 public:
  bool start() {
    path_ = std::string(std::getenv("POSIX_RUNTIME_DIR")) + "/bench-echo";
    int listener = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path_.c_str(), sizeof addr.sun_path - 1);
    unlink(path_.c_str());
    if (bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || listen(listener, 4) != 0) return false;
    pid_ = fork();
    if (pid_ == 0) {
      int link = accept(listener, nullptr, nullptr);
      char buffer[PX_WIRE_MAX_FRAME];
      for (;;) {
        ssize_t n = recv(link, buffer, sizeof buffer, 0);
        if (n <= 0) _exit(0);
        if (send(link, buffer, kReplySize, MSG_NOSIGNAL) < 0) _exit(0);
      }
    }
    close(listener);
    client_ = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    return connect(client_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
  }
  bool roundTrip() {
    char request[kRequestSize] = {};
    char reply[PX_WIRE_MAX_FRAME];
    if (send(client_, request, sizeof request, MSG_NOSIGNAL) != static_cast<ssize_t>(sizeof request)) return false;
    lookForReply();
    return recv(client_, reply, sizeof reply, 0) == static_cast<ssize_t>(kReplySize);
  }
  // As the library does before it sleeps for a reply (50 us of non-blocking looks; its echo
  // always answers in time, so it never backs off): the pair then weighs the server's own
  // work, not a sleep on one side only.
  void lookForReply() const {
    const double until = nowUs() + 50;
    pollfd p = {client_, POLLIN, 0};
    while (poll(&p, 1, 0) == 0 && nowUs() < until) {
    }
  }
  ~EchoServer() {
    if (client_ >= 0) close(client_);
    if (pid_ > 0) waitpid(pid_, nullptr, 0);
    unlink(path_.c_str());
  }

 private:
  std::string path_;
  pid_t pid_ = -1;
  int client_ = -1;
};

void BM_RoundTripServer(benchmark::State& state) {
  for (auto _ : state) {
    if (px_getppid() < 0) {
      state.SkipWithError("getParentId failed");
      break;
    }
  }
}
BENCHMARK(BM_RoundTripServer)->MinTime(1.0)->UseRealTime();

// The same round trip while `posixctl monitor` streams every request: reading them as they
// come, or stopped (SIGSTOP) so that its ring fills and the server drops what it cannot keep.
void roundTripMonitored(benchmark::State& state, bool stopped) {
  pid_t monitor = fork();
  if (monitor == 0) {
    int sink = open("/dev/null", O_WRONLY);
    dup2(sink, STDOUT_FILENO);
    execl(POSIXCTL_BINARY, "posixctl", "monitor", "--json", static_cast<char*>(nullptr));
    _exit(127);
  }
  usleep(300 * 1000);  // time for the monitor to attach
  if (stopped) kill(monitor, SIGSTOP);
  for (auto _ : state) {
    if (px_getppid() < 0) {
      state.SkipWithError("getParentId failed");
      break;
    }
  }
  kill(monitor, SIGKILL);
  waitpid(monitor, nullptr, 0);
}
void BM_RoundTripMonitored(benchmark::State& state) { roundTripMonitored(state, false); }
void BM_RoundTripMonitorStopped(benchmark::State& state) { roundTripMonitored(state, true); }
BENCHMARK(BM_RoundTripMonitored)->MinTime(1.0)->UseRealTime();
BENCHMARK(BM_RoundTripMonitorStopped)->MinTime(1.0)->UseRealTime();

void BM_RoundTripEcho(benchmark::State& state) {
  EchoServer echo;
  if (!echo.start()) {
    state.SkipWithError("echo server did not start");
    return;
  }
  for (auto _ : state) {
    if (!echo.roundTrip()) {
      state.SkipWithError("echo round trip failed");
      break;
    }
  }
}
BENCHMARK(BM_RoundTripEcho)->MinTime(1.0)->UseRealTime();

}  // namespace
