// Bounded requests: what one request, or one process's children, may cost the server. A spawn
// decodes in time linear in its frame, a process has a bounded number of children, an ended
// child keeps a bounded text of its program, a full descriptor table is read whole, a child's
// copy of it costs what the child changes, and a child always starts with its parent's table.
#include <sys/resource.h>

#include <atomic>
#include <thread>

#include "server_fixture.h"

namespace {

class BoundedRequestsTest : public ServerFixture {
 protected:
  // Heap bytes the server holds beyond `before`, per one of `count` things.
  int64_t perThing(const HeapStats& before, int count) {
    HeapStats now;
    EXPECT_TRUE(heapStats(&now));
    return (static_cast<int64_t>(now.bytes) - static_cast<int64_t>(before.bytes)) / count;
  }
};

TEST_F(BoundedRequestsTest, ASpawnOf13000NamesDecodesInMillisecondsWhileOthersAreServed) {
  // 13,000 distinct two-byte names with empty values fill a frame. Four such starts at once,
  // from links of their own, held the service thread for 1.3 s each.
  std::vector<std::string> env;
  for (int i = 0; env.size() < 13000; ++i) {
    if (1 + i / 250 != '=' && 1 + i % 250 != '=') env.push_back({char(1 + i / 250), char(1 + i % 250), '='});
  }
  std::atomic<int> running{4};
  std::vector<std::thread> starters;
  for (int k = 0; k < 4; ++k) {
    starters.emplace_back([&] {
      int64_t child = spawnRaw({"/bin/true"}, env);
      EXPECT_EQ(child > 0 ? collect(child) : -errno, 0);
      --running;
    });
  }
  int64_t slowest = 0;
  for (; running > 0; sleepMs(1)) {
    int64_t before = monotonicMs();
    EXPECT_GE(px_getppid(), 0);
    slowest = std::max(slowest, monotonicMs() - before);
  }
  for (std::thread& t : starters) t.join();
  EXPECT_LT(slowest, 1000) << "ms, the slowest round trip beside the starts";
}

TEST_F(BoundedRequestsTest, ChildrenPerProcessCountLivingEndedAndStarting) {
  // The bound is a quarter of the tasks the host lets the server's user run: 256 give 64.
  rlimit tasks{256, 256};
  ASSERT_EQ(prlimit(server_, RLIMIT_NPROC, &tasks, nullptr), 0) << strerror(errno);
  // Starts from eight links race: those not yet linked count too.
  std::atomic<int> started{0}, refused{0};
  std::vector<std::thread> starters;
  for (int k = 0; k < 8; ++k) {
    starters.emplace_back([&] {
      for (int i = 0; i < 10; ++i) {
        int64_t child = spawnProgram("/bin/true", {});
        if (child > 0) ++started;
        else EXPECT_EQ(errno, EAGAIN) << strerror(errno);
        refused += child <= 0;
      }
    });
  }
  for (std::thread& t : starters) t.join();
  EXPECT_EQ(started, 64);
  EXPECT_EQ(refused, 16);
  // Ended children count until collected; a refused start starts nothing.
  OutputPipe out;
  EXPECT_ERRNO(spawnProbe({"print", "refused-but-ran"}, &out), EAGAIN);
  ASSERT_GT(px_waitpid(-1, nullptr, 0), 0);
  ASSERT_GT(spawnProbe({"print", "ran"}, &out), 0) << strerror(errno);
  std::string line;
  EXPECT_TRUE(out.readLine(&line));
  EXPECT_EQ(line, "ran");
}

TEST_F(BoundedRequestsTest, StartedProgramsKeepABoundedTextOfTheirArguments) {
  const std::string big(120 * 1024, 'a');
  constexpr int kChildren = 100;
  HeapStats before;
  ASSERT_TRUE(heapStats(&before));
  std::vector<int64_t> children;
  for (int i = 0; i < kChildren; ++i) {
    children.push_back(spawnProgram("/bin/sh", {"-c", "exec sleep 60", "sh", big}));
    ASSERT_GT(children.back(), 0) << strerror(errno);
  }
  // A running program's arguments and environment are let go once it has started.
  EXPECT_LT(perThing(before, kChildren), 16 << 10) << "heap bytes per running child";
  for (int64_t child : children) EXPECT_EQ(px_kill(child, PX_SIGKILL), 0);
  for (int64_t child : children) {
    EXPECT_TRUE(eventually([&] { return px_waitpid(child, nullptr, PX_WNOHANG | PX_WNOWAIT) > 0; }));
  }
  EXPECT_LT(perThing(before, kChildren), 8 << 10) << "heap bytes per zombie";
}

TEST_F(BoundedRequestsTest, AFullTableIsReadWholeAndAChildCostsWhatItChangesNotWhatItsParentHolds) {
  // A full table of 4096 entries (the placeholders 0, 1 and 2 count too), one of them at the
  // highest number: read whole, over several replies, by this process and by a child.
  int fds[2], more[2];
  ASSERT_EQ(px_pipe(fds), 0) << strerror(errno);
  ASSERT_EQ(px_dup2(fds[0], PX_FD_LIMIT - 1), PX_FD_LIMIT - 1) << strerror(errno);
  int taken = 3;
  while (px_dup(fds[0]) >= 0) ++taken;
  ASSERT_EQ(errno, EMFILE);
  EXPECT_EQ(taken, 4096 - 3);
  EXPECT_ERRNO(px_pipe(more), EMFILE);
  EXPECT_ERRNO(px_reserve_fd(), EMFILE);
  std::vector<px_fd_record> records(PX_FD_LIMIT);
  ASSERT_EQ(px_fd_table(records.data(), PX_FD_LIMIT), taken);
  for (int i = 0; i + 1 < taken; ++i) ASSERT_EQ(records[i].fd, 3 + i);
  EXPECT_EQ(records[taken - 1].fd, PX_FD_LIMIT - 1);
  OutputPipe out;
  int64_t reader = spawnProbe({"fds"}, &out);
  ASSERT_GT(reader, 0) << strerror(errno);
  EXPECT_EQ(out.expect("fds count", 20000), "fds count " + std::to_string(taken));
  EXPECT_EQ(collect(reader), 0);

  constexpr int kChildren = 250, kChanging = 20;
  HeapStats before;
  ASSERT_TRUE(heapStats(&before));
  for (int i = 0; i < kChildren; ++i) ASSERT_GT(spawnProbe({"sleep", "60000"}), 0) << strerror(errno);
  EXPECT_LT(perThing(before, kChildren), 4 << 10) << "heap bytes per child of a full table";
  // Children that change their table pay for the change, not for a copy of the whole table.
  ASSERT_TRUE(heapStats(&before));
  for (int i = 0; i < kChanging; ++i) {
    ASSERT_GT(spawnProbe({"close", "5", "close", "4000", "sleep", "60000"}, &out), 0) << strerror(errno);
  }
  for (int i = 0; i < kChanging; ++i) ASSERT_EQ(out.expect("closed 4000", 20000), "closed 4000") << i;
  EXPECT_LT(perThing(before, kChanging), 16 << 10) << "heap bytes per child that closed two numbers";
  // What the children closed is still the parent's: its table is as full as before, until it
  // closes numbers itself.
  EXPECT_ERRNO(px_dup(fds[0]), EMFILE);
  ASSERT_EQ(px_close(PX_FD_LIMIT - 1) | px_close(5), 0);
  ASSERT_EQ(px_pipe(more), 0) << strerror(errno);
  EXPECT_EQ(more[0], 5);
}

TEST_F(BoundedRequestsTest, AParentThatEndsRightAfterASpawnNeverLeavesAnEmptyTable) {
  // The parent's table holds 3 and 4 (besides the reserved 0, 1 and 2), and so must its child's.
  int fds[2];
  ASSERT_EQ(px_pipe(fds), 0) << strerror(errno);
  OutputPipe out;
  constexpr int kRounds = 30;
  for (int i = 0; i < kRounds; ++i) {
    int64_t parent = spawnProbe({"spawnexit", out.writePath(), helper("px_probe"), "fds"});
    ASSERT_GT(parent, 0) << strerror(errno);
    EXPECT_EQ(collect(parent), 0);
  }
  // Each start either runs with the parent's table or was refused: count what came.
  int children = 0;
  for (std::string line; out.readLine(&line, 3000);) {
    if (line.rfind("fds count", 0) != 0) continue;
    ++children;
    EXPECT_EQ(line, "fds count 2") << "child " << children;
  }
  EXPECT_GT(children, 0) << "of " << kRounds << " starts, none ran";
}

}  // namespace
