// Pipes and descriptors within one process: blocked calls woken by the other end's close, and
// the numbering rules of dup (bytes, end-of-file, the wrong end and non-blocking calls are
// compared with the kernel's in fifo_nonblock_test.cpp).
#include <errno.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <thread>

#include "server_fixture.h"

namespace {

using PipeLocalTest = ServerFixture;

// Runs `call` on a thread, closes `fd` after `afterMs` while the call still waits, and answers
// what the call answered (its errno in `err`); the call must end within 1.5 s of the close.
ssize_t wokenByClose(const std::function<ssize_t()>& call, int fd, int afterMs, int* err) {
  std::atomic<ssize_t> result{-2};
  std::atomic<int64_t> endedAt{0};
  std::thread waiter([&] {
    ssize_t r = call();
    *err = errno;
    endedAt = monotonicMs();
    result = r;
  });
  sleepMs(afterMs);
  EXPECT_EQ(result.load(), -2) << "the call did not wait";
  int64_t closedAt = monotonicMs();
  EXPECT_EQ(px_close(fd), 0);
  waiter.join();
  EXPECT_LT(endedAt.load() - closedAt, 1500);
  return result;
}

TEST_F(PipeLocalTest, BlockedCallsAreWokenByTheOtherEndsClose) {
  int fds[2], err = 0;
  ASSERT_EQ(px_pipe(fds), 0) << strerror(errno);
  char buf[16];
  // Long enough for the read to be waiting in the server for more than one slice.
  EXPECT_EQ(wokenByClose([&] { return px_read(fds[0], buf, sizeof buf); }, fds[1], 1500, &err), 0);
  // A writer waiting for room gets EPIPE when the last reader goes.
  ASSERT_EQ(px_pipe(fds), 0) << strerror(errno);
  const std::string full(4096, 'f');
  ASSERT_EQ(px_write(fds[1], full.data(), full.size()), 4096);
  EXPECT_EQ(wokenByClose([&] { return px_write(fds[1], "x", 1); }, fds[0], 300, &err), -1);
  EXPECT_EQ(err, EPIPE);
}

TEST_F(PipeLocalTest, DupFollowsTheNumberingRules) {
  int fds[2];
  ASSERT_EQ(px_pipe(fds), 0) << strerror(errno);  // 3, 4
  // Lowest free number, then the lowest at or above a minimum.
  EXPECT_EQ(px_dup(fds[1]), 5);
  EXPECT_EQ(px_dupfd(fds[1], 9), 9);
  EXPECT_EQ(px_dupfd(fds[1], 9), 10);
  EXPECT_EQ(px_close(5), 0);
  EXPECT_EQ(px_dup(fds[0]), 5);
  // Onto a number: what was there is closed first; onto itself: the number answers.
  EXPECT_EQ(px_dup2(fds[1], 5), 5);
  EXPECT_EQ(px_dup2(fds[1], fds[1]), fds[1]);
  EXPECT_EQ(px_dup2(fds[1], 20), 20);
  EXPECT_ERRNO(px_dup(42), EBADF);
  EXPECT_ERRNO(px_dup2(42, 43), EBADF);
  EXPECT_ERRNO(px_dup2(fds[1], -1), EBADF);
  EXPECT_ERRNO(px_dupfd(fds[1], -1), EINVAL);
  EXPECT_ERRNO(px_dup2(42, 42), EBADF);
  // A reserved number takes the lowest free one and is listed without a description.
  int reserved = px_reserve_fd();
  EXPECT_EQ(reserved, 6);
  px_fd_info list[16];
  ASSERT_EQ(px_fd_list(list, 16), 7);
  const int numbers[] = {3, 4, 5, 6, 9, 10, 20};
  for (int k = 0; k < 7; ++k) {
    EXPECT_EQ(list[k].fd, numbers[k]);
    EXPECT_EQ(list[k].kind, numbers[k] == 6 ? PX_FD_KIND_RESERVED : PX_FD_KIND_FIFO);
  }
  EXPECT_ERRNO(px_write(reserved, "x", 1), EBADF);
  // Every write number reaches the one pipe; end-of-file needs all of them closed.
  EXPECT_EQ(px_write(20, "a", 1), 1);
  EXPECT_EQ(px_write(9, "b", 1), 1);
  for (int fd : {4, 5, 9, 10}) ASSERT_EQ(px_close(fd), 0);
  char buf[8];
  EXPECT_EQ(px_read(fds[0], buf, 2), 2);
  ASSERT_EQ(px_set_nonblock(fds[0], 1), 0);
  EXPECT_ERRNO(px_read(fds[0], buf, 2), EAGAIN);  // no end-of-file while 20 is open
  ASSERT_EQ(px_close(20), 0);
  EXPECT_EQ(px_read(fds[0], buf, 2), 0);
  EXPECT_EQ(px_close(reserved), 0);
  EXPECT_EQ(px_close(fds[0]), 0);
  EXPECT_EQ(px_fd_list(list, 16), 0);
}

}  // namespace
