// Starting programs and waiting for them: exit codes, zombies, blocking and non-blocking
// waits, waits with nothing to wait for, group waits and aborted waits.
#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <set>
#include <string>
#include <fstream>
#include <thread>
#include <tuple>

#include "server_fixture.h"

namespace {

class WaitTest : public ServerFixture {
 protected:
  // Spawns the probe and waits until it has ended and is kept as a zombie (reported without
  // being collected). Child signals cannot tell: one that was pending when the signal wait
  // began has no record.
  int64_t zombie(const std::string& code) {
    int64_t child = spawnProbe({"exit", code});
    EXPECT_GT(child, 0) << strerror(errno);
    EXPECT_TRUE(eventually([&] {
      return px_waitpid(child, nullptr, PX_WNOHANG | PX_WNOWAIT) == child;
    }));
    return child;
  }

  void expectEchild(int64_t pid, int options) {
    int status = 0;
    SCOPED_TRACE(pid);
    EXPECT_ERRNO(px_waitpid(pid, &status, options), ECHILD);
  }
};

// Programs started and collected one after another (a shell running commands) reuse the
// agents' threads: making a thread per program would cost each start a few hundred
// microseconds of the server's CPU.
TEST_F(WaitTest, ProgramsStartedInTurnReuseTheAgentThreads) {
  auto agentThreads = [this] {
    std::set<std::string> tids;
    for (const auto& task : std::filesystem::directory_iterator("/proc/" + std::to_string(server_) + "/task")) {
      if (hostRead(task.path().string() + "/comm") == "PosixChild\n") tids.insert(task.path().filename());
    }
    return tids;
  };
  auto startAndWait = [] {
    int64_t child = spawnRaw({"/bin/true"}, {});
    int status = -1;
    return child > 0 && px_waitpid(child, &status, 0) == child && status == 0;
  };
  ASSERT_TRUE(startAndWait());
  const std::set<std::string> before = agentThreads();
  for (int i = 0; i < 300; ++i) ASSERT_TRUE(startAndWait()) << i;
  EXPECT_EQ(agentThreads(), before);
}

TEST_F(WaitTest, ExitCodesArriveUnchangedAndSpawnFailuresGiveTheirReasons) {
  EXPECT_ERRNO(spawnRaw({path("no-such-dir/program")}, {}), ENOENT);
  EXPECT_ERRNO(spawnRaw({"no-such-program-anywhere"}, {}, PX_SPAWN_SEARCH_PATH), ENOENT);
  std::string plain = hostFile("not-executable", "data\n");
  chmod(plain.c_str(), 0644);
  EXPECT_ERRNO(spawnRaw({plain}, {}), EACCES);
  // The server goes on serving, and every code reaches the parent as it was. The program starts
  // with default dispositions and nothing blocked, whatever the server ignores (13) or blocks (15).
  for (auto [step, value, code] : std::vector<std::tuple<std::string, std::string, int>>{
           {"exit", "0", 0}, {"exit", "7", 7}, {"exit", "255", 255},
           {"raise", "9", 128 + 9}, {"raise", "15", 128 + 15}, {"raise", "13", 128 + 13}}) {
    int64_t child = spawnProbe({step, value});
    ASSERT_GT(child, 0) << strerror(errno);
    int status = -1;
    EXPECT_EQ(px_waitpid(child, &status, 0), child);
    EXPECT_EQ(status, code) << step << " " << value;
  }
}

TEST_F(WaitTest, ZombiesStayUntilCollectedOldestFirstAndNoWaitLeavesThem) {
  // Nothing to wait for: no child at all, or a process that exists but is not our child.
  expectEchild(-1, PX_WNOHANG);
  expectEchild(0, 0);
  expectEchild(getppid(), 0);
  int64_t first = zombie("1");
  int64_t second = zombie("2");
  int status = -1;
  // Reported while left in place, any number of times, then collected once, oldest first.
  EXPECT_EQ(px_waitpid(second, &status, PX_WNOHANG | PX_WNOWAIT), second);
  EXPECT_EQ(status, 2);
  EXPECT_EQ(px_waitpid(-1, &status, PX_WNOWAIT), first);
  EXPECT_EQ(status, 1);
  EXPECT_EQ(px_waitpid(-1, &status, 0), first);
  EXPECT_EQ(status, 1);
  EXPECT_EQ(px_waitpid(second, &status, PX_WNOHANG), second);
  EXPECT_EQ(status, 2);
  expectEchild(second, PX_WNOHANG);
  expectEchild(-1, 0);
}

TEST_F(WaitTest, NoWaitWhileTheChildRunsAndASecondWaiterForItGetsEchild) {
  int64_t child = spawnProbe({"sleep", "400", "exit", "8"});
  ASSERT_GT(child, 0);
  for (int64_t pid : {child, int64_t{-1}, int64_t{0}})
    EXPECT_EQ(px_waitpid(pid, nullptr, PX_WNOHANG), 0) << pid;
  int64_t results[2] = {0, 0};
  int errs[2] = {0, 0}, statuses[2] = {-1, -1};
  std::thread waiters[2];
  for (int k = 0; k < 2; ++k) {
    waiters[k] = std::thread([&, k] {
      results[k] = px_waitpid(child, &statuses[k], 0);
      errs[k] = errno;
    });
  }
  for (auto& t : waiters) t.join();
  int winner = results[0] == child ? 0 : 1;
  EXPECT_EQ(results[winner], child);
  EXPECT_EQ(statuses[winner], 8);
  EXPECT_EQ(results[1 - winner], -1);
  EXPECT_EQ(errs[1 - winner], ECHILD);
}

TEST_F(WaitTest, GroupWaitsMatchTheSpawnersGroup) {
  int64_t own = getpid();  // a process that connected by itself leads its own group
  int64_t a = spawnProbe({"sleep", "200", "exit", "11"});
  int64_t b = spawnProbe({"exit", "12"});
  ASSERT_GT(a, 0);
  ASSERT_GT(b, 0);
  expectEchild(-(own + 1), 0);  // no such group among the children
  int status = -1;
  int64_t got1 = px_waitpid(0, &status, 0);
  int code1 = status;
  int64_t got2 = px_waitpid(-own, &status, 0);
  EXPECT_TRUE((got1 == a && code1 == 11 && got2 == b && status == 12) ||
              (got1 == b && code1 == 12 && got2 == a && status == 11))
      << got1 << " " << code1 << " " << got2 << " " << status;
}

TEST_F(WaitTest, AbortEndsBlockingWaits) {
  int64_t child = spawnProbe({"sleep", "20000"});
  ASSERT_GT(child, 0);
  std::atomic<bool> finished{false};
  int64_t result = 0;
  int err = 0;
  std::thread waiter([&] {
    result = px_waitpid(child, nullptr, 0);
    err = errno;
    finished = true;
  });
  // The abort only reaches a wait the server has queued already: repeat until it ends.
  eventually([&] {
    EXPECT_EQ(px_abort_waits(), 0);
    return finished.load();
  }, 5000, 50);
  waiter.join();
  EXPECT_EQ(result, -1);
  EXPECT_EQ(err, EINTR);
  // The child is still ours to kill and collect.
  EXPECT_EQ(px_kill(child, PX_SIGKILL), 0);
  int status = -1;
  EXPECT_EQ(px_waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 128 + 9);
}

}  // namespace
