// Non-blocking and blocking ends of host FIFOs opened through the server and of the server's
// own pipes answer what the host kernel answers: each sequence runs once on the library's
// calls and once on the kernel's (a FIFO of the same kind, a pipe of the same capacity), and
// the two logs must match call for call.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <string_view>
#include <string>
#include <vector>

#include "server_fixture.h"

namespace {

using FifoNonblockTest = ServerFixture;

// One set of descriptor calls: the library's or the kernel's.
struct Calls {
  std::function<int(const char*, int)> open;
  std::function<bool(int fds[2])> pipe;  // both ends non-blocking
  std::function<ssize_t(int, void*, size_t)> read;
  std::function<ssize_t(int, const void*, size_t)> write;
  std::function<int(int)> close;
  std::function<void(int, bool)> nonblock;
};

Calls libraryCalls() {
  return {[](const char* p, int flags) { return px_open(p, flags, 0); },
          [](int fds[2]) { return px_pipe(fds) == 0 && px_set_nonblock(fds[0], 1) == 0 &&
                                  px_set_nonblock(fds[1], 1) == 0; },
          px_read, px_write, px_close, [](int fd, bool on) { px_set_nonblock(fd, on); }};
}

// The kernel's pipes buffer as much as the server's (4096 bytes).
Calls kernelCalls() {
  return {[](const char* p, int flags) { return ::open(p, flags | O_CLOEXEC); },
          [](int fds[2]) { return pipe2(fds, O_CLOEXEC | O_NONBLOCK) == 0 &&
                                  fcntl(fds[0], F_SETPIPE_SZ, 4096) == 4096; },
          ::read, ::write, ::close,
          [](int fd, bool on) { fcntl(fd, F_SETFL, on ? O_NONBLOCK : 0); }};
}

std::vector<char> patterned() {
  std::vector<char> bytes(100000);
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i * 7 + i / 251);
  return bytes;
}

// Runs a sequence of calls and notes each answer (or its errno).
class Log {
 public:
  explicit Log(Calls c) : c(std::move(c)) {}
  ssize_t note(const std::string& what, ssize_t r) {
    const ssize_t shown = r < 0 ? errno : r;
    std::string line = what;
    line += r < 0 ? " errno " : " ";
    line += std::to_string(shown);
    lines.push_back(line);
    return r;
  }
  // A read notes what it read too (a hash of the bytes).
  ssize_t read(int fd, size_t n) {
    std::vector<char> got(n);
    ssize_t r = c.read(fd, got.data(), n);
    return note("read " + std::to_string(std::hash<std::string_view>()({got.data(), r > 0 ? size_t(r) : 0})), r);
  }
  ssize_t write(int fd, size_t n) { return note("write " + std::to_string(n), c.write(fd, buf.data(), n)); }
  int open(const std::string& p, int flags) {
    int fd = c.open(p.c_str(), flags);
    note("open", fd < 0 ? fd : 0);  // the numbers differ
    return fd;
  }

  // A pair of non-blocking ends: emptiness, a full buffer, partial and all-or-nothing writes,
  // then a blocking writer whose reader goes and a blocking reader whose writer goes.
  void ends(const std::function<bool(int fds[2])>& make) {
    int fds[2];
    ASSERT_TRUE(make(fds));
    read(fds[1], 1);  // the wrong ends
    write(fds[0], 1);
    read(fds[0], 10);  // empty, with a writer: would block
    write(fds[1], 100000);  // what fits
    write(fds[1], 1);
    read(fds[0], 100);
    write(fds[1], 4096);  // at most PIPE_BUF: all or nothing
    while (read(fds[0], 65536) > 0) {
    }
    write(fds[1], 4096);
    read(fds[0], 100);
    write(fds[1], 4096);
    c.nonblock(fds[1], false);
    c.close(fds[0]);
    write(fds[1], 1);  // no reader
    c.close(fds[1]);
    ASSERT_TRUE(make(fds));
    write(fds[1], 2);
    c.close(fds[1]);
    c.nonblock(fds[0], false);
    read(fds[0], 10);
    read(fds[0], 10);  // end of file, and it stays
    read(fds[0], 10);
    c.close(fds[0]);
    note("close again", c.close(fds[0]));
  }

  // FIFO opens: a writer needs a reader, at once after the only reader's close too.
  void opens(const std::string& fifo) {
    for (int i = 0; i < 20; ++i) {
      int r = open(fifo, O_RDONLY | O_NONBLOCK);
      c.close(r);
      if (int w = open(fifo, O_WRONLY | O_NONBLOCK); w >= 0) c.close(w);
    }
  }

  Calls c;
  std::vector<std::string> lines;
  std::vector<char> buf = patterned();
};

TEST_F(FifoNonblockTest, FifoAndPipeEndsAnswerWhatTheKernelAnswers) {
  struct sigaction ignore {}, old {};
  ignore.sa_handler = SIG_IGN;
  ASSERT_EQ(sigaction(SIGPIPE, &ignore, &old), 0);  // the kernel's writes raise it
  const std::string fifo = path("fifo");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  Log library(libraryCalls());
  Log kernel(kernelCalls());
  for (Log* log : {&library, &kernel}) {
    log->ends([&](int fds[2]) {
      fds[0] = log->open(fifo, O_RDONLY | O_NONBLOCK);
      fds[1] = log->open(fifo, O_WRONLY | O_NONBLOCK);
      return fds[0] >= 0 && fds[1] >= 0;
    });
    log->opens(fifo);
    log->ends(log->c.pipe);
  }
  sigaction(SIGPIPE, &old, nullptr);
  EXPECT_EQ(library.lines, kernel.lines);
  px_fd_info list[4];
  EXPECT_EQ(px_fd_list(list, 4), 0);
}

}  // namespace
