// Parent and group queries made by spawned programs that connect back, and shared memory
// handed from a spawner to its child.
#include <errno.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "server_fixture.h"

namespace {

using QueryTest = ServerFixture;

// A grandchild's parent is the child that started it, and its group is the one its parent
// joined, two levels down. (A child's record of its parent and group: the diag tests.)
TEST_F(QueryTest, AGrandchildSeesItsParentAndJoinsTheGroupOfItsParent) {
  OutputPipe out;
  int64_t child =
      spawnProbe({"spawn", helper("px_probe"), "ppid", "pgid", "--", "wait", "sleep", "60000"}, &out);
  ASSERT_GT(child, 0) << strerror(errno);
  EXPECT_EQ(out.expect("ppid"), "ppid " + std::to_string(child));
  EXPECT_EQ(out.expect("pgid"), "pgid " + std::to_string(getpid()));
  EXPECT_NE(out.expect("child ").find(" exit 0"), std::string::npos) << "the grandchild's end";
  EXPECT_EQ(px_getpgid(child), getpid()) << "asked while it runs";
  EXPECT_EQ(px_kill(child, PX_SIGKILL), 0);
  EXPECT_EQ(collect(child), 128 + 9);
}

TEST_F(QueryTest, ChildFindsTheSharedMemoryItWasGiven) {
  px_shm_id shm{1, 1};
  EXPECT_ERRNO(px_get_shared_memory(&shm), ENOENT);  // none for a process that connected by itself
  ASSERT_EQ(px_shm_create(4096, &shm), 0) << strerror(errno);
  char* mem = static_cast<char*>(px_shm_map(&shm));
  ASSERT_NE(mem, nullptr) << strerror(errno);
  strcpy(mem, "ping");
  OutputPipe out;
  int64_t child =
      spawnRaw({helper("px_probe"), "shm", "pong"}, {"POSIX_STDOUT=" + out.writePath()}, 0, &shm);
  ASSERT_GT(child, 0) << strerror(errno);
  EXPECT_EQ(out.expect("shm"), "shm ping");
  EXPECT_EQ(collect(child), 0);
  EXPECT_STREQ(mem, "pong");
  EXPECT_EQ(px_shm_unmap(mem, &shm), 0);
  EXPECT_EQ(px_shm_unlink(&shm), 0);
}

}  // namespace
