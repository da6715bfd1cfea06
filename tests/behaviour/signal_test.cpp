// Signals: the permission rule, pending signals and their order, the record that comes with a
// signal, the child signal, group signals and the host actions of kill, stop and continue.
#include <errno.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <set>

#include "server_fixture.h"

namespace {

using SignalTest = ServerFixture;

bool inHostState(pid_t pid, char state) {
  return eventually([&] { return hostState(pid) == state; });
}

TEST_F(SignalTest, ASignalCarriesTheSendersRecordAndTheChildSignalReportsTheEnd) {
  int sig = 0;
  // The time-out leaves the wait kept at the server: the next signal answers it directly (a
  // signal that has to wait as pending loses its record).
  ASSERT_EQ(px_sigtimedwait(&sig, nullptr, 100), -1);
  ASSERT_EQ(px_kill(getpid(), 7), 0);
  px_siginfo info{};
  ASSERT_EQ(px_sigtimedwait(&sig, &info, 5000), 0);
  EXPECT_EQ(sig, 7);
  EXPECT_EQ(info.signal, 7u);
  EXPECT_EQ(info.code, 0xFFFFFFFFu);
  EXPECT_EQ(info.pid, static_cast<uint64_t>(getpid()));
  // A later signal still arrives (the library asked again).
  ASSERT_EQ(px_kill(getpid(), 8), 0);
  ASSERT_EQ(px_sigtimedwait(&sig, nullptr, 5000), 0);
  EXPECT_EQ(sig, 8);

  ASSERT_EQ(px_sigtimedwait(&sig, nullptr, 50), -1);
  int64_t child = spawnProbe({"exit", "6"});
  ASSERT_GT(child, 0);
  ASSERT_EQ(px_sigtimedwait(&sig, &info, 5000), 0);
  EXPECT_EQ(sig, PX_SIGCHLD);
  EXPECT_EQ(info.signal, static_cast<uint32_t>(PX_SIGCHLD));
  EXPECT_EQ(info.code, 1u);
  EXPECT_EQ(info.exit_code, 6u);
  EXPECT_EQ(info.pid, static_cast<uint64_t>(child));
  EXPECT_EQ(collect(child), 6);
}

TEST_F(SignalTest, SignalsReachConnectedChildrenInOrderAlsoByGroupAndContinueIsDelivered) {
  OutputPipe outA, outB;
  int64_t a = spawnProbe({"ready", "sigwait", "3"}, &outA);
  int64_t b = spawnProbe({"ready", "sigwait", "2"}, &outB);
  ASSERT_GT(a, 0);
  ASSERT_GT(b, 0);
  ASSERT_EQ(outA.expect("ready"), "ready");
  ASSERT_EQ(outB.expect("ready"), "ready");
  ASSERT_EQ(px_kill(a, 5), 0);
  ASSERT_EQ(px_kill(a, 12), 0);
  EXPECT_EQ(outA.expect("signal").substr(0, 9), "signal 5 ");
  EXPECT_EQ(outA.expect("signal").substr(0, 10), "signal 12 ");

  // A group signal reaches every member and the sender.
  ASSERT_EQ(px_killpg(0, 10), 0);
  EXPECT_EQ(outA.expect("signal").substr(0, 10), "signal 10 ");
  EXPECT_EQ(outB.expect("signal").substr(0, 10), "signal 10 ");
  std::set<int> mine;
  int sig = 0;
  while (mine.count(10) == 0 && px_sigtimedwait(&sig, nullptr, 5000) == 0) mine.insert(sig);
  EXPECT_EQ(mine.count(10), 1u);

  // Stop halts the host process; continue resumes it and is also delivered as a signal.
  ASSERT_EQ(px_kill(b, PX_SIGSTOP), 0);
  EXPECT_TRUE(inHostState(static_cast<pid_t>(b), 'T'));
  ASSERT_EQ(px_kill(b, PX_SIGCONT), 0);
  EXPECT_EQ(outB.expect("signal").substr(0, 10), "signal 17 ");
  for (int64_t child : {a, b}) EXPECT_EQ(collect(child), 0);
}

// Numbers that are no signal, or no process, are refused.
TEST_F(SignalTest, BadNumbersAndTargetsAreRefusedAndAStrangerTakesOnlyTheHostActions) {
  EXPECT_ERRNO(px_kill(getpid(), 32), EINVAL);
  EXPECT_ERRNO(px_killpg(0, 32), EINVAL);
  // pid_max is at most 2^22: this pid cannot exist.
  constexpr int64_t kNoSuchPid = 4194304 + 17;
  EXPECT_ERRNO(px_kill(kNoSuchPid, 5), ESRCH);
  EXPECT_ERRNO(px_killpg(kNoSuchPid, 5), ESRCH);
  EXPECT_ERRNO(px_getpgid(kNoSuchPid), ESRCH);
  EXPECT_EQ(px_kill(getpid(), 0), 0);  // a probe of oneself; the server still serves
  pid_t pid = inChild([] { pause(); });
  ASSERT_GT(pid, 0);
  // Only kill, stop and continue reach a process the server does not know.
  EXPECT_ERRNO(px_kill(pid, 5), ESRCH);
  EXPECT_EQ(px_kill(pid, PX_SIGSTOP), 0);
  EXPECT_TRUE(inHostState(pid, 'T'));
  EXPECT_EQ(px_kill(pid, PX_SIGCONT), 0);
  EXPECT_TRUE(inHostState(pid, 'S'));
  EXPECT_EQ(px_kill(pid, PX_SIGKILL), 0);
  int status = waitExit(pid, 5000);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
}

}  // namespace
