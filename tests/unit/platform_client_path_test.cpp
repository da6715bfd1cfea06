// ClientPath against the host's own open: on a tree of links, the same file or the same error
// for every path; and /proc read for another process, with this process's directory refused.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <string>
#include <thread>

#include "platform/client_path.h"

namespace {

// The file an open answered ("dev:ino"), or "errno N".
std::string outcome(int fd, int err) {
  if (fd < 0) return "errno " + std::to_string(err);
  struct stat st;
  std::string what =
      fstat(fd, &st) == 0 ? std::to_string(st.st_dev) + ":" + std::to_string(st.st_ino) : "?";
  close(fd);
  return what;
}

std::string ours(int dir, const std::string& path, int flags, pid_t pid) {
  int fd = ClientPath::open(dir, path.c_str(), flags, 0600, static_cast<uint64_t>(pid));
  return outcome(fd, errno);
}

std::string host(int dir, const std::string& path, int flags) {
  int fd = openat(dir, path.c_str(), flags | O_CLOEXEC, 0600);
  return outcome(fd, errno);
}

class ClientPathTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char name[] = "/tmp/px-client-path-XXXXXX";
    ASSERT_NE(mkdtemp(name), nullptr);
    root_ = name;
    dir_ = open(root_.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  }
  void TearDown() override {
    close(dir_);
    std::string cmd = "rm -rf " + root_;
    ASSERT_EQ(system(cmd.c_str()), 0);
  }
  void link(const std::string& target, const std::string& name) {
    ASSERT_EQ(symlinkat(target.c_str(), dir_, name.c_str()), 0) << name;
  }

  std::string root_;
  int dir_ = -1;
};

TEST_F(ClientPathTest, OpensWhatTheHostOpensOrFailsAsItDoes) {
  ASSERT_EQ(mkdirat(dir_, "d", 0700), 0);
  ASSERT_EQ(mkdirat(dir_, "d/sub", 0700), 0);
  close(openat(dir_, "d/f", O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
  link(root_ + "/d", "abs");
  link("d", "rel");
  link("d/sub", "down");
  link("chain2", "chain1");
  link("rel", "chain2");
  link("d/f", "file");
  link("nowhere", "dangling");
  link("d/made", "dangling2");
  link("loop2", "loop1");
  link("loop1", "loop2");
  link("../d/./sub/..", "d/sub/back");
  struct Case {
    std::string path;
    int flags;
  };
  const Case cases[] = {
      {"d/f", O_RDONLY},           {"rel/f", O_RDONLY},          {"abs/f", O_RDWR},
      {"abs/sub/../f", O_RDONLY},  {"down/../f", O_RDONLY},      {"chain1/sub/back/f", O_RDONLY},
      {"file", O_RDONLY},          {"file", O_NOFOLLOW},         {"file", O_PATH | O_NOFOLLOW},
      {"file/", O_RDONLY},         {"d/f/x", O_RDONLY},          {"rel/", O_RDONLY | O_DIRECTORY},
      {"rel", O_PATH},             {"file", O_DIRECTORY},        {"missing", O_RDONLY},
      {"missing/", O_CREAT | O_WRONLY}, {"missing/f", O_CREAT | O_WRONLY}, {"d/", O_CREAT | O_WRONLY},
      {"dangling", O_RDONLY},
      {"dangling", O_CREAT | O_EXCL | O_WRONLY}, {"dangling", O_NOFOLLOW},
      {"dangling2", O_CREAT | O_WRONLY}, {"dangling2", O_RDONLY}, {"loop1", O_RDONLY},
      {"loop1/x", O_RDONLY},       {"rel/../rel/./sub/", O_RDONLY}, {".", O_RDONLY},
      {"d", O_TMPFILE | O_WRONLY}, {"", O_RDONLY},
  };
  for (const Case& k : cases) {
    SCOPED_TRACE(k.path + " flags " + std::to_string(k.flags));
    // Ours first: a file it creates must be the one the host then opens.
    std::string got = ours(dir_, k.path, k.flags, getpid());
    if ((k.flags & O_TMPFILE) == O_TMPFILE) {
      EXPECT_EQ(got.rfind("errno", 0), std::string::npos) << got;
      continue;
    }
    EXPECT_EQ(got, host(dir_, k.path, k.flags));
    if (k.path.empty()) continue;
    std::string absolute = root_ + "/" + k.path;
    EXPECT_EQ(ours(AT_FDCWD, absolute, k.flags, getpid()), host(AT_FDCWD, absolute, k.flags));
  }
  struct stat st;
  EXPECT_EQ(fstatat(dir_, "d/made", &st, 0), 0) << "O_CREAT through a dangling link made nothing";
}

TEST_F(ClientPathTest, ProcNamesTheClientAndRefusesThisProcess) {
  // The client: a child whose descriptor 50 is f, whose input is the tree's directory and
  // whose working directory is this process's /proc directory.
  close(openat(dir_, "f", O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
  const std::string parentProc = "/proc/" + std::to_string(getpid());
  int sync[2];
  ASSERT_EQ(pipe(sync), 0);
  pid_t child = fork();
  if (child == 0) {
    close(sync[0]);
    int f = openat(dir_, "f", O_RDONLY);
    dup2(f, 50);
    dup2(dir_, 0);
    if (chdir(parentProc.c_str()) != 0) _exit(1);
    close(sync[1]);
    pause();
    _exit(0);
  }
  close(sync[1]);
  char c;
  ASSERT_EQ(read(sync[0], &c, 1), 0);
  close(sync[0]);
  const std::string me = "/proc/" + std::to_string(child);
  const std::string f = host(dir_, "f", O_RDONLY);
  link("/proc/self", "me");
  EXPECT_EQ(ours(AT_FDCWD, "/proc/self/fd/50", O_RDONLY, child), f);
  EXPECT_EQ(ours(AT_FDCWD, "/proc/./self/../self/fd/50", O_RDONLY, child), f);
  EXPECT_EQ(ours(AT_FDCWD, "/dev/fd/50", O_RDONLY, child), f);
  EXPECT_EQ(ours(dir_, "me/fd/50", O_RDONLY, child), f);
  EXPECT_EQ(ours(AT_FDCWD, "/dev/stdin", O_PATH, child), host(dir_, ".", O_PATH));
  EXPECT_EQ(ours(AT_FDCWD, "/proc/thread-self", O_PATH, child),
            host(AT_FDCWD, me + "/task/" + std::to_string(child), O_PATH));
  // This process and a thread of it, under any name: refused.
  std::atomic<pid_t> tid{0};
  std::atomic<bool> done{false};
  std::thread other([&] {
    tid = gettid();
    while (!done) usleep(1000);
  });
  while (tid == 0) usleep(1000);
  const std::string pid = std::to_string(getpid());
  for (const std::string& path :
       {parentProc + "/maps", "/proc/./" + pid + "/mem", me + "/cwd/maps", me + "/cwd",
        me + "/root/proc/" + pid + "/status", "/proc/" + std::to_string(tid.load()) + "/status",
        me + "/root/proc/" + std::to_string(tid.load())}) {
    SCOPED_TRACE(path);
    EXPECT_EQ(ours(AT_FDCWD, path, O_RDONLY, child), "errno " + std::to_string(EACCES));
  }
  // A client whose /proc/self would be this process, or who has none.
  EXPECT_EQ(ours(AT_FDCWD, "/proc/self/status", O_RDONLY, getpid()),
            "errno " + std::to_string(EACCES));
  EXPECT_EQ(ours(AT_FDCWD, "/dev/stdin", O_RDONLY, 0), "errno " + std::to_string(EACCES));
  done = true;
  other.join();
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
}

}  // namespace
