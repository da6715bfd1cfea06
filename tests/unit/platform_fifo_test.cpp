// The bounded byte buffer: order across the ring's end, end-of-file and broken flags, whole
// writes from concurrent writers and time-outs. (Large writes that a reader drains piece by
// piece: the resolver tests.)
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "platform/fifo.h"
#include "platform/sync.h"

namespace {

using Clock = std::chrono::steady_clock;
using Bytes = std::vector<uint8_t>;

int64_t msSince(Clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

TEST(FifoTest, KeepsOrderAcrossTheRingEnd) {
  Ref<Fifo> fifo = new Fifo(10);
  uint8_t next = 0, expect = 0;
  for (int round = 0; round < 20; ++round) {
    Bytes in(7);
    for (uint8_t& b : in) b = next++;
    ASSERT_EQ(fifo->write(in.data(), in.size(), 0), 7u);
    EXPECT_EQ(fifo->size(), 7u);
    Bytes out(5);
    ASSERT_EQ(fifo->readMax(out.data(), out.size()), 5u);
    Bytes rest(10);
    ASSERT_EQ(fifo->readMax(rest.data(), rest.size()), 2u);  // only what is there
    out.insert(out.end(), rest.begin(), rest.begin() + 2);
    for (uint8_t b : out) EXPECT_EQ(b, expect++);
  }
  uint8_t byte;
  EXPECT_EQ(fifo->readMax(&byte, 1), 0u);
  EXPECT_EQ(Ref<Fifo>(new Fifo(0))->capacity(), 1u);
}

// A reader waiting for more than will ever come is woken by end-of-file; what is left can still
// be read, and from then on every wait ends at once.
TEST(FifoTest, EndOfFileWakesWaitersDrainsWhatIsLeftThenEnds) {
  Ref<Fifo> fifo = new Fifo(64);
  std::atomic<bool> woken{false};
  std::thread reader([&] {
    EXPECT_TRUE(fifo->waitRead(5, kForever));
    woken = true;
  });
  ASSERT_EQ(fifo->write("tail", 4, kForever), 4u);
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(woken.load());
  fifo->setEof();
  reader.join();
  EXPECT_TRUE(fifo->eof());
  char out[8] = {};
  EXPECT_EQ(fifo->readMax(out, 2), 2u);
  EXPECT_EQ(fifo->readMax(out + 2, 8), 2u);
  EXPECT_STREQ(out, "tail");
  auto start = Clock::now();
  EXPECT_TRUE(fifo->waitRead(1, kForever));
  EXPECT_TRUE(fifo->waitRead(1000, 5000));
  EXPECT_LT(msSince(start), 1000);
  EXPECT_EQ(fifo->readMax(out, 8), 0u);
}

// Broken wakes every waiting writer, large or small, with nothing written, answers later
// writes at once, and fails a read wait that the bytes left cannot satisfy.
TEST(FifoTest, BrokenWakesWritersAndRefusesWhatItCannotFinish) {
  Ref<Fifo> full = new Fifo(4);
  ASSERT_EQ(full->write("abcd", 4, 0), 4u);
  uint64_t small = 99, large = 99;
  std::thread smallWriter([&] { small = full->write("xy", 2, kForever); });
  std::thread largeWriter([&] { large = full->write("0123456789", 10, kForever); });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  auto start = Clock::now();
  full->setBroken();
  smallWriter.join();
  largeWriter.join();
  EXPECT_LT(msSince(start), 1000);
  EXPECT_EQ(small, 0u);
  EXPECT_EQ(large, 0u);
  EXPECT_EQ(full->write("z", 1, kForever), 0u);
  uint8_t one;
  ASSERT_EQ(full->readMax(&one, 1), 1u);
  EXPECT_FALSE(full->waitRead(4, kForever));  // three bytes, no end-of-file, but broken
}

TEST(FifoTest, TimeOutsEndWaitsWithNothingDone) {
  Ref<Fifo> fifo = new Fifo(8);
  auto start = Clock::now();
  EXPECT_FALSE(fifo->waitRead(1, 60));
  EXPECT_GE(msSince(start), 60);
  ASSERT_EQ(fifo->write("123456", 6, 0), 6u);
  EXPECT_TRUE(fifo->waitRead(6, 0));
  EXPECT_FALSE(fifo->waitRead(7, 0));
  EXPECT_FALSE(fifo->waitRead(100, 0));  // asks for a full buffer
  // A write that fits the buffer but not the room left goes in whole or not at all.
  start = Clock::now();
  EXPECT_EQ(fifo->write("abc", 3, 60), 0u);
  EXPECT_GE(msSince(start), 60);
  EXPECT_EQ(fifo->size(), 6u);
  ASSERT_EQ(fifo->write("ab", 2, 0), 2u);
  EXPECT_TRUE(fifo->waitRead(100, 0));  // full now
  // A write larger than the buffer takes what room appears and reports it at the time-out.
  uint8_t drain[3];
  ASSERT_EQ(fifo->readMax(drain, 3), 3u);
  EXPECT_EQ(fifo->write("ABCDEFGHIJKL", 12, 30), 3u);
  EXPECT_EQ(fifo->size(), 8u);
}

// Records of varying size up to the capacity from several writers at once: every record
// arrives whole, and each writer's records in order.
TEST(FifoTest, WritesUpToTheCapacityAreNeverSplitOrMixed) {
  constexpr uint64_t kCapacity = 4096;
  constexpr int kWriters = 4, kRecords = 150;
  Ref<Fifo> fifo = new Fifo(kCapacity);
  std::vector<std::thread> writers;
  for (int w = 0; w < kWriters; ++w) {
    writers.emplace_back([&, w] {
      for (int r = 0; r < kRecords; ++r) {
        // Header: length (2 bytes), writer, sequence; the body repeats the writer's id.
        uint16_t length = static_cast<uint16_t>(4 + (r * 997 + w * 131) % (kCapacity - 3));
        Bytes rec(length, static_cast<uint8_t>(w));
        rec[0] = static_cast<uint8_t>(length);
        rec[1] = static_cast<uint8_t>(length >> 8);
        rec[2] = static_cast<uint8_t>(w);
        rec[3] = static_cast<uint8_t>(r);
        EXPECT_EQ(fifo->write(rec.data(), rec.size(), 10000), rec.size());
      }
    });
  }
  Bytes stream;
  std::thread closer([&] {
    for (auto& t : writers) t.join();
    fifo->setEof();
  });
  uint8_t chunk[777];
  while (fifo->waitRead(1, 10000)) {
    uint64_t n = fifo->readMax(chunk, sizeof chunk);
    if (n == 0) break;  // end of file with nothing left
    stream.insert(stream.end(), chunk, chunk + n);
  }
  closer.join();
  int seen[kWriters] = {};
  size_t pos = 0, records = 0;
  while (pos + 4 <= stream.size()) {
    size_t length = stream[pos] | stream[pos + 1] << 8;
    int w = stream[pos + 2];
    ASSERT_LT(w, kWriters);
    ASSERT_LE(pos + length, stream.size());
    EXPECT_EQ(stream[pos + 3], static_cast<uint8_t>(seen[w]++));
    for (size_t i = 4; i < length; ++i) ASSERT_EQ(stream[pos + i], w) << "record " << records;
    pos += length;
    ++records;
  }
  EXPECT_EQ(pos, stream.size());
  EXPECT_EQ(records, static_cast<size_t>(kWriters * kRecords));
}

}  // namespace
