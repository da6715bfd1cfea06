// Starting programs and waiting for them: exit codes, zombies, blocking and non-blocking
// waits, waits with nothing to wait for, group waits and aborted waits.
#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <thread>

#include "server_fixture.h"

namespace {

class WaitTest : public ServerFixture {
 protected:
  // Waits until `child` has ended and is kept as a zombie (reported without being collected).
  // Child signals cannot tell: one that was pending when the signal wait began has no record.
  bool awaitZombie(int64_t child, int timeoutMs = 5000) {
    int64_t deadline = monotonicMs() + timeoutMs;
    while (monotonicMs() < deadline) {
      if (px_waitpid(child, nullptr, PX_WNOHANG | PX_WNOWAIT) == child) return true;
      sleepMs(5);
    }
    return false;
  }
};

TEST_F(WaitTest, ExitCodesArriveUnchanged) {
  struct Case {
    std::vector<std::string> args;
    int code;
  } cases[] = {{{"exit", "0"}, 0}, {{"exit", "7"}, 7}, {{"exit", "255"}, 255},
               {{"raise", "9"}, 128 + 9}, {{"raise", "15"}, 128 + 15}};
  for (const Case& c : cases) {
    int64_t child = spawnProbe(c.args);
    ASSERT_GT(child, 0) << strerror(errno);
    int status = -1;
    EXPECT_EQ(px_waitpid(child, &status, 0), child);
    EXPECT_EQ(status, c.code) << c.args[0] << " " << c.args[1];
  }
}

TEST_F(WaitTest, SpawnFailuresGiveLocalReasons) {
  char* argv[] = {const_cast<char*>("nothing"), nullptr};
  EXPECT_EQ(px_spawn("/nonexistent/program", argv, nullptr, 0), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(px_spawn("no-such-program-anywhere", argv, nullptr, PX_SPAWN_SEARCH_PATH), -1);
  EXPECT_EQ(errno, ENOENT);
  std::string plain = path("not-executable");
  std::ofstream(plain) << "data\n";
  chmod(plain.c_str(), 0644);
  EXPECT_EQ(px_spawn(plain.c_str(), argv, nullptr, 0), -1);
  EXPECT_EQ(errno, EACCES);
  // The server goes on serving.
  int64_t child = spawnProbe({"exit", "3"});
  ASSERT_GT(child, 0);
  int status = -1;
  EXPECT_EQ(px_waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 3);
}

TEST_F(WaitTest, ZombieStaysUntilCollectedAndNoWaitLeavesIt) {
  int64_t child = spawnProbe({"exit", "5"});
  ASSERT_GT(child, 0);
  ASSERT_TRUE(awaitZombie(child));
  int status = -1;
  // Reported twice while left in place, then collected once.
  EXPECT_EQ(px_waitpid(child, &status, PX_WNOHANG | PX_WNOWAIT), child);
  EXPECT_EQ(status, 5);
  status = -1;
  EXPECT_EQ(px_waitpid(-1, &status, PX_WNOWAIT), child);
  EXPECT_EQ(status, 5);
  EXPECT_EQ(px_waitpid(child, &status, PX_WNOHANG), child);
  EXPECT_EQ(px_waitpid(child, &status, PX_WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
}

TEST_F(WaitTest, OldestZombieFirstForAnyChild) {
  int64_t first = spawnProbe({"exit", "1"});
  ASSERT_GT(first, 0);
  ASSERT_TRUE(awaitZombie(first));
  int64_t second = spawnProbe({"exit", "2"});
  ASSERT_GT(second, 0);
  ASSERT_TRUE(awaitZombie(second));
  int status = -1;
  EXPECT_EQ(px_waitpid(-1, &status, 0), first);
  EXPECT_EQ(status, 1);
  EXPECT_EQ(px_waitpid(-1, &status, 0), second);
  EXPECT_EQ(status, 2);
  EXPECT_EQ(px_waitpid(-1, &status, 0), -1);
  EXPECT_EQ(errno, ECHILD);
}

TEST_F(WaitTest, NonBlockingWaitWhileChildRuns) {
  int64_t child = spawnProbe({"sleep", "400", "exit", "4"});
  ASSERT_GT(child, 0);
  int status = -1;
  EXPECT_EQ(px_waitpid(child, &status, PX_WNOHANG), 0);
  EXPECT_EQ(px_waitpid(-1, &status, PX_WNOHANG), 0);
  EXPECT_EQ(px_waitpid(0, &status, PX_WNOHANG), 0);
  EXPECT_EQ(px_waitpid(child, &status, 0), child);  // blocks until the end
  EXPECT_EQ(status, 4);
  EXPECT_EQ(px_waitpid(child, &status, PX_WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
}

TEST_F(WaitTest, NothingToWaitForIsEchild) {
  int status = 0;
  EXPECT_EQ(px_waitpid(-1, &status, 0), -1);
  EXPECT_EQ(errno, ECHILD);
  EXPECT_EQ(px_waitpid(-1, &status, PX_WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
  // A process that exists but is not our child.
  EXPECT_EQ(px_waitpid(getppid(), &status, 0), -1);
  EXPECT_EQ(errno, ECHILD);
  EXPECT_EQ(px_waitpid(0, &status, 0), -1);
  EXPECT_EQ(errno, ECHILD);
}

TEST_F(WaitTest, SecondWaiterForSameChildGetsEchild) {
  int64_t child = spawnProbe({"sleep", "300", "exit", "8"});
  ASSERT_GT(child, 0);
  std::atomic<int> done{0};
  int64_t results[2] = {0, 0};
  int errs[2] = {0, 0}, statuses[2] = {-1, -1};
  std::thread waiters[2];
  for (int k = 0; k < 2; ++k) {
    waiters[k] = std::thread([&, k] {
      results[k] = px_waitpid(child, &statuses[k], 0);
      errs[k] = errno;
      ++done;
    });
  }
  for (auto& t : waiters) t.join();
  ASSERT_EQ(done.load(), 2);
  int winner = results[0] == child ? 0 : 1;
  EXPECT_EQ(results[winner], child);
  EXPECT_EQ(statuses[winner], 8);
  EXPECT_EQ(results[1 - winner], -1);
  EXPECT_EQ(errs[1 - winner], ECHILD);
}

TEST_F(WaitTest, GroupWaitsMatchTheSpawnersGroup) {
  int64_t own = px_getpgid(0);
  ASSERT_EQ(own, getpid());  // a process that connected by itself leads its own group
  int64_t a = spawnProbe({"sleep", "200", "exit", "11"});
  int64_t b = spawnProbe({"exit", "12"});
  ASSERT_GT(a, 0);
  ASSERT_GT(b, 0);
  EXPECT_EQ(px_getpgid(a), own);  // asked while it runs: ended programs leave the registry
  int status = -1;
  EXPECT_EQ(px_waitpid(-(own + 1), &status, 0), -1);  // no such group among the children
  EXPECT_EQ(errno, ECHILD);
  int64_t got1 = px_waitpid(0, &status, 0);
  int code1 = status;
  int64_t got2 = px_waitpid(-own, &status, 0);
  int code2 = status;
  EXPECT_TRUE((got1 == a && code1 == 11 && got2 == b && code2 == 12) ||
              (got1 == b && code1 == 12 && got2 == a && code2 == 11))
      << got1 << " " << code1 << " " << got2 << " " << code2;
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
  int64_t deadline = monotonicMs() + 5000;
  while (!finished && monotonicMs() < deadline) {
    sleepMs(50);
    EXPECT_EQ(px_abort_waits(), 0);
  }
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
