// OutputPipe: reading a spawned program's lines through a pipe named by /proc.
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include "server_fixture.h"

OutputPipe::OutputPipe() {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) == 0) {
    read_ = fds[0];
    write_ = fds[1];
  }
}

OutputPipe::~OutputPipe() {
  if (read_ >= 0) close(read_);
  closeWrite();
}

std::string OutputPipe::writePath() const {
  return "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(write_);
}

void OutputPipe::closeWrite() {
  if (write_ >= 0) close(write_);
  write_ = -1;
}

bool OutputPipe::readLine(std::string* line, int timeoutMs) {
  int64_t deadline = monotonicMs() + timeoutMs;
  for (;;) {
    size_t nl = pending_.find('\n');
    if (nl != std::string::npos) {
      *line = pending_.substr(0, nl);
      pending_.erase(0, nl + 1);
      return true;
    }
    int64_t left = deadline - monotonicMs();
    if (left <= 0) return false;
    struct pollfd pfd = {read_, POLLIN, 0};
    if (poll(&pfd, 1, static_cast<int>(left)) <= 0) continue;
    char buf[1024];
    ssize_t n = read(read_, buf, sizeof buf);
    if (n <= 0) return false;
    pending_.append(buf, static_cast<size_t>(n));
  }
}
