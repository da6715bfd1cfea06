// Pipes shared between processes: end-of-file waits for the last writer and EPIPE for the last
// reader in every process, concurrent writers' records of up to 4096 bytes arrive whole, even
// while one of them is stopped again and again, and a child lists the table it inherited.
#include <errno.h>
#include <signal.h>

#include <atomic>
#include <cstring>
#include <map>
#include <thread>

#include "server_fixture.h"

namespace {

using PipeProcessTest = ServerFixture;

TEST_F(PipeProcessTest, EndOfFileWaitsForTheLastWriterAndWritesFailWithoutAReaderInEveryProcess) {
  int fds[2];
  ASSERT_EQ(px_pipe(fds), 0) << strerror(errno);
  OutputPipe out;
  int64_t child = spawnProbe({"sleep", "800", "write", "4", "late", "close", "4", "sleep", "300"},
                             &out);
  ASSERT_GT(child, 0) << strerror(errno);
  ASSERT_EQ(px_close(fds[1]), 0);
  // The child still holds the write end: no end-of-file (an empty read) until it closes it.
  EXPECT_EQ(readUpTo(fds[0]), "late");
  EXPECT_EQ(out.expect("closed"), "closed 4");
  EXPECT_EQ(collect(child), 0);

  // Once the last reader has closed, writes are refused here and in a child; a second
  // descriptor of the read end keeps the pipe whole.
  ASSERT_EQ(px_close(fds[0]), 0);
  ASSERT_EQ(px_pipe(fds), 0) << strerror(errno);  // 3, 4 again
  int reader2 = px_dup(fds[0]);
  ASSERT_EQ(px_close(fds[0]), 0);
  EXPECT_EQ(px_write(fds[1], "ok", 2), 2);
  ASSERT_EQ(px_close(reader2), 0);
  // Straight after the close (which does not wait for the server): the child must not
  // inherit the read end.
  child = spawnProbe({"write", "4", "x"}, &out);
  ASSERT_GT(child, 0);
  EXPECT_EQ(out.expect("error"), "error write: " + std::string(strerror(EPIPE)));
  EXPECT_EQ(collect(child), 99);
  EXPECT_ERRNO(px_write(fds[1], "lost", 4), EPIPE);
}

// Reads a stream of records as it comes: header (tag, u16 length), payload all of the tag.
// Counts records per tag; `torn` at the first torn or mixed record.
struct RecordReader {
  std::map<char, int> counts;
  bool torn = false;
  std::string pending;

  void feed(const char* bytes, size_t n) {
    pending.append(bytes, n);
    size_t at = 0;
    while (!torn && at + 3 <= pending.size()) {
      char tag = pending[at];
      size_t end = at + 3 + static_cast<uint8_t>(pending[at + 1]) +
                   256 * static_cast<size_t>(static_cast<uint8_t>(pending[at + 2]));
      if (end > pending.size()) break;
      torn = pending.find_first_not_of(tag, at + 3) < end;
      ++counts[tag];
      at = end;
    }
    pending.erase(0, at);
  }
  // Reads `fd` to its end.
  void drain(int fd) {
    char buf[8192];
    for (ssize_t got; (got = px_read(fd, buf, sizeof buf)) > 0;) feed(buf, static_cast<size_t>(got));
    torn |= !pending.empty();
  }
};

// Four writers (two children, two threads here) write records into one pipe while one child
// is stopped and continued again and again: every record arrives whole, and the writers that
// run never wait for the stopped one, whatever it held when it stopped.
TEST_F(PipeProcessTest, ConcurrentWritersRecordsArriveWholeAndAStoppedWriterHoldsUpNoOther) {
  int fds[2];
  ASSERT_EQ(px_pipe(fds), 0) << strerror(errno);
  constexpr int kRecords = 300, kStops = 100;
  OutputPipe outA, outB;
  int64_t a = spawnProbe({"records", "4", "100000000", "A"}, &outA);  // until it is killed
  int64_t b = spawnProbe({"records", "4", std::to_string(kRecords), "B"}, &outB);
  ASSERT_GT(a, 0);
  ASSERT_GT(b, 0);
  // Two threads of this process write too, through two descriptors of the write end.
  int second = px_dup(fds[1]);
  ASSERT_GE(second, 0);
  std::atomic<bool> enough{false};
  std::atomic<int> written{0};
  int wrote[2] = {0, 0};
  auto writer = [&](int fd, char tag) {
    int k = 0;
    for (; k < kRecords || !enough; ++k) {
      size_t size = 5 + static_cast<size_t>((k * 811) % 4092);
      std::string rec(size, tag);
      rec[1] = static_cast<char>((size - 3) & 0xFF);
      rec[2] = static_cast<char>((size - 3) >> 8);
      if (px_write(fd, rec.data(), size) != static_cast<ssize_t>(size)) break;
      ++written;
      if (k >= kRecords) std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    wrote[tag - 'C'] = k;
  };
  RecordReader records;
  std::thread reader([&] { records.drain(fds[0]); });
  std::thread c(writer, fds[1], 'C');
  std::thread d(writer, second, 'D');
  int stalls = 0;
  for (int stop = 0; stop < kStops; ++stop) {
    if (kill(static_cast<pid_t>(a), SIGSTOP) != 0 ||
        !eventually([&] { return hostState(static_cast<pid_t>(a)) == 'T'; }, 2000, 1)) {
      ADD_FAILURE() << "child A: " << outA.expect("", 100);
      break;
    }
    const int before = written;
    if (!eventually([&] { return written >= before + 3; }, 2000, 1)) ++stalls;
    kill(static_cast<pid_t>(a), SIGCONT);
    sleepMs(3);
  }
  enough = true;
  c.join();
  d.join();
  EXPECT_EQ(px_kill(a, PX_SIGKILL), 0);
  EXPECT_EQ(collect(a), 128 + SIGKILL);
  EXPECT_EQ(collect(b, 60000), 0);
  px_close(fds[1]);
  px_close(second);
  reader.join();
  EXPECT_EQ(stalls, 0) << "writers waited for a stopped writer in " << stalls << " of " << kStops << " stops";
  EXPECT_FALSE(records.torn) << "a record was torn or mixed";
  EXPECT_EQ(records.counts['B'], kRecords);
  for (char tag : {'C', 'D'}) EXPECT_EQ(records.counts[tag], wrote[tag - 'C']) << tag;
  EXPECT_GT(records.counts['A'], 0);
}

TEST_F(PipeProcessTest, PosixctlListsTheTableItInherited) {
  int fds[2];
  ASSERT_EQ(px_pipe(fds), 0) << strerror(errno);
  ASSERT_EQ(px_dup2(fds[1], 8), 8);
  OutputPipe out;
  int64_t child = spawnProgram(POSIXCTL_BINARY, {"fds"}, &out);
  ASSERT_GT(child, 0) << strerror(errno);
  std::string three = out.expect("3 ");
  std::string four = out.expect("4 ");
  std::string eight = out.expect("8 ");
  EXPECT_EQ(collect(child), 0);
  EXPECT_EQ(three.rfind("3 5 fifo 0x10010:", 0), 0u) << three;
  EXPECT_NE(three.find(":2 0x880000:"), std::string::npos) << three;
  EXPECT_NE(four.find(":4 0x880000:"), std::string::npos) << four;
  // A duplicate names the same node as its original.
  EXPECT_EQ(eight.substr(2), four.substr(2));
  EXPECT_NE(three.substr(2), four.substr(2));
}

}  // namespace
