// What the client side trusts: only a runtime directory of the caller's own and a server of
// the caller's uid; its links never take a standard descriptor; a wedged server ends a call
// with a time-out while a blocking wait outlasts it.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <thread>

#include "command_runner.h"
#include "server_fixture.h"

namespace {

constexpr uid_t kOtherUid = 65534;

class ClientSideTest : public ServerFixture {
 protected:
  // Points the library and posixctl at `dir` (RT again when empty).
  void useRuntimeDir(const std::string& dir) {
    setenv("POSIX_RUNTIME_DIR", dir.empty() ? rt_.c_str() : dir.c_str(), 1);
    px_fini();
  }
};

TEST_F(ClientSideTest, ARuntimeDirectoryThatIsNotOurOwnIsRefusedAndNothingIsWrittenThere) {
  // Made in advance by another user, with links planted where posixctl start writes.
  std::string other = path("other");
  ASSERT_EQ(mkdir(other.c_str(), 0700), 0);
  ASSERT_EQ(symlink(path("victim").c_str(), (other + "/server.pid.tmp").c_str()), 0);
  ASSERT_EQ(symlink(path("victim").c_str(), (other + "/server.log").c_str()), 0);
  ASSERT_EQ(chown(other.c_str(), kOtherUid, kOtherUid), 0);
  ASSERT_EQ(symlink(rt_.c_str(), path("link").c_str()), 0);
  useRuntimeDir(other);
  EXPECT_ERRNO(px_getppid(), EACCES);
  px_shm_id shm;
  EXPECT_ERRNO(px_shm_create(16, &shm), EACCES);
  CommandResult r = ctl({"start"});
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_NE(r.err.find("belongs to uid 65534"), std::string::npos) << r.err;
  EXPECT_EQ(ctl({"pgid", "0"}).exitCode, 1);

  ASSERT_EQ(chown(other.c_str(), getuid(), getgid()), 0);
  ASSERT_EQ(chmod(other.c_str(), 0755), 0);
  r = ctl({"status"});
  EXPECT_NE(r.err.find("group or others may use it"), std::string::npos) << r.err;
  useRuntimeDir(path("link") + "/");  // a symlink to our own RT
  EXPECT_ERRNO(px_getppid(), EACCES);
  useRuntimeDir("");
  EXPECT_NE(access(path("victim").c_str(), F_OK), 0) << "written through a planted link";

  // In our own RT a planted temporary pid file is replaced, not followed.
  ASSERT_EQ(symlink(path("victim").c_str(), path("server.pid.tmp").c_str()), 0);
  stopServer();
  unsetenv("POSIX_SERVER_BIN");
  r = ctl({"start", "--server", POSIX_SERVER_BINARY});
  EXPECT_EQ(r.exitCode, 0) << r.err;
  EXPECT_NE(access(path("victim").c_str(), F_OK), 0) << "written through a planted link";
  EXPECT_EQ(ctl({"stop"}).exitCode, 0);
}

TEST_F(ClientSideTest, AServerOfAnotherUserIsSentNothing) {
  std::string fake = path("fake");
  ASSERT_EQ(mkdir(fake.c_str(), 0700), 0);
  ASSERT_EQ(mkdir((fake + "/chn").c_str(), 0700), 0);
  int ready[2], got[2];
  ASSERT_EQ(pipe(ready), 0);
  ASSERT_EQ(pipe(got), 0);
  pid_t server = fork();
  if (server == 0) {
    // Bound as the owner of the directory, listening as another user: the uid a client sees.
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s/chn/posix.service", fake.c_str());
    int fd = socket(AF_UNIX, SOCK_SEQPACKET, 0);
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || setuid(kOtherUid) != 0 ||
        listen(fd, 16) != 0 || write(ready[1], "r", 1) != 1) {
      _exit(1);
    }
    for (;;) {  // passes on whatever a client sends
      int link = accept(fd, nullptr, nullptr);
      char buf[65536];
      for (ssize_t n; (n = read(link, buf, sizeof buf)) > 0;) (void)!write(got[1], buf, n);
      close(link);
    }
  }
  close(got[1]);
  char byte;
  ASSERT_EQ(read(ready[0], &byte, 1), 1);
  useRuntimeDir(fake);
  EXPECT_ERRNO(px_getppid(), EACCES);
  CommandResult r = ctl({"run", "--env", "DB_PASSWORD=secret", "--", "/bin/true"});
  EXPECT_NE(r.exitCode, 0);
  EXPECT_NE(r.err.find("runs as uid 65534"), std::string::npos) << r.err;
  useRuntimeDir("");
  kill(server, SIGKILL);
  waitExit(server, 5000);
  EXPECT_EQ(read(got[0], &byte, 1), 0) << "the fake server received a frame";
  for (int fd : {ready[0], ready[1], got[0]}) close(fd);
}

TEST_F(ClientSideTest, NoLinkTakesAStandardDescriptorAndAWedgedServerTimesOut) {
  // Links opened from here on give up on a reply after one second (POSIX_REPLY_TIMEOUT_MS is
  // read when a link opens, and px_fini closes the ones the process has).
  ASSERT_EQ(setenv("POSIX_REPLY_TIMEOUT_MS", "1000", 1), 0);
  int saved = dup(STDIN_FILENO);
  close(STDIN_FILENO);
  px_fini();
  EXPECT_EQ(px_getppid(), 0);
  EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1) << "a link of the library took descriptor 0";
  dup2(saved, STDIN_FILENO);
  close(saved);

  // A blocking wait waits as long as its child runs, beyond the reply time-out of other calls.
  int64_t spawned = monotonicMs();
  int64_t child = spawnProbe({"sleep", "2500"});
  ASSERT_GT(child, 0);
  int64_t waited = 0;
  std::thread waiter([&] { waited = px_waitpid(child, nullptr, 0); });
  ASSERT_TRUE(awaitKept(static_cast<uint64_t>(getpid()), 1));
  kill(server_, SIGSTOP);
  int64_t start = monotonicMs();
  EXPECT_ERRNO(px_getpgid(0), ETIMEDOUT);
  EXPECT_GE(monotonicMs() - start, 900);
  EXPECT_LT(monotonicMs() - start, 10000) << "the time-out set for the process, not 20 s";
  kill(server_, SIGCONT);
  waiter.join();
  unsetenv("POSIX_REPLY_TIMEOUT_MS");
  EXPECT_GE(monotonicMs() - spawned, 2400);
  EXPECT_EQ(waited, child);
}

}  // namespace
