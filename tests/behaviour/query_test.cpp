// Parent and group queries made by spawned programs that connect back, and shared memory
// handed from a spawner to its child.
#include <errno.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "server_fixture.h"

namespace {

using QueryTest = ServerFixture;

TEST_F(QueryTest, ChildAndGrandchildSeeTheirParentsAndJoinTheGroup) {
  OutputPipe out;
  std::string self = std::to_string(getpid());
  int64_t child = spawnProbe({"ppid", "pgid", "spawn", helper("px_probe"), "ppid", "pgid",
                              "sigwait", "1", "exit", "9", "--", "wait"},
                             &out);
  ASSERT_GT(child, 0);
  EXPECT_EQ(out.expect("ppid"), "ppid " + self);
  EXPECT_EQ(out.expect("pgid"), "pgid " + self);
  // The grandchild may speak before its parent says that it spawned it.
  std::vector<std::string> lines(3);
  for (std::string& line : lines) ASSERT_TRUE(out.readLine(&line));
  auto spawned = std::find_if(lines.begin(), lines.end(),
                              [](const std::string& l) { return l.rfind("spawned ", 0) == 0; });
  ASSERT_NE(spawned, lines.end());
  int64_t grandchild = std::stoll(spawned->substr(8));
  lines.erase(spawned);
  EXPECT_EQ(lines, (std::vector<std::string>{"ppid " + std::to_string(child), "pgid " + self}));
  // Asked while they run: a program that ended has left the server's registry.
  EXPECT_EQ(px_getpgid(child), getpid());
  EXPECT_EQ(px_getpgid(grandchild), getpid());
  EXPECT_EQ(px_kill(grandchild, 1), 0);
  // The grandchild's end reaches its own parent.
  EXPECT_EQ(out.expect("child"), "child " + std::to_string(grandchild) + " exit 9");
  EXPECT_EQ(collect(child), 0);
}

TEST_F(QueryTest, ChildFindsTheSharedMemoryItWasGiven) {
  px_shm_id shm{1, 1};
  EXPECT_ERRNO(px_get_shared_memory(&shm), ENOENT);  // none for a process that connected by itself
  ASSERT_EQ(px_shm_create(4096, &shm), 0) << strerror(errno);
  char* mem = static_cast<char*>(px_shm_map(&shm));
  ASSERT_NE(mem, nullptr) << strerror(errno);
  strcpy(mem, "ping");
  OutputPipe out;
  std::string probe = helper("px_probe");
  std::string stdoutEntry = "POSIX_STDOUT=" + out.writePath();
  char* argv[] = {probe.data(), const_cast<char*>("shm"), const_cast<char*>("pong"), nullptr};
  char* envp[] = {stdoutEntry.data(), nullptr};
  int64_t child = px_spawn_shared(probe.c_str(), argv, envp, 0, &shm);
  ASSERT_GT(child, 0) << strerror(errno);
  EXPECT_EQ(out.expect("shm"), "shm ping");
  EXPECT_EQ(collect(child), 0);
  EXPECT_STREQ(mem, "pong");
  EXPECT_EQ(px_shm_unmap(mem, &shm), 0);
  EXPECT_EQ(px_shm_unlink(&shm), 0);
}

}  // namespace
