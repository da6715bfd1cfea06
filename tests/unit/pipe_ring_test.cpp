// The pipe ring on plain memory: bytes stay in order across the ring's end, impossible
// counters copy nothing, calls end at their time-out, concurrent writers' records never
// interleave; and its locks: a wait for a lock ends when a signal handler runs, a lock word
// holding a value nobody may hold is freed, and the server takes a lock over from a holder
// only while that holder is still stopped after the word was marked.
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "posix/pipe_ring.h"

namespace {

using posix::PipeRing;
using State = PipeRing::HolderState;
using End = PipeRing::End;
using Clock = std::chrono::steady_clock;

constexpr uint32_t kRing = 4096;

class PipeRingTest : public ::testing::Test {
 protected:
  std::vector<uint64_t> memory = std::vector<uint64_t>((PX_PIPE_RING_OFFSET + kRing) / 8);
  px_pipe_page* page = reinterpret_cast<px_pipe_page*>(memory.data());
  PipeRing server{memory.data(), kRing, 3, PipeRing::Holder::kServer};
  PipeRing client{memory.data(), kRing, 5, PipeRing::Holder::kClient};
  void SetUp() override { server.format(); }
  uint32_t writeLock() { return std::atomic_ref<uint32_t>(page->write_lock).load(); }
  const uint8_t* ring() const { return reinterpret_cast<const uint8_t*>(memory.data()) + PX_PIPE_RING_OFFSET; }
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

// A wait handed out instead of slept in: armed on the word that the other side moves, counted
// among its waiters until disarmed, and not armed at all when there is nothing to wait for.
TEST_F(PipeRingTest, AnArmedWaitNamesTheWordTheOtherSideMovesAndCountsItsWaiter) {
  PipeRing::Armed armed;
  ASSERT_TRUE(server.arm(false, 1, &armed)) << "empty: a reader waits for bytes";
  EXPECT_EQ(armed.word, &page->data_seq);
  EXPECT_EQ(std::atomic_ref<uint32_t>(page->data_waiters).load(), 1u);
  ASSERT_EQ(client.write("ab", 2, 0).count, 2u);
  EXPECT_NE(std::atomic_ref<uint32_t>(page->data_seq).load(), armed.seen) << "the write moved it";
  server.disarm(armed);
  EXPECT_EQ(std::atomic_ref<uint32_t>(page->data_waiters).load(), 0u);
  EXPECT_FALSE(server.arm(false, 1, &armed)) << "bytes are there";
  EXPECT_EQ(std::atomic_ref<uint32_t>(page->data_waiters).load(), 0u);

  // A writer that needs more room than is free waits on room_seq, which a read moves; one
  // that finds the lock held waits on lock_seq. writeNow waits for neither.
  std::vector<char> fill(kRing - 2, 'f');
  ASSERT_EQ(server.writeNow(fill.data(), fill.size()).count, fill.size());
  PipeRing::Result none = server.writeNow("xyz", 3);
  EXPECT_EQ(none.count, 0u);
  EXPECT_EQ(none.end, End::kTimedOut);
  ASSERT_TRUE(server.arm(true, 3, &armed));
  EXPECT_EQ(armed.word, &page->room_seq);
  char two[2];
  ASSERT_EQ(client.read(two, 2, 0).count, 2u);
  EXPECT_NE(std::atomic_ref<uint32_t>(page->room_seq).load(), armed.seen);
  server.disarm(armed);
  EXPECT_FALSE(server.arm(true, 2, &armed)) << "two bytes of room are free now";
  setWriteLock(9);
  ASSERT_TRUE(server.arm(true, 1, &armed));
  EXPECT_EQ(armed.word, &page->lock_seq);
  EXPECT_EQ(armed.lockHolder, 9u);
  server.release(9);
  EXPECT_NE(std::atomic_ref<uint32_t>(page->lock_seq).load(), armed.seen) << "freeing moved it";
  server.disarm(armed);
  EXPECT_EQ(std::atomic_ref<uint32_t>(page->lock_waiters).load(), 0u);
  EXPECT_EQ(std::atomic_ref<uint32_t>(page->room_waiters).load(), 0u);
  // End of file: nothing to wait for once the bytes are gone.
  std::vector<char> drain(kRing);
  client.read(drain.data(), drain.size(), 0);
  server.setFlags(PX_PIPE_EOF);
  EXPECT_FALSE(server.arm(false, 1, &armed));
}

TEST_F(PipeRingTest, BytesCrossTheRingsEndInOrderAndImpossibleCountersCopyNothing) {
  // Counters close to their own wrap, records and reads of sizes that never divide the ring.
  page->head = page->tail = ~0ull - 5000;
  std::string sent, got;
  char chunk[1500];
  for (int i = 0; sent.size() < 5 * kRing; ++i) {
    std::string record(997 + i % 7, static_cast<char>('a' + i % 26));
    record[0] = static_cast<char>(i);
    ASSERT_EQ(client.write(record.data(), record.size(), 0).count, record.size());
    sent += record;
    PipeRing::Result r = server.read(chunk, 1000 + i % 11, 0);
    ASSERT_EQ(r.end, End::kDone);
    got.append(chunk, r.count);
  }
  for (PipeRing::Result r; (r = client.read(chunk, sizeof chunk, 0)).end == End::kDone;) got.append(chunk, r.count);
  EXPECT_EQ(got, sent);

  // More buffered than the ring holds, or a head past the tail: nothing moves either way.
  const std::vector<uint8_t> before(ring(), ring() + kRing);
  for (uint64_t tail : {page->head + kRing + 1, page->head - 1}) {
    page->tail = tail;
    EXPECT_TRUE(client.corrupt());
    std::memset(chunk, 'u', sizeof chunk);
    EXPECT_EQ(client.read(chunk, sizeof chunk, 0).end, End::kCorrupt);
    EXPECT_EQ(client.write("w", 1, 0).end, End::kCorrupt);
    EXPECT_EQ(std::string(chunk, 8), "uuuuuuuu");
    EXPECT_EQ(std::vector<uint8_t>(ring(), ring() + kRing), before);
  }
}

TEST_F(PipeRingTest, CallsEndAtTheirTimeOutAndAGoneTokensLocksAreReleased) {
  char buf[8];
  for (int ms : {0, 30}) {
    const auto start = Clock::now();
    PipeRing::Result r = client.read(buf, sizeof buf, ms);
    const auto took = Clock::now() - start;
    EXPECT_EQ(r.end, End::kTimedOut);
    EXPECT_GE(took, std::chrono::milliseconds(ms));
    EXPECT_LT(took, std::chrono::milliseconds(ms + 500));
  }
  // Up to the ring size goes in whole or not at all; more goes in as far as it fits.
  const std::string big(kRing + 100, 'b');
  EXPECT_EQ(client.write(big.data(), 100, 0).count, 100u);
  PipeRing::Result r = client.write(big.data(), kRing, 0);
  EXPECT_EQ(r.end, End::kTimedOut);
  EXPECT_EQ(r.count, 0u);
  EXPECT_EQ(server.read(buf, 8, 0).count, 8u);
  EXPECT_EQ(client.write(big.data(), big.size(), 0).count, kRing - 92u);

  // A gone holder's locks are freed, a living one's kept.
  std::atomic_ref<uint32_t>(page->read_lock).store(9);
  setWriteLock(7);
  server.release(9);
  EXPECT_EQ(writeLock(), 7u);
  setWriteLock(9);
  server.release(9);
  EXPECT_EQ(writeLock(), 0u);
  EXPECT_EQ(std::atomic_ref<uint32_t>(page->read_lock).load(), 0u);
  EXPECT_EQ(client.read(buf, sizeof buf, 100).count, 8u);
}

// Writers of their own (as separate processes would be) send records of up to the ring's size:
// each record arrives in one piece, and each writer's in order.
TEST_F(PipeRingTest, ConcurrentWritersRecordsNeverInterleave) {
  constexpr int kWriters = 4, kRecords = 200;
  auto sizeOf = [](int w, int i) { return 12u + (i * 997u + w * 131u) % (kRing - 11); };
  std::vector<std::thread> writers;
  for (int w = 0; w < kWriters; ++w) {
    writers.emplace_back([this, w, sizeOf] {
      PipeRing mine(memory.data(), kRing, 10 + w, PipeRing::Holder::kClient);
      for (int i = 0; i < kRecords; ++i) {
        // A record: its size, its writer, its number, then the writer's letter to the end.
        uint32_t size = sizeOf(w, i);
        std::vector<uint8_t> record(size, static_cast<uint8_t>('A' + w));
        uint32_t head[3] = {size, static_cast<uint32_t>(w), static_cast<uint32_t>(i)};
        std::memcpy(record.data(), head, sizeof head);
        ASSERT_EQ(mine.write(record.data(), size, 10000).count, size);
      }
    });
  }
  uint64_t total = 0;
  for (int w = 0; w < kWriters; ++w)
    for (int i = 0; i < kRecords; ++i) total += sizeOf(w, i);
  std::vector<uint8_t> stream;
  uint8_t chunk[3000];
  while (stream.size() < total) {
    PipeRing::Result r = server.read(chunk, sizeof chunk, 10000);
    ASSERT_EQ(r.end, End::kDone);
    stream.insert(stream.end(), chunk, chunk + r.count);
  }
  for (std::thread& t : writers) t.join();
  int next[kWriters] = {};
  for (size_t at = 0; at < stream.size();) {
    uint32_t head[3];
    std::memcpy(head, stream.data() + at, sizeof head);
    ASSERT_LT(head[1], static_cast<uint32_t>(kWriters));
    ASSERT_EQ(head[2], static_cast<uint32_t>(next[head[1]]++));
    ASSERT_EQ(head[0], sizeOf(static_cast<int>(head[1]), static_cast<int>(head[2])));
    ASSERT_LE(at + head[0], stream.size());
    const std::vector<uint8_t> fill(head[0] - 12, static_cast<uint8_t>('A' + head[1]));
    ASSERT_TRUE(std::equal(fill.begin(), fill.end(), stream.begin() + at + 12)) << "at " << at;
    at += head[0];
  }
}

}  // namespace
