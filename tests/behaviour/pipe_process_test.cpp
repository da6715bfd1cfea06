// Pipes shared between processes: a spawned child inherits the parent's descriptors under the
// same numbers, end-of-file waits for the last writer in every process, and concurrent
// writers' records of up to 4096 bytes arrive whole.
#include <errno.h>

#include <cstring>
#include <map>
#include <thread>

#include "pipe_fixture.h"

namespace {

class PipeProcessTest : public PipeFixture {};

TEST_F(PipeProcessTest, BytesPassBetweenParentAndChildUnderInheritedNumbers) {
  int toChild[2], fromChild[2];
  ASSERT_EQ(px_pipe(toChild), 0) << strerror(errno);    // 3, 4
  ASSERT_EQ(px_pipe(fromChild), 0) << strerror(errno);  // 5, 6
  ASSERT_EQ(px_dup2(toChild[0], 12), 12);
  OutputPipe out;
  int64_t child = spawnPeer({"fds", "readn", "12", "5", "write", "6", "hello-from-child"}, &out);
  ASSERT_GT(child, 0) << strerror(errno);
  // The child sees exactly the parent's numbers and kinds.
  for (int fd : {3, 4, 5, 6, 12}) {
    EXPECT_EQ(expectLine(out, "fd "), "fd " + std::to_string(fd) + " kind 5");
  }
  EXPECT_EQ(expectLine(out, "fds done"), "fds done");
  EXPECT_EQ(px_write(toChild[1], "hello", 5), 5);
  EXPECT_EQ(expectLine(out, "got "), "got hello");
  char buf[64];
  std::string got;
  while (got.size() < 16) {
    ssize_t n = px_read(fromChild[0], buf, sizeof buf);
    ASSERT_GT(n, 0) << strerror(errno);
    got.append(buf, static_cast<size_t>(n));
  }
  EXPECT_EQ(got, "hello-from-child");
  EXPECT_EQ(collect(child), 0);
  // The child's end closed its descriptors; the parent's keep the pipes open.
  EXPECT_EQ(px_write(toChild[1], "still", 5), 5);
}

TEST_F(PipeProcessTest, EndOfFileWaitsForTheLastWriterInEveryProcess) {
  int fds[2];
  ASSERT_EQ(px_pipe(fds), 0) << strerror(errno);
  OutputPipe out;
  int64_t child = spawnPeer({"sleep", "800", "write", "4", "late", "close", "4", "sleep", "300"},
                            &out);
  ASSERT_GT(child, 0) << strerror(errno);
  ASSERT_EQ(px_close(fds[1]), 0);
  // The child still holds the write end: no end-of-file until it closes it.
  int64_t start = monotonicMs();
  EXPECT_EQ(readAll(fds[0]), "late");
  EXPECT_GE(monotonicMs() - start, 700);
  EXPECT_EQ(expectLine(out, "closed"), "closed 4");
  EXPECT_EQ(collect(child), 0);
  px_close(fds[0]);
}

TEST_F(PipeProcessTest, ChildSeesEpipeAfterTheParentsReaderCloses) {
  int fds[2];
  ASSERT_EQ(px_pipe(fds), 0) << strerror(errno);
  ASSERT_EQ(px_close(fds[0]), 0);
  OutputPipe out;
  int64_t child = spawnPeer({"write", "4", "x"}, &out);
  ASSERT_GT(child, 0);
  EXPECT_EQ(expectLine(out, "error"), "error write: " + std::string(strerror(EPIPE)));
  EXPECT_EQ(collect(child), 99);
}

// Parses the stream of records: header (tag, u16 length), payload all of the tag. Counts
// records per tag; false at the first torn or mixed record.
bool parseRecords(const std::string& data, std::map<char, int>* counts) {
  size_t at = 0;
  while (at < data.size()) {
    if (data.size() - at < 3) return false;
    char tag = data[at];
    size_t len = static_cast<uint8_t>(data[at + 1]) | static_cast<size_t>(static_cast<uint8_t>(data[at + 2])) << 8;
    if (data.size() - at - 3 < len) return false;
    for (size_t i = 0; i < len; ++i) {
      if (data[at + 3 + i] != tag) return false;
    }
    ++(*counts)[tag];
    at += 3 + len;
  }
  return true;
}

TEST_F(PipeProcessTest, ConcurrentWritersRecordsArriveWhole) {
  int fds[2];
  ASSERT_EQ(px_pipe(fds), 0) << strerror(errno);
  constexpr int kRecords = 150;
  OutputPipe outA, outB;
  int64_t a = spawnPeer({"records", "4", std::to_string(kRecords), "A"}, &outA);
  int64_t b = spawnPeer({"records", "4", std::to_string(kRecords), "B"}, &outB);
  ASSERT_GT(a, 0);
  ASSERT_GT(b, 0);
  // Two threads of this process write too, through two descriptors of the write end.
  int second = px_dup(fds[1]);
  ASSERT_GE(second, 0);
  auto writer = [&](int fd, char tag) {
    char rec[4096];
    for (int k = 0; k < kRecords; ++k) {
      size_t size = 5 + static_cast<size_t>((k * 811) % 4092);
      rec[0] = tag;
      rec[1] = static_cast<char>((size - 3) & 0xFF);
      rec[2] = static_cast<char>((size - 3) >> 8);
      std::memset(rec + 3, tag, size - 3);
      ASSERT_EQ(px_write(fd, rec, size), static_cast<ssize_t>(size)) << strerror(errno);
    }
  };
  std::thread c(writer, fds[1], 'C');
  std::thread d(writer, second, 'D');
  std::string data;
  std::thread reader([&] { data = readAll(fds[0], 64 << 20); });
  c.join();
  d.join();
  px_close(fds[1]);
  px_close(second);
  EXPECT_EQ(collect(a, 60000), 0);
  EXPECT_EQ(collect(b, 60000), 0);
  reader.join();
  std::map<char, int> counts;
  EXPECT_TRUE(parseRecords(data, &counts)) << "a record was torn or mixed";
  for (char tag : {'A', 'B', 'C', 'D'}) EXPECT_EQ(counts[tag], kRecords) << tag;
  px_close(fds[0]);
}

TEST_F(PipeProcessTest, PosixctlListsTheTableItInherited) {
  int fds[2];
  ASSERT_EQ(px_pipe(fds), 0) << strerror(errno);
  ASSERT_EQ(px_dup2(fds[1], 8), 8);
  OutputPipe out;
  int64_t child = spawnProgram(POSIXCTL_BINARY, {"fds"}, &out);
  ASSERT_GT(child, 0) << strerror(errno);
  std::string three = expectLine(out, "3 ");
  std::string four = expectLine(out, "4 ");
  std::string eight = expectLine(out, "8 ");
  EXPECT_EQ(collect(child), 0);
  EXPECT_EQ(three.rfind("3 5 fifo 0x10010:", 0), 0u) << three;
  EXPECT_NE(three.find(":2 0x880000:"), std::string::npos) << three;
  EXPECT_NE(four.find(":4 0x880000:"), std::string::npos) << four;
  // A duplicate names the same node as its original.
  EXPECT_EQ(eight.substr(2), four.substr(2));
  EXPECT_NE(three.substr(2), four.substr(2));
}

}  // namespace
