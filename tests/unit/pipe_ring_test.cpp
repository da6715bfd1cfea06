// The pipe ring's locks: a wait for a lock ends when a signal handler runs, a lock word holding
// a value nobody may hold is freed, and the server takes a lock over from a holder only while
// that holder is still stopped after the word was marked.
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "posix/pipe_ring.h"

namespace {

using posix::PipeRing;
using State = PipeRing::HolderState;

constexpr uint32_t kRing = 4096;

class PipeRingTest : public ::testing::Test {
 protected:
  std::vector<uint64_t> memory = std::vector<uint64_t>((PX_PIPE_RING_OFFSET + kRing) / 8);
  px_pipe_page* page = reinterpret_cast<px_pipe_page*>(memory.data());
  PipeRing server{memory.data(), kRing, 3, PipeRing::Holder::kServer};
  PipeRing client{memory.data(), kRing, 5, PipeRing::Holder::kClient};
  void SetUp() override { server.format(); }
  uint32_t writeLock() { return std::atomic_ref<uint32_t>(page->write_lock).load(); }
  void setWriteLock(uint32_t v) { std::atomic_ref<uint32_t>(page->write_lock).store(v); }
};

TEST_F(PipeRingTest, ALockWaitEndsWhenASignalHandlerRunsAndForgedLocksAreFreed) {
  struct sigaction action {};
  action.sa_handler = [](int) {};
  ASSERT_EQ(sigaction(SIGUSR2, &action, nullptr), 0);
  setWriteLock(9);  // another holder's token
  std::atomic<bool> done{false};
  PipeRing::Result result;
  std::thread writer([&] {
    result = client.write("x", 1, 5000);
    done = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_FALSE(done) << "the lock is held";
  const auto sent = std::chrono::steady_clock::now();
  pthread_kill(writer.native_handle(), SIGUSR2);
  writer.join();
  EXPECT_LT(std::chrono::steady_clock::now() - sent, std::chrono::seconds(1));
  EXPECT_EQ(result.end, PipeRing::End::kInterrupted);
  EXPECT_EQ(result.count, 0u);

  // A token that no holder has is freed; a live holder's is left alone.
  EXPECT_FALSE(server.recover(true, [](uint32_t) { return State::kRunning; }));
  EXPECT_EQ(writeLock(), 9u);
  EXPECT_TRUE(server.recover(true, [](uint32_t) { return State::kNobody; }));
  EXPECT_EQ(writeLock(), 0u);
  // A lock word holding a ring's own value while the ring waits for it was written by someone
  // else: the ring's next call frees it at once.
  setWriteLock(3);
  EXPECT_EQ(server.write("y", 1, 2000).count, 1u);
}

TEST_F(PipeRingTest, AStoppedRestartableHolderIsTakenOverOnlyWhileStillStopped) {
  const uint32_t held = 7 | PX_PIPE_LOCK_RESTARTABLE;
  setWriteLock(7);  // not restartable: a stopped holder keeps it
  EXPECT_FALSE(server.recover(true, [](uint32_t) { return State::kStopped; }));
  setWriteLock(held);
  // Ran again between the two looks: its value goes back.
  int looks = 0;
  EXPECT_FALSE(server.recover(true, [&](uint32_t token) {
    EXPECT_EQ(token, 7u);
    EXPECT_EQ(writeLock(), looks == 0 ? held : PX_PIPE_LOCK_TAKING);
    return ++looks == 1 ? State::kStopped : State::kRunning;
  }));
  EXPECT_EQ(writeLock(), held);
  EXPECT_TRUE(server.recover(true, [](uint32_t) { return State::kStopped; }));
  EXPECT_EQ(writeLock(), 0u);
  EXPECT_EQ(client.write("z", 1, 1000).count, 1u) << "the lock is free for others";
}

// A call that may not wait still waits for a lock another holder has: its EAGAIN (kTimedOut
// with nothing moved) means empty or full, never "another holder is inside a call".
TEST_F(PipeRingTest, ACallThatMayNotWaitWaitsOutABusyLockButNotAnEmptyOrFullRing) {
  for (bool writing : {true, false}) {
    if (!writing) {
      ASSERT_EQ(client.write("abc", 3, 0).count, 3u);
    }
    std::atomic_ref<uint32_t>(writing ? page->write_lock : page->read_lock).store(9);
    char byte = 'b';
    PipeRing::Result result;
    std::thread call([&] { result = writing ? client.write(&byte, 1, 0) : client.read(&byte, 1, 0); });
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    server.release(9);  // the holder's copy ends
    call.join();
    EXPECT_EQ(result.count, 1u) << (writing ? "write" : "read");
    EXPECT_EQ(result.end, PipeRing::End::kDone);
  }
  char rest[8];
  EXPECT_EQ(client.read(rest, sizeof rest, 0).count, 3u);
  PipeRing::Result empty = client.read(rest, 1, 0);
  EXPECT_EQ(empty.count, 0u);
  EXPECT_EQ(empty.end, PipeRing::End::kTimedOut);
  std::vector<char> full(kRing, 'f');
  ASSERT_EQ(client.write(full.data(), full.size(), 0).count, kRing);
  PipeRing::Result noRoom = client.write("x", 1, 0);
  EXPECT_EQ(noRoom.count, 0u);
  EXPECT_EQ(noRoom.end, PipeRing::End::kTimedOut);
}

}  // namespace
