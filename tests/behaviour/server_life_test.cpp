// The server's life on its runtime directory: one server per directory, clean shutdown.
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <thread>

#include "server_fixture.h"

namespace {

using ServerLifeTest = ServerFixture;

bool exists(const std::string& p) {
  struct stat st;
  return lstat(p.c_str(), &st) == 0;
}

TEST_F(ServerLifeTest, SecondServerOnTheSameDirectoryGivesUp) {
  std::string log = path("second.log");
  pid_t second = launchServer(log);
  ASSERT_GT(second, 0);
  int status = waitExit(second, 10000);
  ASSERT_NE(status, -1) << "the second server did not end";
  ASSERT_TRUE(WIFEXITED(status)) << status;
  EXPECT_EQ(WEXITSTATUS(status), 255);
  std::string text;
  {
    std::ifstream in(log);
    text.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  EXPECT_NE(text.find("Could not accquire channel posix.service"), std::string::npos) << text;
  // The first server keeps its channel and its files.
  px_fini();
  EXPECT_GE(px_getppid(), 0);
  EXPECT_EQ(px_server_pid(), server_);
  EXPECT_TRUE(exists(path("chn/posix.service")));
  EXPECT_TRUE(exists(path("dev/tmp/.PosixService")));
}

TEST_F(ServerLifeTest, SigtermRemovesItsFilesAndExitsZero) {
  ASSERT_TRUE(exists(path("chn/posix.service")));
  ASSERT_TRUE(exists(path("dev/tmp/.PosixService")));
  // A client with kept requests does not hold the shutdown up.
  int sig = 0;
  EXPECT_EQ(px_sigtimedwait(&sig, nullptr, 50), -1);
  int status = stopServer();
  ASSERT_NE(status, -1) << "the server did not end on SIGTERM";
  ASSERT_TRUE(WIFEXITED(status)) << status;
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_FALSE(exists(path("chn/posix.service")));
  EXPECT_FALSE(exists(path("dev/tmp/.PosixService")));
  // Calls now fail instead of blocking.
  EXPECT_EQ(px_sigtimedwait(&sig, nullptr, 5000), -1);
  EXPECT_EQ(errno, ECONNRESET);
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
  sleepMs(200);
  kill(server_, SIGKILL);
  waiter.join();
  kill(static_cast<pid_t>(child), SIGKILL);  // no longer the server's to clean up
  EXPECT_EQ(result, -1);
  EXPECT_EQ(err, ECONNRESET);
}

}  // namespace
