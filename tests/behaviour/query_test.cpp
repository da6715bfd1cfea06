// Parent and group queries made by spawned programs that connect back, and shared memory
// handed from a spawner to its child.
#include <errno.h>
#include <unistd.h>

#include <cstring>

#include "server_fixture.h"

namespace {

using QueryTest = ServerFixture;

TEST_F(QueryTest, ProcessThatConnectedByItselfHasNoParentAndLeadsItsGroup) {
  EXPECT_EQ(px_getppid(), 0);
  EXPECT_EQ(px_getpgid(0), getpid());
  EXPECT_EQ(px_getpgid(getpid()), getpid());
}

TEST_F(QueryTest, SpawnedChildSeesItsParentAndGroup) {
  OutputPipe out;
  int64_t child = spawnProbe({"ppid", "pgid", "sigwait", "1"}, &out);
  ASSERT_GT(child, 0);
  EXPECT_EQ(expectLine(out, "ppid"), "ppid " + std::to_string(getpid()));
  EXPECT_EQ(expectLine(out, "pgid"), "pgid " + std::to_string(getpid()));
  // Asked while it runs: a program that ended has left the server's registry.
  EXPECT_EQ(px_getpgid(child), getpid());
  EXPECT_EQ(px_kill(child, 1), 0);
  EXPECT_EQ(px_waitpid(child, nullptr, 0), child);
}

TEST_F(QueryTest, GrandchildJoinsTheGroupAndNamesItsOwnParent) {
  OutputPipe out;
  int64_t child = spawnProbe({"spawn-wait", helper("px_probe"), "ppid", "pgid", "exit", "9"}, &out);
  ASSERT_GT(child, 0);
  EXPECT_EQ(expectLine(out, "ppid"), "ppid " + std::to_string(child));
  EXPECT_EQ(expectLine(out, "pgid"), "pgid " + std::to_string(getpid()));
  std::string done = expectLine(out, "child");
  EXPECT_NE(done.find(" exit 9"), std::string::npos) << done;
  int status = -1;
  EXPECT_EQ(px_waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

TEST_F(QueryTest, ChildFindsTheSharedMemoryItWasGiven) {
  px_shm_id shm{};
  ASSERT_EQ(px_shm_create(4096, &shm), 0) << strerror(errno);
  char* mem = static_cast<char*>(px_shm_map(&shm));
  ASSERT_NE(mem, nullptr) << strerror(errno);
  strcpy(mem, "ping");
  OutputPipe out;
  std::string probe = helper("px_probe");
  std::string out1 = "POSIX_STDOUT=" + out.writePath();
  char* argv[] = {probe.data(), const_cast<char*>("shm"), const_cast<char*>("pong"), nullptr};
  char* envp[] = {out1.data(), nullptr};
  int64_t child = px_spawn_shared(probe.c_str(), argv, envp, 0, &shm);
  ASSERT_GT(child, 0) << strerror(errno);
  EXPECT_EQ(expectLine(out, "shm"), "shm ping");
  int status = -1;
  EXPECT_EQ(px_waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_STREQ(mem, "pong");
  EXPECT_EQ(px_shm_unmap(mem, &shm), 0);
  EXPECT_EQ(px_shm_unlink(&shm), 0);
}

TEST_F(QueryTest, NoSharedMemoryWithoutASpawner) {
  px_shm_id shm{1, 1};
  EXPECT_EQ(px_get_shared_memory(&shm), -1);
  EXPECT_EQ(errno, ENOENT);
}

}  // namespace
