// Processes, programs and shared memory of the hosted platform, on a private runtime directory.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/error.h"
#include "platform/proc.h"
#include "platform/runtime.h"

namespace {

Ref<String> str(const std::string& text) { return String::create(text.c_str()); }

std::string readAll(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

void writeFile(const std::string& path, const std::string& text, mode_t mode = 0600) {
  std::ofstream(path) << text;
  chmod(path.c_str(), mode);
}

char procState(uint64_t pid) {
  std::string stat = readAll("/proc/" + std::to_string(pid) + "/stat");
  size_t close = stat.rfind(')');
  return close == std::string::npos || close + 2 >= stat.size() ? '?' : stat[close + 2];
}

bool waitForState(uint64_t pid, bool stopped) {
  for (int i = 0; i < 500; ++i) {
    if ((procState(pid) == 'T') == stopped) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}

class ProcTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char dir[] = "/tmp/posix-proc-test-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    rt_ = dir;
    setenv("POSIX_RUNTIME_DIR", rt_.c_str(), 1);
    std::string why;
    ASSERT_TRUE(Runtime::prepare(&why)) << why;
  }
  void TearDown() override {
    std::filesystem::remove_all(rt_);
    unsetenv("POSIX_RUNTIME_DIR");
  }

  // Starts `args` (args[0] is the path) with the given environment pairs.
  uint64_t start(const std::vector<std::string>& args,
                 const std::vector<std::pair<std::string, std::string>>& vars = {},
                 uint32_t flags = 0) {
    Ref<Env> env = Env::create();
    for (const auto& [name, value] : vars) env->set(str(name), str(value));
    std::vector<Ref<String>> argv;
    for (const std::string& a : args) argv.push_back(str(a));
    return Binary::create(argv[0], flags, argv.data(), argv.size(), env, 0);
  }

  std::string rt_;
};

TEST_F(ProcTest, InfoOfSelfParsesNameAfterTheLastParenthesis) {
  char oldName[16] = {};
  prctl(PR_GET_NAME, oldName);
  prctl(PR_SET_NAME, "a) b (c");
  std::thread second([] { std::this_thread::sleep_for(std::chrono::milliseconds(300)); });
  Ref<ProcInfo> info = Proc::info(Proc::current());
  Ref<String> name = Proc::name();
  prctl(PR_SET_NAME, oldName);
  second.join();

  ASSERT_TRUE(info);
  EXPECT_EQ(Proc::current(), static_cast<uint64_t>(getpid()));
  EXPECT_STREQ(info->name()->c_str(), "a) b (c");
  EXPECT_STREQ(name->c_str(), "a) b (c");
  EXPECT_EQ(info->pid(), Proc::current());
  EXPECT_EQ(info->parentPid(), static_cast<uint64_t>(getppid()));
  EXPECT_EQ(info->level(), 2u);
  EXPECT_GE(info->threadCount(), 2u);
}

TEST_F(ProcTest, InfoStopContinueAndKillOfAChild) {
  uint64_t pid = start({"/bin/sleep", "30"});
  ASSERT_NE(pid, 0u);
  Ref<ProcInfo> info = Proc::info(pid);
  ASSERT_TRUE(info);
  EXPECT_STREQ(info->name()->c_str(), "sleep");
  EXPECT_EQ(info->parentPid(), Proc::current());
  EXPECT_EQ(info->level(), getuid() == 0 ? 1u : 0u);
  EXPECT_EQ(info->threadCount(), 1u);

  EXPECT_TRUE(Proc::stop(pid));
  EXPECT_TRUE(waitForState(pid, true));
  EXPECT_TRUE(Proc::cont(pid));
  EXPECT_TRUE(waitForState(pid, false));
  EXPECT_TRUE(Proc::terminate(pid));
  EXPECT_EQ(Proc::wait(), 128u + SIGKILL);
  EXPECT_FALSE(Proc::info(pid));  // reaped: /proc/<pid> is gone
  EXPECT_FALSE(Proc::terminate(pid));
  EXPECT_EQ(Error::get(), static_cast<uint32_t>(ESRCH));
}

TEST_F(ProcTest, PidsThatWouldSignalGroupsAreRefused) {
  const uint64_t zeroAsPid = uint64_t{1} << 32;  // truncates to pid 0
  EXPECT_FALSE(Proc::info(0));
  EXPECT_FALSE(Proc::info(zeroAsPid));
  EXPECT_FALSE(Proc::info(UINT64_MAX));
  EXPECT_FALSE(Proc::cont(UINT64_MAX));  // -1 would reach every process we may signal
  EXPECT_FALSE(Proc::cont(uint64_t{INT32_MAX} + 1));

  // A guard that lets one through kills the child's own group (the child alone) or the child.
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    setpgid(0, 0);
    uint64_t self = static_cast<uint64_t>(getpid());
    bool any = Proc::terminate(0) || Proc::stop(0) || Proc::terminate(zeroAsPid) ||
               Proc::terminate(zeroAsPid + self) || Proc::stop(zeroAsPid + self);
    _exit(any ? 1 : 0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
}

TEST_F(ProcTest, WaitAnswersExitCodesAndSignalsOfThisThreadsProgram) {
  ASSERT_NE(start({"/bin/sh", "-c", "exit 7"}), 0u);
  EXPECT_EQ(Proc::wait(), 7u);
  EXPECT_EQ(Proc::wait(), 0xFFFFFFFFu);  // already collected

  ASSERT_NE(start({"/bin/sh", "-c", "kill -9 $$"}), 0u);
  uint32_t elsewhere = 0;
  std::thread([&] { elsewhere = Proc::wait(); }).join();
  EXPECT_EQ(elsewhere, 0xFFFFFFFFu);  // that thread started nothing
  EXPECT_EQ(Proc::wait(), 137u);
}

TEST_F(ProcTest, ChildStartsWithDefaultSignalsAndAnEmptyMask) {
  struct sigaction ignore = {};
  struct sigaction old = {};
  ignore.sa_handler = SIG_IGN;
  sigaction(SIGTERM, &ignore, &old);
  sigset_t term;
  sigset_t oldMask;
  sigemptyset(&term);
  sigaddset(&term, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &term, &oldMask);
  uint64_t pid = start({"/bin/sh", "-c", "kill -TERM $$; exit 3"});
  pthread_sigmask(SIG_SETMASK, &oldMask, nullptr);
  sigaction(SIGTERM, &old, nullptr);
  ASSERT_NE(pid, 0u);
  EXPECT_EQ(Proc::wait(), 128u + SIGTERM);
}

TEST_F(ProcTest, MissingProgramsAndFilesFailWithTheirErrno) {
  Error::set(0);
  EXPECT_EQ(start({rt_ + "/no-such-program"}), 0u);
  EXPECT_EQ(Error::get(), static_cast<uint32_t>(ENOENT));

  // The standard files are opened, never created.
  Error::set(0);
  std::string missing = rt_ + "/no-such-output";
  EXPECT_EQ(start({"/bin/true"}, {{"POSIX_STDOUT", missing}}), 0u);
  EXPECT_EQ(Error::get(), static_cast<uint32_t>(ENOENT));
  EXPECT_FALSE(std::filesystem::exists(missing));
}

TEST_F(ProcTest, PathSearchUsesTheProgramsOwnPath) {
  // Earlier PATH entries hold a non-executable file and a directory of the same name.
  for (const char* d : {"/plain", "/dir", "/good", "/dir/posix-test-prog"})
    mkdir((rt_ + d).c_str(), 0700);
  writeFile(rt_ + "/plain/posix-test-prog", "#!/bin/sh\nexit 1\n", 0600);
  writeFile(rt_ + "/good/posix-test-prog", "#!/bin/sh\nexit 42\n", 0700);
  std::string path = rt_ + "/plain:" + rt_ + "/dir:" + rt_ + "/good";

  ASSERT_NE(start({"posix-test-prog"}, {{"PATH", path}}, Binary::kSearchPath), 0u);
  EXPECT_EQ(Proc::wait(), 42u);

  Error::set(0);
  EXPECT_EQ(start({"posix-test-prog"}, {{"PATH", path}}, 0), 0u);  // no search asked for
  EXPECT_EQ(Error::get(), static_cast<uint32_t>(ENOENT));

  // Without a PATH of its own the program is looked up along the server's.
  ASSERT_NE(start({"sh", "-c", "exit 5"}, {}, Binary::kSearchPath), 0u);
  EXPECT_EQ(Proc::wait(), 5u);
}

TEST_F(ProcTest, EnvironmentIsTheEnvsPairsPlusTheRuntimeDirectory) {
  Ref<Env> env = Env::create();
  env->set(str("FOO"), str("first"));
  env->set(str("BAR"), str("bar"));
  env->set(str("FOO"), str("second"));
  EXPECT_EQ(env->count(), 2u);
  EXPECT_STREQ(env->get("FOO")->c_str(), "second");
  EXPECT_FALSE(env->get("BAZ"));

  std::string out = rt_ + "/out";
  writeFile(out, "");
  // env itself prints the environment exactly as it was handed over.
  ASSERT_NE(start({"/usr/bin/env"}, {{"FOO", "first"},
                                     {"POSIX_STDIN", "/dev/null"},
                                     {"POSIX_RUNTIME_DIR", "/elsewhere"},
                                     {"POSIX_STDOUT", out},
                                     {"POSIX_STDERR", "/dev/null"},
                                     {"FOO", "second"}}),
            0u);
  EXPECT_EQ(Proc::wait(), 0u);
  EXPECT_EQ(readAll(out), "FOO=second\nPOSIX_RUNTIME_DIR=" + rt_ + "\n");
}

TEST_F(ProcTest, StandardFilesAreTheNamedHostFiles) {
  std::string in = rt_ + "/in", out = rt_ + "/out", err = rt_ + "/err";
  writeFile(in, "from-stdin\n");
  writeFile(out, "");
  writeFile(err, "");
  ASSERT_NE(start({"/bin/sh", "-c", "cat; echo oops >&2"},
                  {{"PATH", "/usr/bin:/bin"},
                   {"POSIX_STDIN", in},
                   {"POSIX_STDOUT", out},
                   {"POSIX_STDERR", err}}),
            0u);
  EXPECT_EQ(Proc::wait(), 0u);
  EXPECT_EQ(readAll(out), "from-stdin\n");
  EXPECT_EQ(readAll(err), "oops\n");

  // Without POSIX_STDIN the program reads /dev/null.
  writeFile(out, "");
  ASSERT_NE(start({"/bin/sh", "-c", "readlink /proc/self/fd/0"},
                  {{"PATH", "/usr/bin:/bin"}, {"POSIX_STDOUT", out}}),
            0u);
  EXPECT_EQ(Proc::wait(), 0u);
  EXPECT_EQ(readAll(out), "/dev/null\n");
}

TEST_F(ProcTest, SharedMemoryObjectsLiveInTheRuntimeDirectory) {
  Ref<SharedMemory> made = ShMem::create(4096);
  ASSERT_TRUE(made);
  ShMemID id = made->id();
  EXPECT_NE(id.id, 0u);
  EXPECT_EQ(id.size, 4096u);
  char name[32];
  snprintf(name, sizeof name, "/shm/%016" PRIx64, id.id);
  struct stat st;
  ASSERT_EQ(stat((rt_ + name).c_str(), &st), 0) << name;
  EXPECT_EQ(st.st_size, 4096);
  EXPECT_EQ(st.st_mode & 0777, 0600u);

  Ref<SharedMemory> other = ShMem::create(16);
  ASSERT_TRUE(other);
  EXPECT_NE(other->id().id, id.id);

  Ref<SharedMemory> opened = ShMem::open(id);
  ASSERT_TRUE(opened);
  EXPECT_EQ(opened->id().id, id.id);
  EXPECT_TRUE(opened->grant(1));

  EXPECT_FALSE(ShMem::open(ShMemID{0, 4096}));
  unlink((rt_ + name).c_str());
  Error::set(0);
  EXPECT_FALSE(ShMem::open(id));
  EXPECT_EQ(Error::get(), static_cast<uint32_t>(ENOENT));
}

}  // namespace
