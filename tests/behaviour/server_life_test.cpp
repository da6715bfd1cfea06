// The server's life on its runtime directory: one server per directory, clean shutdown.
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

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
  pid_t second = launchServer(path("second.log"));
  ASSERT_GT(second, 0);
  int status = waitExit(second, 10000);
  ASSERT_NE(status, -1) << "the second server did not end";
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 255) << status;
  std::string text = hostRead(path("second.log"));
  EXPECT_NE(text.find("Could not accquire channel posix.service"), std::string::npos) << text;
  // The first server keeps its channel and its files.
  px_fini();
  EXPECT_GE(px_getppid(), 0);
  EXPECT_EQ(px_server_pid(), server_);
  EXPECT_TRUE(filesExist());

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

TEST_F(ServerLifeTest, BlockingCallsEndWhenTheServerDies) {
  int64_t child = spawnProbe({"sleep", "20000"});
  ASSERT_GT(child, 0);
  int64_t result = 0;
  int err = 0;
  std::thread waiter([&] {
    result = px_waitpid(child, nullptr, 0);
    err = errno;
  });
  sleepMs(200);  // time for the wait to reach the server
  kill(server_, SIGKILL);
  waiter.join();
  kill(static_cast<pid_t>(child), SIGKILL);  // no longer the server's to clean up
  EXPECT_EQ(result, -1);
  EXPECT_EQ(err, ECONNRESET);
}

}  // namespace
