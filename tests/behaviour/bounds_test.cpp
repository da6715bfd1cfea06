// What one client cannot take from the others: the descriptions a process may hold, and the
// host descriptors the server keeps back for processes that hold little, and the threads that
// serve many links. (The size of a descriptor table: request_bounds_test; the reserve for
// processes with few links: the fairness tests.)
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include "posix/pipe_page.h"
#include "server_fixture.h"

namespace {

const std::string kRefused = std::string(" ") + strerror(EMFILE);

class BoundsTest : public ServerFixture {
 protected:
  // The server derives its bounds from its descriptor limit; 1024 gives a process 64
  // descriptions and keeps 128 descriptors back (64 for a process holding fewer than 16).
  void limitServerFiles(rlim_t limit) {
    rlimit files{limit, limit};
    ASSERT_EQ(prlimit(server_, RLIMIT_NOFILE, &files, nullptr), 0) << strerror(errno);
  }

  // The number a hostile probe's next "hog" line reports, -1 when none came.
  static int hogged(OutputPipe& out, std::string* reason = nullptr) {
    std::string line = out.expect("hog ");
    if (line.empty()) return -1;
    if (reason != nullptr) *reason = line.substr(line.find(' ', 4));
    return std::stoi(line.substr(4));
  }
};

TEST_F(BoundsTest, AProcessHoldsBoundedDescriptionsOfEveryKind) {
  limitServerFiles(1024);
  std::string item = hostFile("item", "x");
  OutputPipe out;
  // Sockets fill the bound; pipes of both services and opened items count against it too.
  ASSERT_GT(spawnProbe({"hog", "socket", "hog", "pipe", "hog", "channels", "hog", item, "sleep",
                        "60000"}, &out), 0);
  std::string reason;
  EXPECT_EQ(hogged(out, &reason), 64);
  EXPECT_EQ(reason, kRefused);
  for (const char* kind : {"pipe", "channels", "item"}) {
    EXPECT_EQ(hogged(out, &reason), 0) << kind;
    EXPECT_EQ(reason, kRefused) << kind;
  }
  expectOthersServed();
  // What is closed counts no more: more pipes than the bound, one after the other.
  for (int i = 0; i < 40; ++i) {
    int fds[2];
    ASSERT_EQ(px_pipe(fds), 0) << i << ": " << strerror(errno);
    ASSERT_EQ(px_close(fds[0]) | px_close(fds[1]), 0);
    px_channel* ends[2];
    // A channel's end is let go once the server has seen its link close.
    ASSERT_TRUE(eventually([&] { return px_pipe_channels(ends) == 0; }, 5000)) << i;
    px_channel_close(ends[0]);
    px_channel_close(ends[1]);
  }
  // The server's count of its descriptors is the host's, whatever holds them: the hostile's
  // sockets, an opened item, pipe ends and the links to them.
  int fds[2];
  px_channel* ends[2];
  ASSERT_GE(px_open(item.c_str(), O_RDONLY, 0), 0);
  ASSERT_EQ(px_pipe(fds) | px_pipe_channels(ends), 0);
  EXPECT_EQ(px_write(fds[1], "x", 1), 1);
  HeapStats stats;
  ASSERT_TRUE(eventually([&] { return heapStats(&stats) && int64_t(stats.descriptors) == serverFds(); }))
      << stats.descriptors << " counted, " << serverFds() << " listed";
  px_channel_close(ends[0]);
  px_channel_close(ends[1]);
}

TEST_F(BoundsTest, TheServerKeepsDescriptorsBackForThoseWhoHoldLittle) {
  limitServerFiles(1024);
  // Hostile processes, each up to its own bound, until the reserve refuses one.
  std::vector<std::unique_ptr<OutputPipe>> outs;
  int made = 64;
  std::string reason;
  while (made == 64 && outs.size() < 20) {
    outs.push_back(std::make_unique<OutputPipe>());
    ASSERT_GT(spawnProbe({"hog", "pipe", "sleep", "60000"}, outs.back().get()), 0);
    made = 2 * hogged(*outs.back(), &reason);
  }
  EXPECT_LT(made, 64) << "the reserve never refused";
  EXPECT_EQ(reason, kRefused);
  expectOthersServed();
  HeapStats stats;
  ASSERT_TRUE(heapStats(&stats));
  EXPECT_LE(stats.descriptors, 1024u - 64u) << "descriptors left for links";
  // Out of descriptors (none free below the limit), the stats still tell the threads.
  limitServerFiles(static_cast<rlim_t>(lowestFreeServerFd()));
  ASSERT_TRUE(heapStats(&stats));
  EXPECT_GT(stats.threads, 2u);
}

// Links cost the server no thread each, and neither do requests that wait: several processes
// hold many links to their pipes' read ends, each with a read waiting for bytes, and a few
// threads serve them all (the pool, and one watcher per 127 waiting reads). Another client is
// served meanwhile as quickly as ever. Each waiting read ends as it should: with a byte when
// its pipe is written, with end of file when its writer goes.
TEST_F(BoundsTest, ReadsWaitingOnManyLinksHoldNoThreadAndHoldUpNoOtherLink) {
  constexpr int64_t kPool = 16 + 1;  // the pool's bound while nothing waits, and the acceptor
  constexpr int kHolders = 8, kReadsEach = 64;
  constexpr int64_t kWatchers = (kHolders * kReadsEach + 126) / 127;
  int fds[2];
  ASSERT_EQ(px_pipe(fds), 0) << strerror(errno);
  const int64_t before = serverThreads();
  ASSERT_GT(before, 0);
  std::vector<pid_t> holders;
  std::vector<int> go;
  for (int h = 0; h < kHolders; ++h) {
    int ready[2], start[2];
    ASSERT_EQ(pipe2(ready, O_CLOEXEC) | pipe2(start, O_CLOEXEC), 0);
    holders.push_back(inChild([&] {
      RawLink posix(path("chn/posix.service"));  // a pipe's ends serve only the process that made it
      RawReply reply;
      std::vector<px_node_entry> readEnd, writeEnd;
      size_t at = 0;
      if (!posix.roundTrip(PX_CMD_CREATE_PIPE, 1, {}, &reply) || !takeNode(reply.data, &at, &readEnd) ||
          !takeNode(reply.data, &at, &writeEnd))
        _exit(1);
      Links readers;
      for (uint64_t i = 0; i < kReadsEach; ++i) {
        readers.push_back(bindEntry(readEnd[0]));
        if (!readers.back() || !readers.back()->send(requestFrame(PX_STREAM_READ, i, streamRead(1, 0xFFFFFFFFu))))
          _exit(2);
      }
      std::unique_ptr<RawLink> writer = bindEntry(writeEnd[0]);
      if (!writer) _exit(3);
      sendNumber(ready[1], 1);
      if (takeNumber(start[0]) != 1) _exit(4);
      // Half the holders write a byte for each read; the others' writer goes (end of file).
      const bool writes = h % 2 == 0;
      if (writes && (!writer->roundTrip(PX_STREAM_WRITE, 1, streamWrite(0xFFFFFFFFu, std::string(kReadsEach, 'x')),
                                        &reply) || reply.data.size() != 8 || reply.data[0] != kReadsEach))
        _exit(5);
      writer.reset();
      for (auto& reader : readers) {
        if (reader->receive(&reply, 5000) != 1 || reply.code != PX_RESULT_DONE ||
            reply.data.size() != (writes ? 1u : 0u))
          _exit(6);
      }
    }));
    close(ready[1]);
    close(start[0]);
    go.push_back(start[1]);
    EXPECT_EQ(takeNumber(ready[0]), 1) << h;
    close(ready[0]);
  }
  sleepMs(300);  // the reads wait in the server now
  EXPECT_LE(serverThreads(), before + kPool + kWatchers) << kHolders * kReadsEach << " reads waiting";
  std::unique_ptr<RawLink> status = bindService(fds[0], PX_IFACE_FIFO_STATUS);
  ASSERT_TRUE(status);
  RawReply reply;
  std::vector<int64_t> times = timeCalls("a status round trip beside waiting reads", 20, 10, [&] {
    return status->roundTrip(PX_FIFO_CMD_STATUS, 1, {}, &reply, 5000);
  });
  ASSERT_EQ(times.size(), 20u);
  EXPECT_LT(times.back(), 500);
  expectOthersServed();
  EXPECT_LE(serverThreads(), before + kPool + kWatchers);

  for (int fd : go) {
    sendNumber(fd, 1);
    close(fd);
  }
  for (pid_t holder : holders) EXPECT_EQ(waitExit(holder, 10000), 0) << "holder " << holder;
  // The watchers end with nothing left to watch.
  EXPECT_LE(awaitThreadsAtMost(before + kPool), before + kPool);
}

}  // namespace
