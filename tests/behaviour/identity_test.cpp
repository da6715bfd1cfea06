// Who a signal reaches and who a record belongs to: a process, never a thread of the server; a
// started program together with what it started; only the process that has a pid now, never
// a later one that got the pid again; no client outside the server's pid namespace; and no
// host string cut short at a zero byte.
#include <fcntl.h>
#include <signal.h>
#include <sys/fsuid.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "command_runner.h"
#include "posix/fd_service.h"
#include "posix/posix_service.h"
#include "server_fixture.h"

namespace {

using IdentityTest = ServerFixture;

bool gone(pid_t pid) {
  char state = hostState(pid);
  return state == '?' || state == 'Z';
}

TEST_F(IdentityTest, SignalsReachProcessesWithWhatTheyStartedButNoThreadOfTheServer) {
  std::vector<pid_t> tids;
  for (const auto& e : std::filesystem::directory_iterator("/proc/" + std::to_string(server_) + "/task"))
    tids.push_back(std::stoi(e.path().filename()));
  ASSERT_GE(tids.size(), 2u);
  for (pid_t tid : tids) {
    for (int sig : {0, PX_SIGSTOP, PX_SIGKILL}) {
      EXPECT_ERRNO(px_kill(tid, sig), tid == server_ ? EPERM : ESRCH);
      ASSERT_FALSE(gone(server_) || hostState(server_) == 'T') << "thread " << tid << " signal " << sig;
    }
  }
  EXPECT_GE(px_getppid(), 0);

  // A started shell leads its own host process group and leaves a job in it: the kill of the
  // shell takes the job with it.
  OutputPipe out;
  int64_t sh = spawnProgram("/bin/sh", {"-c", "sleep 151 & echo $!; wait"}, &out);
  ASSERT_GT(sh, 0);
  std::string line;
  ASSERT_TRUE(out.readLine(&line));
  pid_t job = static_cast<pid_t>(std::stol(line));
  EXPECT_EQ(px_kill(sh, PX_SIGKILL), 0);
  EXPECT_EQ(collect(sh), 128 + SIGKILL);
  EXPECT_TRUE(eventually([&] { return gone(job); })) << "the shell's job survived";
  kill(job, SIGKILL);
}

// The server runs in a pid namespace of its own. A client outside it has no pid there and is
// refused. Inside, the test itself (pid 1) chooses the pids of the next processes, so that a
// process gets the pid of one that has gone while a forked child still holds that one's links.
class PidNamespaceTest : public ServerFixture {
 protected:
  static constexpr const char* kInner = "PX_PID_NAMESPACE_INNER";
  PidNamespaceTest() { startServerInSetUp_ = inner(); }
  static bool inner() { return std::getenv(kInner) != nullptr; }
  static std::vector<std::string> inNamespace(std::vector<std::string> argv) {
    std::vector<std::string> all = {"/usr/bin/unshare", "--pid", "--fork", "--mount-proc", "--kill-child"};
    all.insert(all.end(), argv.begin(), argv.end());
    return all;
  }
  void reusedPid();
};

// Forks a child that has the given pid: the next pid is set to it through ns_last_pid, and a
// child that got another one ends at once. A thread of the server may hold the pid for a
// moment (its threads come and go with links and multiplexes; the acceptor's ends a second
// after the last multiplex), so this goes on for up to five seconds.
// Returns 0 in the child, the pid in the parent, -1 when it stayed taken.
pid_t forkWithPid(pid_t pid) {
  for (int tries = 0; tries < 500; ++tries) {
    std::ofstream("/proc/sys/kernel/ns_last_pid") << pid - 1;
    pid_t child = fork();
    if (child == 0 && getpid() != pid) _exit(0);
    if (child <= 0 || child == pid) return child;
    waitpid(child, nullptr, 0);
    sleepMs(10);
  }
  return -1;
}

std::string holderOf(pid_t pid) {
  std::string name;
  std::getline(std::ifstream("/proc/" + std::to_string(pid) + "/comm"), name);
  return name.empty() ? "nobody" : name;
}

TEST_F(PidNamespaceTest, AClientOutsideIsRefusedAndAReusedPidIsANewProcess) {
  if (inner()) return reusedPid();
  CommandResult probe = runCommand(inNamespace({"/bin/true"}));
  if (probe.exitCode != 0) GTEST_SKIP() << "no private pid namespace here: " << probe.err;

  int log = open(path("server.log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  pid_t server = startCommand(inNamespace({POSIX_SERVER_BINARY}), log);
  ASSERT_TRUE(eventually([&] { return RawLink(path("chn/posix.service")).connected(); }));
  RawLink outside(path("chn/posix.service"));
  EXPECT_TRUE(outside.closedByServer(3000)) << "a client seen as pid 0 was served";
  kill(server, SIGKILL);  // unshare ignores SIGTERM; its child goes with it (--kill-child)
  EXPECT_NE(waitExit(server, 10000), -1);

  char self[4096] = {};
  ASSERT_GT(readlink("/proc/self/exe", self, sizeof self - 1), 0);
  setenv(kInner, "1", 1);
  pid_t insider = startCommand(inNamespace({self, "--gtest_filter=PidNamespaceTest.*"}), log);
  unsetenv(kInner);
  close(log);
  int status = waitExit(insider, 60000);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << serverLog();
}

void PidNamespaceTest::reusedPid() {
  int go[2], report[2];
  ASSERT_EQ(pipe(go), 0);
  ASSERT_EQ(pipe(report), 0);
  // A: of another user (its links carry euid 65534; the file-system user stays root to reach
  // RT), reserves a descriptor, reports its table's size and leaves its links to H.
  pid_t a = fork();
  if (a == 0) {
    const pid_t self = getpid();
    RawReply r;
    if (setresuid(-1, 65534, -1) != 0) _exit(2);
    setfsuid(0);
    RawLink ps(path("chn/posix.service"));
    if (!ps.roundTrip(PX_CMD_GET_PARENT_ID, 1, {}, &r)) _exit(3);
    RawLink fds(path("chn/posix.fd.service"));
    if (!fds.roundTrip(PX_FD_CMD_RESERVE, 2, {}, &r) || !fds.roundTrip(PX_FD_CMD_GET_TABLE, 3, {}, &r)) _exit(4);
    sendNumber(report[1], r.code);
    if (fork() == 0) {  // H: acts with A's links once A has gone
      takeNumber(go[0]);
      ps.roundTrip(PX_CMD_KILL, 4, signalRequest(self, PX_SIGKILL), &r);
      sendNumber(report[1], r.code);
      ps.roundTrip(PX_CMD_KILL_GROUP, 5, signalRequest(self, PX_SIGKILL), &r);
      sendNumber(report[1], r.code);
      takeNumber(go[0]);
      _exit(0);
    }
    _exit(0);
  }
  int64_t tableOfA = takeNumber(report[0]);
  ASSERT_GT(tableOfA, 0);
  ASSERT_EQ(waitExit(a, 5000), 0);

  // B: root, gets A's pid and asks for its own descriptor table.
  pid_t b = forkWithPid(a);
  if (b == 0) {
    RawReply r;
    RawLink ps(path("chn/posix.service"));
    bool asked = getpid() == a && ps.roundTrip(PX_CMD_GET_PARENT_ID, 1, {}, &r);
    RawLink fds(path("chn/posix.fd.service"));
    asked = asked && fds.roundTrip(PX_FD_CMD_GET_TABLE, 2, {}, &r);
    sendNumber(report[1], asked ? r.code : -1);
    pause();
    _exit(0);
  }
  ASSERT_EQ(b, a) << "pid " << a << " stayed taken by " << holderOf(a);
  EXPECT_EQ(takeNumber(report[0]), tableOfA - 1) << "B was handed A's record and table";

  sendNumber(go[1], 1);
  EXPECT_NE(takeNumber(report[0]), PX_RESULT_DONE) << "A's links killed B";
  takeNumber(report[0]);
  sleepMs(100);
  EXPECT_EQ(waitpid(b, nullptr, WNOHANG), 0) << "B was killed through A's links";
  kill(b, SIGKILL);
  sendNumber(go[1], 1);
  waitExit(b, 5000);
}

}  // namespace
