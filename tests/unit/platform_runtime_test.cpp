// The runtime directory: where it is, that it is private, and a shut-down that is for good.
// (Sockets, names and node files removed at the end, the node record and the root's binding:
// the server's behaviour tests.)
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

#include "platform/error.h"
#include "platform/multiplex.h"
#include "platform_chn_support.h"

using namespace chntest;

namespace {

TEST(Runtime, DirectoryFollowsTheEnvironmentRule) {
  // Trailing slashes go, as the client library drops them: both must name the same sockets.
  EnvScope own("POSIX_RUNTIME_DIR", "/somewhere/own//");
  EnvScope xdg("XDG_RUNTIME_DIR", "/run/user/77");
  EXPECT_EQ(Runtime::dir(), "/somewhere/own");
  EXPECT_EQ(Runtime::path("chn/x"), "/somewhere/own/chn/x");
  {
    EnvScope unset("POSIX_RUNTIME_DIR", nullptr);
    EXPECT_EQ(Runtime::dir(), "/run/user/77/posix");
    EnvScope noXdg("XDG_RUNTIME_DIR", nullptr);
    EXPECT_EQ(Runtime::dir(), "/tmp/posix-" + std::to_string(::geteuid()));
  }
}

TEST(Runtime, PrepareMakesAPrivateTreeAndRefusesAnUnsafeDirectory) {
  RuntimeDirScope base;
  std::string rt = base.dir() + "/a/b/rt";
  {
    EnvScope own("POSIX_RUNTIME_DIR", rt.c_str());
    mode_t oldMask = ::umask(0);  // a permissive umask must not leak into RT's mode
    std::string why;
    bool ok = Runtime::prepare(&why);
    ::umask(oldMask);
    ASSERT_TRUE(ok) << why;
    struct stat st;
    ASSERT_EQ(::stat(rt.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0700u);
    for (const char* sub : {"chn", "dev", "root", "shm"}) {
      ASSERT_EQ(::stat((rt + "/" + sub).c_str(), &st), 0) << sub;
      EXPECT_TRUE(S_ISDIR(st.st_mode)) << sub;
    }
    EXPECT_TRUE(Runtime::prepare(&why)) << why;  // a second time finds everything in place
  }
  std::string file = base.dir() + "/file", open = base.dir() + "/open";
  std::ofstream(file) << "x";
  ASSERT_EQ(::mkdir(open.c_str(), 0700), 0);
  ASSERT_EQ(::chmod(open.c_str(), 0750), 0);
  std::vector<std::pair<std::string, const char*>> unsafe = {{file, "not a directory"},
                                                             {open, "group or others"}};
  if (::geteuid() == 0) {  // handing a directory to another owner needs root
    std::string foreign = base.dir() + "/foreign";
    ASSERT_EQ(::mkdir(foreign.c_str(), 0700), 0);
    ASSERT_EQ(::chown(foreign.c_str(), 65534, 65534), 0);
    unsafe.push_back({foreign, "not owned"});
  }
  for (auto& [dir, reason] : unsafe) {
    EnvScope own("POSIX_RUNTIME_DIR", dir.c_str());
    std::string why;
    EXPECT_FALSE(Runtime::prepare(&why)) << dir;
    EXPECT_NE(why.find(reason), std::string::npos) << why;
  }
}

// The shut-down is for good: what is owned goes, a file owned afterwards goes at once, and no
// new channel socket is made (a socket made while the process ends would be left behind).
// Shutting down cannot be undone, so it happens in a child process.
TEST(Runtime, ShutDownRemovesOwnedFilesAndRefusesNewOnes) {
  RuntimeDirScope rt;
  std::string owned = rt.dir() + "/owned", late = rt.dir() + "/late";
  ASSERT_TRUE(Runtime::prepare(nullptr));
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    std::ofstream(owned) << "o";
    Runtime::ownFile(owned);
    Runtime::shutDown();
    std::ofstream(late) << "l";
    Runtime::ownFile(late);
    bool allowed = Runtime::MakingFile().allowed();
    bool refused = !allowed && !Libraries::Service::Multiplex::create(String::create("late")) &&
                   Error::get() == ESHUTDOWN;
    _exit(refused ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_FALSE(std::filesystem::exists(owned));
  EXPECT_FALSE(std::filesystem::exists(late));
  std::error_code ignored;
  EXPECT_TRUE(std::filesystem::is_empty(rt.dir() + "/chn", ignored)) << "no socket was made";
}

}  // namespace
