// The server's life on its runtime directory: one server per directory, its node, clean
// shutdown, and a new server after one that was killed (which the library then follows).
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

#include "posix/nodes.h"
#include "server_fixture.h"

namespace {

class ServerLifeTest : public ServerFixture {
 protected:
  // The channel and the device entry the server makes in RT.
  bool filesExist() {
    struct stat st;
    bool channel = lstat(path("chn/posix.service").c_str(), &st) == 0;
    bool device = lstat(path("dev/tmp/.PosixService").c_str(), &st) == 0;
    EXPECT_EQ(channel, device);
    return channel && device;
  }
};

TEST_F(ServerLifeTest, SecondServerGivesUpAndSigtermRemovesTheFilesAndExitsZero) {
  int64_t channels = entriesIn(path("chn"));
  pid_t second = launchServer(path("second.log"));
  ASSERT_GT(second, 0);
  int status = waitExit(second, 10000);
  ASSERT_NE(status, -1) << "the second server did not end";
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 255) << status;
  std::string text = hostRead(path("second.log"));
  EXPECT_NE(text.find("Could not accquire channel posix.service"), std::string::npos) << text;
  EXPECT_NE(text.find("a server already runs on " + path("chn/posix.service") + ", pid " +
                      std::to_string(server_)),
            std::string::npos) << text;
  // The first server keeps its channel and its files; the second left no socket behind.
  EXPECT_EQ(entriesIn(path("chn")), channels);
  px_fini();
  EXPECT_GE(px_getppid(), 0);
  EXPECT_EQ(px_server_pid(), server_);
  EXPECT_TRUE(filesExist());
  // The server's node, reached through the root's entry tmp: one entry naming posix.service.
  std::vector<uint8_t> node;
  putU32(node, 1);
  std::string channel = std::filesystem::read_symlink(path("chn/posix.service")).filename();
  for (uint64_t v : {uint64_t{PX_IFACE_POSIX_SERVICE}, uint64_t{std::stoull(channel, nullptr, 16)},
                     uint64_t{0}, uint64_t{0}, uint64_t{PX_ACCESS_SERVICE}, uint64_t{0}})
    putU64(node, v);
  EXPECT_EQ(hostRead(path("root/tmp/.PosixService")), std::string(node.begin(), node.end()));

  // A client with kept requests does not hold the shutdown up.
  int sig = 0;
  EXPECT_EQ(px_sigtimedwait(&sig, nullptr, 50), -1);
  status = stopServer();
  ASSERT_NE(status, -1) << "the server did not end on SIGTERM";
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_FALSE(filesExist());
  // Calls now fail instead of blocking.
  EXPECT_ERRNO(px_sigtimedwait(&sig, nullptr, 5000), ECONNRESET);
  px_fini();
  EXPECT_EQ(px_getppid(), -1);
  EXPECT_TRUE(errno == ENOENT || errno == ECONNREFUSED) << errno;
}

// ... and what a killed server leaves in RT/chn goes when the next one starts.
TEST_F(ServerLifeTest, BlockingCallsEndWhenTheServerDiesAndTheNextServerCleansUp) {
  int64_t child = spawnProbe({"sleep", "20000"});
  ASSERT_GT(child, 0);
  int fds[2];
  ASSERT_EQ(px_pipe(fds), 0);  // a multiplex with a socket of its own
  int64_t result = 0;
  int err = 0;
  std::thread waiter([&] {
    result = px_waitpid(child, nullptr, 0);
    err = errno;
  });
  ASSERT_TRUE(awaitKept(static_cast<uint64_t>(getpid()), 1));
  kill(server_, SIGKILL);
  waiter.join();
  kill(static_cast<pid_t>(child), SIGKILL);  // no longer the server's to clean up
  EXPECT_EQ(result, -1);
  EXPECT_EQ(err, ECONNRESET);

  std::vector<std::string> left;
  for (const auto& entry : std::filesystem::directory_iterator(path("chn"))) left.push_back(entry.path());
  EXPECT_GE(left.size(), 5u) << "the names, their sockets and the pipe's";
  sleepMs(300);  // a restart at once: the sockets are young, yet stale, and go before it serves
  server_ = launchServer(path("server.log"));
  ASSERT_TRUE(eventually([] { return px_getppid() >= 0; }, 10000, 20));
  for (const std::string& file : left) {
    std::string name = file.substr(file.rfind('/') + 1);
    if (name.ends_with(".service")) continue;  // claimed again
    EXPECT_NE(access(file.c_str(), F_OK), 0) << file << " was left behind";
  }
  // The library's view of the table follows the new server, which has only the placeholders.
  px_fd_info list[4];
  EXPECT_EQ(px_fd_list(list, 4), 0);
  char buf[4];
  EXPECT_ERRNO(px_read(fds[0], buf, sizeof buf), EBADF);
  ASSERT_EQ(px_pipe(fds), 0) << strerror(errno);
  EXPECT_EQ(fds[0], 3);
}

}  // namespace
