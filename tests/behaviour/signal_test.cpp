// Signals: the permission rule, pending signals and their order, the record that comes with a
// signal, the child signal, group signals and the host actions of kill, stop and continue.
#include <errno.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <set>

#include "server_fixture.h"

namespace {

using SignalTest = ServerFixture;

char hostState(pid_t pid) {
  std::string text = procStat(pid);
  size_t paren = text.rfind(')');
  return paren == std::string::npos || paren + 2 >= text.size() ? '?' : text[paren + 2];
}

bool waitHostState(pid_t pid, char want, int timeoutMs = 5000) {
  int64_t deadline = monotonicMs() + timeoutMs;
  while (monotonicMs() < deadline) {
    if (hostState(pid) == want) return true;
    sleepMs(10);
  }
  return false;
}

TEST_F(SignalTest, NobodyMaySignalTheServer) {
  EXPECT_EQ(px_kill(server_, 0), -1);
  EXPECT_EQ(errno, EPERM);
  EXPECT_EQ(px_kill(server_, PX_SIGKILL), -1);
  EXPECT_EQ(errno, EPERM);
  EXPECT_EQ(px_kill(server_, PX_SIGSTOP), -1);
  EXPECT_EQ(errno, EPERM);
  EXPECT_NE(hostState(server_), 'T');
  EXPECT_GE(px_getppid(), 0);  // still serving
}

TEST_F(SignalTest, RangeAndUnknownTargets) {
  EXPECT_EQ(px_kill(getpid(), 32), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(px_killpg(0, 32), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(px_kill(getpid(), 0), 0);  // a probe of oneself
  // pid_max is at most 2^22: this pid cannot exist.
  EXPECT_EQ(px_kill(4194304 + 17, 5), -1);
  EXPECT_EQ(errno, ESRCH);
  EXPECT_EQ(px_killpg(4194304 + 17, 5), -1);
  EXPECT_EQ(errno, ESRCH);
  EXPECT_EQ(px_getpgid(4194304 + 17), -1);
  EXPECT_EQ(errno, ESRCH);
}

TEST_F(SignalTest, SignalToAWaitingProcessCarriesTheSendersRecord) {
  int sig = 0;
  // The time-out leaves the wait kept at the server: the next signal answers it directly.
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
}

TEST_F(SignalTest, ChildSignalReportsTheEnd) {
  int sig = 0;
  // Keep a signal wait at the server first: a signal that has to wait as pending loses its
  // record.
  ASSERT_EQ(px_sigtimedwait(&sig, nullptr, 50), -1);
  int64_t child = spawnProbe({"exit", "6"});
  ASSERT_GT(child, 0);
  px_siginfo info{};
  ASSERT_EQ(px_sigtimedwait(&sig, &info, 5000), 0);
  EXPECT_EQ(sig, PX_SIGCHLD);
  EXPECT_EQ(info.signal, static_cast<uint32_t>(PX_SIGCHLD));
  EXPECT_EQ(info.code, 1u);
  EXPECT_EQ(info.exit_code, 6u);
  EXPECT_EQ(info.pid, static_cast<uint64_t>(child));
  int status = -1;
  EXPECT_EQ(px_waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 6);
}

TEST_F(SignalTest, SignalsReachAConnectedChild) {
  OutputPipe out;
  int64_t child = spawnProbe({"ready", "sigwait", "2", "exit", "0"}, &out);
  ASSERT_GT(child, 0);
  ASSERT_EQ(expectLine(out, "ready"), "ready");
  ASSERT_EQ(px_kill(child, 5), 0);
  ASSERT_EQ(px_kill(child, 12), 0);
  EXPECT_EQ(expectLine(out, "signal").substr(0, 9), "signal 5 ");
  EXPECT_EQ(expectLine(out, "signal").substr(0, 10), "signal 12 ");
  int status = -1;
  EXPECT_EQ(px_waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

TEST_F(SignalTest, GroupSignalReachesEveryMemberAndTheSender) {
  OutputPipe out;
  int64_t a = spawnProbe({"ready", "sigwait", "1"}, &out);
  ASSERT_GT(a, 0);
  ASSERT_EQ(expectLine(out, "ready"), "ready");
  int64_t b = spawnProbe({"ready", "sigwait", "1"}, &out);
  ASSERT_GT(b, 0);
  ASSERT_EQ(expectLine(out, "ready"), "ready");
  ASSERT_EQ(px_killpg(0, 10), 0);
  EXPECT_EQ(expectLine(out, "signal").substr(0, 10), "signal 10 ");
  EXPECT_EQ(expectLine(out, "signal").substr(0, 10), "signal 10 ");
  std::set<int> mine;
  int sig = 0;
  while (mine.count(10) == 0 && px_sigtimedwait(&sig, nullptr, 5000) == 0) mine.insert(sig);
  EXPECT_EQ(mine.count(10), 1u);
  EXPECT_EQ(px_waitpid(a, nullptr, 0), a);
  EXPECT_EQ(px_waitpid(b, nullptr, 0), b);
}

TEST_F(SignalTest, HostActionsOnAProcessThatNeverConnected) {
  pid_t pid = fork();
  if (pid == 0) {
    pause();
    _exit(0);
  }
  ASSERT_GT(pid, 0);
  // Only kill, stop and continue reach a process the server does not know.
  EXPECT_EQ(px_kill(pid, 5), -1);
  EXPECT_EQ(errno, ESRCH);
  EXPECT_EQ(px_kill(pid, PX_SIGSTOP), 0);
  EXPECT_TRUE(waitHostState(pid, 'T'));
  EXPECT_EQ(px_kill(pid, PX_SIGCONT), 0);
  EXPECT_TRUE(waitHostState(pid, 'S'));
  EXPECT_EQ(px_kill(pid, PX_SIGKILL), 0);
  int status = waitExit(pid, 5000);
  ASSERT_NE(status, -1);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
}

TEST_F(SignalTest, StopAndContinueAConnectedChild) {
  OutputPipe out;
  int64_t child = spawnProbe({"ready", "sigwait", "1"}, &out);
  ASSERT_GT(child, 0);
  ASSERT_EQ(expectLine(out, "ready"), "ready");
  ASSERT_EQ(px_kill(child, PX_SIGSTOP), 0);
  EXPECT_TRUE(waitHostState(static_cast<pid_t>(child), 'T'));
  // Continue resumes it and is also delivered as a signal.
  ASSERT_EQ(px_kill(child, PX_SIGCONT), 0);
  EXPECT_EQ(expectLine(out, "signal").substr(0, 10), "signal 17 ");
  int status = -1;
  EXPECT_EQ(px_waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

}  // namespace
