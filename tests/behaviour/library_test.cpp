// The client library under concurrent use: calls from many threads at once while others
// block, reads and writes racing the close and replacement of their number, several threads
// waiting for signals, and a signal wait held by another link of the same process.
#include <errno.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <set>
#include <thread>
#include <vector>

#include "posix/wire.h"
#include "raw_link.h"
#include "server_fixture.h"

namespace {

using LibraryTest = ServerFixture;

TEST_F(LibraryTest, CallsFromManyThreadsWhileOthersBlock) {
  int64_t child = spawnProbe({"sleep", "300", "exit", "3"});
  ASSERT_GT(child, 0);
  int64_t waited = 0;
  int status = -1;
  std::thread blocker([&] { waited = px_waitpid(child, &status, 0); });
  std::atomic<int> wrong{0};
  std::vector<std::thread> callers;
  for (int t = 0; t < 4; ++t) {
    callers.emplace_back([&] {
      for (int k = 0; k < 100; ++k) {
        if (px_getpgid(0) != getpid()) ++wrong;
        if (px_getppid() != 0) ++wrong;
      }
    });
  }
  for (auto& t : callers) t.join();
  blocker.join();
  EXPECT_EQ(wrong.load(), 0);
  EXPECT_EQ(waited, child);
  EXPECT_EQ(status, 3);
}

TEST_F(LibraryTest, ReadsAndWritesRaceTheCloseAndReplacementOfTheirNumber) {
  // Reads and writes find their number's description without the view's lock: while other
  // threads use the number, it is closed and given one pipe end after another. Each call
  // must answer as if it came before or after each change.
  constexpr int kNumber = 20;
  std::atomic<bool> done{false};
  std::atomic<int> wrong{0};
  std::vector<std::thread> users;
  for (int t = 0; t < 2; ++t) {
    users.emplace_back([&] {
      char b = 0;
      while (!done.load()) {
        ssize_t r = px_read(kNumber, &b, 1);
        if (r < 0 && errno != EAGAIN && errno != EBADF) ++wrong;
        ssize_t w = px_write(kNumber, "w", 1);
        if (w < 0 && errno != EAGAIN && errno != EBADF && errno != EPIPE) ++wrong;
      }
    });
  }
  // The users' threads must be joined whatever happens here: no ASSERT in the loop.
  for (int i = 0; i < 200; ++i) {
    int fds[2];
    if (px_pipe(fds) != 0) {
      ADD_FAILURE() << strerror(errno);
      break;
    }
    // A byte in the pipe before the users can reach it (they fill a write end they hold).
    EXPECT_EQ(px_write(fds[1], "p", 1), 1);
    EXPECT_EQ(px_set_nonblock(fds[0], 1), 0);
    EXPECT_EQ(px_set_nonblock(fds[1], 1), 0);
    EXPECT_EQ(px_dup2(fds[i % 2], kNumber), kNumber);
    EXPECT_EQ(px_close(fds[0]), 0);
    EXPECT_EQ(px_close(fds[1]), 0);
    if (i % 5 == 0) {
      EXPECT_EQ(px_close(kNumber), 0);
    }
  }
  done = true;
  for (auto& t : users) t.join();
  EXPECT_EQ(wrong.load(), 0);
  px_close(kNumber);
}

TEST_F(LibraryTest, EachSignalGoesToOneOfSeveralWaitingThreads) {
  std::atomic<int> got[2] = {0, 0};
  std::vector<std::thread> waiters;
  for (int t = 0; t < 2; ++t) {
    waiters.emplace_back([&, t] {
      int sig = 0;
      if (px_sigtimedwait(&sig, nullptr, 5000) == 0) got[t] = sig;
    });
  }
  ASSERT_TRUE(awaitKept(static_cast<uint64_t>(getpid()), 0, true));
  ASSERT_EQ(px_kill(getpid(), 4), 0);
  ASSERT_EQ(px_kill(getpid(), 6), 0);
  for (auto& t : waiters) t.join();
  std::set<int> seen = {got[0].load(), got[1].load()};
  EXPECT_EQ(seen, (std::set<int>{4, 6}));
}

TEST_F(LibraryTest, SignalWaitHeldByAnotherLinkOfTheProcess) {
  // The raw link belongs to this process too: its waitSignal is the one the server keeps.
  RawLink other(path("chn/posix.service"));
  ASSERT_TRUE(other.send(requestFrame(PX_CMD_WAIT_SIGNAL, 77)));
  ASSERT_TRUE(awaitKept(static_cast<uint64_t>(getpid()), 0, true));
  int sig = 0;
  int64_t start = monotonicMs();
  // Every waitSignal of the library is answered 0 at once meanwhile: it must neither fail
  // nor return early.
  EXPECT_ERRNO(px_sigtimedwait(&sig, nullptr, 300), EAGAIN);
  EXPECT_GE(monotonicMs() - start, 290);
  ASSERT_EQ(px_kill(getpid(), 5), 0);
  RawReply reply;
  ASSERT_EQ(other.receive(&reply, 5000), 1);
  EXPECT_EQ(reply.id, 77u);
  EXPECT_EQ(reply.code, 5u);
  // With the other wait answered, the library's own wait is kept and gets the next signal.
  ASSERT_EQ(px_kill(getpid(), 6), 0);
  ASSERT_EQ(px_sigtimedwait(&sig, nullptr, 5000), 0);
  EXPECT_EQ(sig, 6);
}

}  // namespace
