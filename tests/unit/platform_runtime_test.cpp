// The runtime directory, owned files, device nodes and the root directory's bindings.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <iterator>

#include "platform/devnode.h"
#include "platform/error.h"
#include "platform/multiplex.h"
#include "platform_chn_support.h"

using namespace chntest;
using Services::Filesystem::Client::Directory;

namespace {

Bytes readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

bool exists(const std::string& path) {
  struct stat st;
  return ::lstat(path.c_str(), &st) == 0;
}

TEST(Runtime, DirectoryFollowsTheEnvironmentRule) {
  EnvScope own("POSIX_RUNTIME_DIR", "/somewhere/own");
  EnvScope xdg("XDG_RUNTIME_DIR", "/run/user/77");
  EXPECT_EQ(Runtime::dir(), "/somewhere/own");
  EXPECT_EQ(Runtime::path("chn/x"), "/somewhere/own/chn/x");
  {
    EnvScope unset("POSIX_RUNTIME_DIR", nullptr);
    EXPECT_EQ(Runtime::dir(), "/run/user/77/posix");
    EnvScope noXdg("XDG_RUNTIME_DIR", nullptr);
    EXPECT_EQ(Runtime::dir(), "/tmp/posix-" + std::to_string(::getuid()));
  }
}

TEST(Runtime, PrepareMakesAPrivateTree) {
  RuntimeDirScope base;
  std::string rt = base.dir() + "/a/b/rt";
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

TEST(Runtime, PrepareRefusesAnUnsafeDirectory) {
  RuntimeDirScope base;
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

TEST(Runtime, OwnedFilesAreRemovedAndDisownedOnesKept) {
  RuntimeDirScope rt;
  std::string kept = rt.dir() + "/kept", gone = rt.dir() + "/gone";
  std::ofstream(kept) << "k";
  std::ofstream(gone) << "g";
  Runtime::ownFile(kept);
  Runtime::ownFile(gone);
  Runtime::ownFile(gone);  // owning twice is still one entry
  Runtime::disownFile(kept);
  Runtime::removeOwnedFiles();
  EXPECT_TRUE(exists(kept));
  EXPECT_FALSE(exists(gone));
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
  EXPECT_FALSE(exists(owned));
  EXPECT_FALSE(exists(late));
  std::error_code ignored;
  EXPECT_TRUE(std::filesystem::is_empty(rt.dir() + "/chn", ignored)) << "no socket was made";
}

TEST(DeviceNodes, RecordIsCountThenSixLittleEndianWords) {
  Ref<DeviceNode> node = DeviceNode::create(0x880007, 0x0102030405060708ull, 3, 0, 32, 0);
  ASSERT_TRUE(node->add(1, 2, 3, 4, 5, 6));
  Bytes expected;
  putU32(expected, 2);
  for (uint64_t v : {0x880007ull, 0x0102030405060708ull, 3ull, 0ull, 32ull, 0ull, 1ull, 2ull,
                     3ull, 4ull, 5ull, 6ull})
    putU64(expected, v);
  EXPECT_EQ(node->record(), expected);
  EXPECT_EQ(DeviceNode::create()->record(), Bytes({0, 0, 0, 0}));
}

TEST(DeviceNodes, RegisteredNodeIsAFileUnderDevAndTheRootBindsToIt) {
  RuntimeDirScope rt;
  Ref<DeviceNode> node = DeviceNode::create(0x880007, 42, 0, 0, 32, 0);
  Ref<DeviceServer> devices = DeviceServer::create();
  ASSERT_TRUE(devices->registerNode(String::create("/tmp/.PosixService"), node));
  std::string file = rt.dir() + "/dev/tmp/.PosixService";
  EXPECT_EQ(readFile(file), node->record());
  EXPECT_FALSE(devices->registerNode(String::create("/tmp/../../escape"), node));
  EXPECT_FALSE(devices->registerNode(String::create("relative"), node));

  Ref<String> prefix = DeviceServer::nodePrefix();
  EXPECT_EQ(std::string(prefix->c_str()), rt.dir() + "/dev/");
  Ref<Directory> root = Directory::open("/", 51);
  ASSERT_TRUE(root);
  EXPECT_FALSE(Directory::open("/missing", 51));
  ASSERT_TRUE(root->bind(String::create("tmp"), String::create("/nowhere")));
  ASSERT_TRUE(root->bind(String::create("tmp"), prefix->append("tmp")));  // replaces the old link
  EXPECT_EQ(readFile(rt.dir() + "/root/tmp/.PosixService"), node->record());
  EXPECT_TRUE(Directory::open("/tmp", 51));

  // Shutting down removes what was published.
  Runtime::removeOwnedFiles();
  EXPECT_FALSE(exists(file));
  EXPECT_FALSE(exists(rt.dir() + "/root/tmp"));
}

}  // namespace
