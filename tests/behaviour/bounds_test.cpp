// What one client cannot take from the others: the descriptions a process may hold, and the
// host descriptors the server keeps back for processes that hold little. (The size of a
// descriptor table: request_bounds_test; the reserve for processes with few links: the fairness
// tests.)
#include <fcntl.h>
#include <sys/resource.h>

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

}  // namespace
