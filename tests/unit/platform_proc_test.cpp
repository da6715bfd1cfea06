// Processes, programs and shared memory of the hosted platform, on a private runtime directory.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "platform/error.h"
#include "platform/proc.h"
#include "platform_chn_support.h"

namespace {

using Vars = std::vector<std::pair<std::string, std::string>>;

Ref<String> str(const std::string& text) { return String::create(text.c_str()); }

std::string readAll(const std::string& path) {
  std::stringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

void writeFile(const std::string& path, const std::string& text, mode_t mode = 0600) {
  std::ofstream(path) << text;
  chmod(path.c_str(), mode);
}

class ProcTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string why;
    ASSERT_TRUE(Runtime::prepare(&why)) << why;
  }

  // Starts `args` (args[0] is the path) with the given environment pairs.
  uint64_t start(const std::vector<std::string>& args, const Vars& vars = {}, uint32_t flags = 0) {
    Ref<Env> env = Env::create();
    for (const auto& [name, value] : vars) env->set(str(name), str(value));
    std::vector<Ref<String>> argv;
    for (const std::string& a : args) argv.push_back(str(a));
    return Binary::create(argv[0], flags, argv.data(), argv.size(), env, 0);
  }
  // Starts `args` and answers how it ended, or ~0 when it did not start.
  uint32_t run(const std::vector<std::string>& args, const Vars& vars = {}, uint32_t flags = 0) {
    return start(args, vars, flags) ? Proc::wait() : ~0u;
  }

  chntest::RuntimeDirScope scope;
  const std::string rt_ = scope.dir();
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
  EXPECT_EQ(info->parentPid(), static_cast<uint64_t>(getppid()));
  EXPECT_EQ(info->level(), 2u);
  EXPECT_GE(info->threadCount(), 2u);
}

// A signal goes to the identity only; a program that has ended keeps its pid until collected.
TEST_F(ProcTest, InfoIdentityAndSignalsOfAChild) {
  uint64_t pid = start({"/bin/sleep", "30"});
  ASSERT_NE(pid, 0u);
  Ref<ProcInfo> info = Proc::info(pid);
  ASSERT_TRUE(info);
  EXPECT_STREQ(info->name()->c_str(), "sleep");
  EXPECT_EQ(info->parentPid(), Proc::current());
  EXPECT_EQ(info->level(), Proc::levelOfUser(Proc::uid()));
  EXPECT_EQ(info->threadCount(), 1u);

  ProcIdentity child = Proc::identity(pid);
  ASSERT_TRUE(child);
  EXPECT_FALSE(Proc::send({pid, child.startTime + 1}, HostSignal::Kill)) << "another process";
  EXPECT_TRUE(Proc::send(child, HostSignal::Kill));
  EXPECT_EQ(Proc::awaitEnd(), 128u + SIGKILL);
  EXPECT_EQ(Proc::identity(pid), child) << "ended, not collected";
  EXPECT_EQ(Proc::wait(), 128u + SIGKILL);
  EXPECT_FALSE(Proc::info(pid));
  EXPECT_FALSE(Proc::send(child, HostSignal::Kill));
  EXPECT_EQ(Error::get(), static_cast<uint32_t>(ESRCH));
}

// Numbers that kill() would take for groups or every process name no process; nor does this
// process's own identity take a signal.
TEST_F(ProcTest, PidsThatWouldNameGroupsAreNoProcessAndNothingSignalsItself) {
  const uint64_t zeroAsPid = uint64_t{1} << 32;  // truncates to pid 0
  const uint64_t self = Proc::current();
  for (uint64_t pid : {uint64_t{0}, zeroAsPid, zeroAsPid + self, UINT64_MAX, uint64_t{INT32_MAX} + 1}) {
    EXPECT_FALSE(Proc::info(pid)) << pid;
    EXPECT_FALSE(Proc::identity(pid)) << pid;
  }
  EXPECT_FALSE(Proc::send(Proc::identity(self), HostSignal::Stop));
  EXPECT_EQ(Error::get(), static_cast<uint32_t>(EPERM));
}

// Signals the server ignores or blocks are not inherited: the child dies of its own SIGTERM.
TEST_F(ProcTest, WaitAnswersExitCodesAndSignalsOfThisThreadsProgramsOnly) {
  EXPECT_EQ(run({"/bin/sh", "-c", "exit 7"}), 7u);
  EXPECT_EQ(Proc::wait(), 0xFFFFFFFFu);  // already collected

  ASSERT_NE(start({"/bin/sh", "-c", "kill -9 $$"}), 0u);
  uint32_t elsewhere = 0;
  std::thread([&] { elsewhere = Proc::wait(); }).join();
  EXPECT_EQ(elsewhere, 0xFFFFFFFFu);  // that thread started nothing
  EXPECT_EQ(Proc::wait(), 137u);

  struct sigaction ignore = {}, old = {};
  ignore.sa_handler = SIG_IGN;
  sigaction(SIGTERM, &ignore, &old);
  sigset_t term, oldMask;
  sigemptyset(&term);
  sigaddset(&term, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &term, &oldMask);
  uint64_t pid = start({"/bin/sh", "-c", "kill -TERM $$; exit 3"});
  pthread_sigmask(SIG_SETMASK, &oldMask, nullptr);
  sigaction(SIGTERM, &old, nullptr);
  ASSERT_NE(pid, 0u);
  EXPECT_EQ(Proc::wait(), 128u + SIGTERM);
}

// Earlier PATH entries hold a non-executable file and a directory of the program's name; the
// standard files are opened, never created.
TEST_F(ProcTest, ProgramsAreFoundAlongTheirOwnPathAndFailuresCarryTheirErrno) {
  for (const char* d : {"/plain", "/dir", "/good", "/dir/posix-test-prog"})
    mkdir((rt_ + d).c_str(), 0700);
  writeFile(rt_ + "/plain/posix-test-prog", "#!/bin/sh\nexit 1\n", 0600);
  writeFile(rt_ + "/good/posix-test-prog", "#!/bin/sh\nexit 42\n", 0700);
  const Vars path = {{"PATH", rt_ + "/plain:" + rt_ + "/dir:" + rt_ + "/good"}};
  EXPECT_EQ(run({"posix-test-prog"}, path, Binary::kSearchPath), 42u);
  // Without a PATH of its own the program is looked up along the server's.
  EXPECT_EQ(run({"sh", "-c", "exit 5"}, {}, Binary::kSearchPath), 5u);

  struct {
    const char* why;
    std::vector<std::string> args;
    Vars vars;
  } failing[] = {
      {"no such program", {rt_ + "/no-such-program"}, {}},
      {"no search asked for", {"posix-test-prog"}, path},
      {"missing standard output", {"/bin/true"}, {{"POSIX_STDOUT", rt_ + "/no-such-output"}}},
  };
  for (auto& row : failing) {
    Error::set(0);
    EXPECT_EQ(start(row.args, row.vars), 0u) << row.why;
    EXPECT_EQ(Error::get(), static_cast<uint32_t>(ENOENT)) << row.why;
  }
  EXPECT_FALSE(std::filesystem::exists(rt_ + "/no-such-output"));
}

// The program sees exactly the Env's pairs (the last value of a name wins) and the runtime
// directory, and the host files named for its standard files (/dev/null for a missing input).
TEST_F(ProcTest, EnvironmentAndStandardFilesAreTheOnesHandedOver) {
  std::string in = rt_ + "/in", out = rt_ + "/out", err = rt_ + "/err";
  writeFile(in, "from-stdin\n");
  writeFile(out, "");
  EXPECT_EQ(run({"/usr/bin/env"}, {{"FOO", "first"},
                                   {"POSIX_STDIN", "/dev/null"},
                                   {"POSIX_RUNTIME_DIR", "/elsewhere"},
                                   {"POSIX_STDOUT", out},
                                   {"POSIX_STDERR", "/dev/null"},
                                   {"FOO", "second"}}),
            0u);
  EXPECT_EQ(readAll(out), "FOO=second\nPOSIX_RUNTIME_DIR=" + rt_ + "\n");

  writeFile(out, "");
  writeFile(err, "");
  const Vars files = {{"PATH", "/usr/bin:/bin"}, {"POSIX_STDIN", in}, {"POSIX_STDOUT", out},
                      {"POSIX_STDERR", err}};
  EXPECT_EQ(run({"/bin/sh", "-c", "cat; echo oops >&2"}, files), 0u);
  EXPECT_EQ(readAll(out), "from-stdin\n");
  EXPECT_EQ(readAll(err), "oops\n");

  writeFile(out, "");
  EXPECT_EQ(run({"/bin/sh", "-c", "readlink /proc/self/fd/0"},
                {{"PATH", "/usr/bin:/bin"}, {"POSIX_STDOUT", out}}),
            0u);
  EXPECT_EQ(readAll(out), "/dev/null\n");
}

TEST_F(ProcTest, SharedMemoryObjectsLiveInTheRuntimeDirectory) {
  Ref<SharedMemory> made = ShMem::create(4096);
  ASSERT_TRUE(made);
  ShMemID id = made->id();
  EXPECT_EQ(id.size, 4096u);
  char name[32];
  snprintf(name, sizeof name, "/shm/%016" PRIx64, id.id);
  struct stat st;
  ASSERT_EQ(stat((rt_ + name).c_str(), &st), 0) << name;
  EXPECT_EQ(st.st_size, 4096);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  Ref<SharedMemory> other = ShMem::create(16);
  EXPECT_TRUE(other && other->id().id != id.id);

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
