// Processes and programs of the hosted platform where only a unit test reaches: a name that
// holds parentheses, pids that would signal groups, the PATH search and the environment handed
// over. (Stop, continue and kill, exit codes and signal dispositions, waits of concurrent
// programs, standard files and shared memory: the behaviour tests.)
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <string>
#include <vector>

#include "platform/error.h"
#include "platform/proc.h"
#include "platform/binary.h"
#include "platform_chn_support.h"

namespace {

using Vars = std::vector<std::pair<std::string, std::string>>;

Ref<String> str(const std::string& text) { return String::create(text.c_str()); }

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
    return Binary::create(argv[0], flags, argv.data(), argv.size(), env, 0, Proc::current(),
                          &started_);
  }
  // Starts `args` and answers how it ended, or ~0 when it did not start.
  uint32_t run(const std::vector<std::string>& args, const Vars& vars = {}, uint32_t flags = 0) {
    return start(args, vars, flags) ? Proc::wait(started_) : ~0u;
  }

  chntest::RuntimeDirScope scope;
  const std::string rt_ = scope.dir();
  StartedProgram started_;  // the program start() started last
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

  // The identity of a started program comes from its start (the clock read around it, checked
  // against /proc the first time, or its pidfd); it agrees with what /proc tells of the pid.
  ProcIdentity child = Proc::identity(started_);
  ASSERT_TRUE(child);
  EXPECT_EQ(Proc::identity(pid), child);
  EXPECT_FALSE(Proc::send({pid, child.serial + 1}, HostSignal::Kill)) << "another process";
  EXPECT_TRUE(Proc::send(child, HostSignal::Kill));
  EXPECT_EQ(Proc::awaitEnd(started_), 128u + SIGKILL);
  EXPECT_EQ(Proc::identity(pid), child) << "ended, not collected";
  EXPECT_EQ(Proc::wait(started_), 128u + SIGKILL);
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

// A name keeps the place where it was first set and takes the value set last, however many
// names the index has grown for.
TEST(EnvTest, NamesKeepTheirFirstPlaceAndTheirLastValue) {
  Ref<Env> env = Env::create();
  env->reserve(3);
  auto name = [](int i) { return std::string("N").append(std::to_string(i)); };
  for (int i = 0; i < 5000; ++i) env->set(str(name(i)), str(std::to_string(i)));
  env->set(str("N1"), str("last"));
  env->set(str(""), nullptr);
  ASSERT_EQ(env->count(), 5001u);
  EXPECT_EQ(std::string(env->nameAt(1)->c_str()) + env->valueAt(1)->c_str(), "N1last");
  EXPECT_STREQ(env->text(1), "N1=last");  // what the program's environment holds
  EXPECT_STREQ(env->nameAt(5000)->c_str(), "");
  for (int i = 2; i < 5000; ++i) ASSERT_EQ(env->get(name(i).c_str())->c_str(), std::to_string(i));
  EXPECT_FALSE(env->get("N5000"));
}

}  // namespace
