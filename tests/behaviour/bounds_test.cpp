// What one client cannot take from the others: the descriptions a process may hold, the host
// descriptors the server keeps back for processes that hold little, the size of a descriptor
// table (a full one still read whole, by its process and by a child); and a table view that
// follows a restarted server. (What a child's copy of a table costs: request_bounds_test.)
#include <fcntl.h>
#include <sys/resource.h>

#include <filesystem>
#include <set>

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

  // The numbers of the server's host descriptors.
  std::set<int> serverFiles() {
    std::set<int> numbers;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/" + std::to_string(server_) + "/fd"))
      numbers.insert(std::stoi(entry.path().filename()));
    return numbers;
  }

  // The number a hostile probe's next "hog" line reports, -1 when none came.
  static int hogged(OutputPipe& out, std::string* reason = nullptr) {
    std::string line = out.expect("hog ");
    if (line.empty()) return -1;
    if (reason != nullptr) *reason = line.substr(line.find(' ', 4));
    return std::stoi(line.substr(4));
  }

  // What a well-behaved client still gets: a pipe that carries bytes, a quick round trip, and
  // a program started and collected.
  void expectOthersServed() {
    int fds[2];
    ASSERT_EQ(px_pipe(fds), 0) << strerror(errno);
    char buf[4];
    EXPECT_EQ(px_write(fds[1], "ok", 2), 2);
    EXPECT_EQ(px_read(fds[0], buf, sizeof buf), 2);
    EXPECT_EQ(px_close(fds[0]) | px_close(fds[1]), 0);
    int64_t start = monotonicMs();
    EXPECT_GE(px_getppid(), 0);
    EXPECT_LT(monotonicMs() - start, 1000) << "a round trip";
    int64_t child = spawnProgram("/bin/true", {});
    ASSERT_GT(child, 0) << strerror(errno);
    EXPECT_EQ(collect(child), 0);
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
  ASSERT_TRUE(eventually([&] { return heapStats(&stats) && stats.descriptors == serverFiles().size(); }))
      << stats.descriptors << " counted, " << serverFiles().size() << " listed";
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
  std::set<int> numbers = serverFiles();
  int lowestFree = 0;
  while (numbers.count(lowestFree) != 0) ++lowestFree;
  limitServerFiles(static_cast<rlim_t>(lowestFree));
  ASSERT_TRUE(heapStats(&stats));
  EXPECT_GT(stats.threads, 2u);
}

TEST_F(BoundsTest, AFullTableIsReadWholeByItsProcessAndByAChild) {
  // Items have the largest records: a full table takes several replies.
  int fd = px_open(hostFile("item", "x").c_str(), O_RDONLY, 0);
  ASSERT_EQ(fd, 3) << strerror(errno);
  int taken = 1;
  while (taken < 5000 && px_dup(fd) >= 0) ++taken;
  EXPECT_EQ(errno, EMFILE);
  EXPECT_EQ(taken, 4096 - 3) << "the placeholders 0, 1 and 2 count too";
  int fds[2];
  EXPECT_ERRNO(px_pipe(fds), EMFILE);
  EXPECT_ERRNO(px_reserve_fd(), EMFILE);
  std::vector<px_fd_record> records(5000);
  ASSERT_EQ(px_fd_table(records.data(), 5000), taken);
  for (int i = 0; i < taken; ++i) ASSERT_EQ(records[i].fd, 3 + i);
  OutputPipe out;
  int64_t child = spawnProbe({"fds"}, &out);
  ASSERT_GT(child, 0) << strerror(errno);
  EXPECT_EQ(out.expect("fds count", 20000), "fds count " + std::to_string(taken));
  EXPECT_EQ(collect(child), 0);
  ASSERT_EQ(px_close(4095) | px_close(4094), 0);
  ASSERT_EQ(px_pipe(fds), 0) << "closing makes room: " << strerror(errno);
  EXPECT_EQ(fds[1], 4095);
}

TEST_F(BoundsTest, TheTableViewFollowsARestartedServer) {
  int fds[2];
  ASSERT_EQ(px_pipe(fds), 0) << strerror(errno);
  px_fd_info list[4];
  EXPECT_EQ(px_fd_list(list, 4), 2);
  stopServer();
  server_ = launchServer(path("server.log"));
  ASSERT_TRUE(eventually([] { return px_getppid() >= 0; }, 10000, 20));
  EXPECT_EQ(px_fd_list(list, 4), 0) << "the new server's table has only placeholders";
  char buf[4];
  EXPECT_ERRNO(px_read(fds[0], buf, sizeof buf), EBADF);
  ASSERT_EQ(px_pipe(fds), 0) << strerror(errno);
  EXPECT_EQ(fds[0], 3);
}

}  // namespace
