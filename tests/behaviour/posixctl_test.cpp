// posixctl: start, status and stop of a background server, run with its exit code and standard
// files passed through (pipes, and regular files shared with the shell), and its usage errors.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <regex>

#include "command_runner.h"
#include "server_fixture.h"

namespace {

class PosixctlTest : public ServerFixture {
 protected:
  PosixctlTest() { startServerInSetUp_ = false; }

  // posixctl finds the server through POSIX_SERVER_BIN.
  void SetUp() override {
    ServerFixture::SetUp();
    setenv("POSIX_SERVER_BIN", POSIX_SERVER_BINARY, 1);
  }
  // posixctl run of a shell that prints its pid, then sleeps: posixctl's pid and the program's.
  std::pair<pid_t, std::string> runSleeper() {
    int out[2];
    EXPECT_EQ(pipe(out), 0);
    pid_t run = startCommand({POSIXCTL_BINARY, "run", "/bin/sh", "-c", "echo $$; exec sleep 30"}, out[1]);
    close(out[1]);
    char text[32] = {};
    EXPECT_GT(read(out[0], text, sizeof text - 1), 0);
    close(out[0]);
    return {run, std::to_string(std::atol(text))};
  }
};

TEST_F(PosixctlTest, StartStatusStop) {
  unsetenv("POSIX_SERVER_BIN");  // found beside posixctl, in ../server
  CommandResult r = ctl({"status"});
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_EQ(r.out, "not running\n");

  // Started with a descriptor it should not pass on: neither the server nor what it starts
  // holds it.
  std::string inherited = hostFile("inherited", "x");
  r = runCommand({"/bin/sh", "-c", "exec 7<\"$1\" && exec \"$0\" start", POSIXCTL_BINARY,
                  inherited});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  int pid = std::atoi(hostRead(path("server.pid")).c_str());
  ASSERT_GT(pid, 0);
  std::error_code ec;
  const std::string fds = "/proc/" + std::to_string(pid) + "/fd";
  for (const auto& fd : std::filesystem::directory_iterator(fds, ec))
    EXPECT_NE(std::filesystem::read_symlink(fd.path(), ec), inherited) << fd.path();
  r = ctl({"run", "/bin/sh", "-c", "ls /proc/$$/fd"});
  EXPECT_EQ(r.out, "0\n1\n2\n") << r.err;

  r = ctl({"status"});
  EXPECT_EQ(r.exitCode, 0);
  EXPECT_EQ(r.out, "running (pid " + std::to_string(pid) + ")\n");
  r = ctl({"start"});  // one answers already
  EXPECT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(r.out, "already running (pid " + std::to_string(pid) + ")\n");
  EXPECT_EQ(serverLog().find("Entry created"), std::string::npos) << "per-process lines at level 1 only";
  EXPECT_NE(serverLog().find("serving on " + path("chn/posix.service") + ", pid " +
                             std::to_string(pid)),
            std::string::npos);

  // Stopping the server ends what it started: run learns how its program ended.
  pid_t run = runSleeper().first;
  r = ctl({"stop"});
  EXPECT_EQ(r.exitCode, 0) << r.err;
  int status = waitExit(run, 5000);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 128 + SIGTERM) << status;
  // Gone, or a zombie nobody reaps (it was started detached, so it is not ours).
  char state = hostState(pid);
  EXPECT_TRUE(state == '?' || state == 'Z') << state;
  EXPECT_FALSE(std::ifstream(path("server.pid")).good());
  EXPECT_NE(serverLog().find("PLATFORM: stopped\n"), std::string::npos);
  r = ctl({"stop"});
  EXPECT_EQ(r.exitCode, 0);
  EXPECT_EQ(r.out, "not running\n");
}

TEST_F(PosixctlTest, RunPassesExitCodeAndStandardFiles) {
  // No server yet: run starts one and says so on standard error only.
  CommandResult r = ctl({"run", helper("px_probe"), "print", "hello", "eprint", "oops", "exit",
                         "42"});
  EXPECT_EQ(r.exitCode, 42) << r.err;
  EXPECT_EQ(r.out, "hello\n");
  EXPECT_NE(r.err.find("oops\n"), std::string::npos);
  EXPECT_NE(r.err.find("starting one"), std::string::npos);

  r = ctl({"run", "--env", "PX_TEST_VALUE=a b", "--", helper("px_probe"), "env", "PX_TEST_VALUE",
           "cat"},
          "from stdin\n");
  EXPECT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(r.out, "env PX_TEST_VALUE=a b\nfrom stdin\n");
  EXPECT_EQ(r.err, "");  // the server answers now: no note

  // KILL to the program's group ends the program, not posixctl, which says what ended it.
  auto [run, program] = runSleeper();
  std::string group = ctl({"pgid", program}).out;
  EXPECT_EQ(ctl({"killpg", "-s", "KILL", group.substr(0, group.size() - 1)}).exitCode, 0);
  int status = waitExit(run, 5000);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 128 + SIGKILL) << status;

  // Standard files that cannot simply be opened again by path (regular files, whose offset the
  // shell shares with run; sockets) reach the program through run's relays: output lands in
  // order between the shell's own writes, standard error beside standard output keeps its
  // order, and input continues where the shell stopped reading.
  std::ofstream(path("in.txt")) << "first\nsecond\nthird\n";
  const std::string script = "{ echo one; read line; echo \"shell $line\"; \"$0\" run \"$1\" print two "
                             "eprint err cat; echo three; } < \"$2\" > \"$3\" 2>&1";
  r = runCommand({"/bin/sh", "-c", script, POSIXCTL_BINARY, helper("px_probe"), path("in.txt"),
                  path("out.txt")});
  EXPECT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(hostRead(path("out.txt")), "one\nshell first\ntwo\nerr\nsecond\nthird\nthree\n");
}

TEST_F(PosixctlTest, UsageErrorsAndFailures) {
  for (const std::vector<std::string>& usage : std::vector<std::vector<std::string>>{
           {}, {"bogus"}, {"run"}, {"run", "--env", "NOEQUALS", "x"}, {"kill", "abc"},
           {"kill", "-9", "abc"}, {"pgid", "abc"}, {"cat", "--bogus"}, {"monitor", "--command", "bogus"}}) {
    EXPECT_EQ(ctl(usage).exitCode, 2) << testing::PrintToString(usage);
  }
  EXPECT_EQ(ctl({"kill", "-s", "99", "1"}).err, "posixctl: kill: unknown signal '99' (see 'posixctl kill -l')\n");
  for (const char* command : {"help", "start", "stop", "status", "run", "kill", "killpg", "pgid", "ppid",
                              "fds", "ps", "pipes", "top", "monitor", "cat"}) {
    CommandResult r = ctl({command, "--help"});
    EXPECT_EQ(r.exitCode, 0) << command << r.err;
    EXPECT_NE(r.out.find(command), std::string::npos) << command << r.out;
  }
  EXPECT_EQ(ctl({"--version"}).out.rfind("posixctl ", 0), 0u);
  // No server: every query says so, and how to start one.
  for (const std::vector<std::string>& query : std::vector<std::vector<std::string>>{
           {"pgid", "1"}, {"kill", "1"}, {"killpg", "5"}, {"fds"}, {"ppid"}, {"cat", "x"}}) {
    CommandResult r = ctl(query);
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_NE(r.err.find("no server answers on " + rt_ + "; start one with 'posixctl start'"),
              std::string::npos) << r.err;
  }
  EXPECT_EQ(ctl({"start", "--server", path("no-such-dir/posix-server")}).exitCode, 1);
  unsetenv("POSIX_SERVER_BIN");
  ASSERT_EQ(runCommand({"/usr/bin/env", "POSIX_LOG_LEVEL=1", POSIXCTL_BINARY, "start", "--server", POSIX_SERVER_BINARY}).exitCode, 0);
  CommandResult r = ctl({"kill", "-0", "4194321"});  // a probe: its exit code says it all
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(ctl({"kill", "4194321"}).err, "posixctl: kill: no process 4194321\n");
  EXPECT_EQ(ctl({"fds", "4194321", "--json"}).err, "posixctl: fds: no process 4194321\n");
  EXPECT_EQ(ctl({"ppid"}).out, "0\n");
  EXPECT_NE(ctl({"fds"}).out.find("no descriptor"), std::string::npos);
  EXPECT_NE(ctl({"kill", "-l"}).out.find(" 9 KILL"), std::string::npos);

  // A started program that does not use the library exists for -s 0, and a request to end
  // reaches it as the host's signal of that name, sent to it or to its group (options may
  // follow the operands).
  int64_t sleeper = spawnProgram("/bin/sleep", {"30"});
  int64_t grouped = spawnProgram("/bin/sleep", {"30"});
  ASSERT_GT(sleeper, 0);
  ASSERT_GT(grouped, 0);
  std::string pid = std::to_string(sleeper);
  EXPECT_EQ(ctl({"kill", "-s", "0", pid}).exitCode, 0);
  EXPECT_TRUE(std::regex_search(serverLog(), std::regex(" 1 POSIX SERVER: Entry created for process [0-9a-f]+h \\([0-9]+\\)\n")))
      << "log goes to RT/server.log, numbers in hex then decimal";
  EXPECT_EQ(ctl({"kill", pid, "-INT"}).exitCode, 0);
  EXPECT_EQ(collect(sleeper), 128 + SIGINT);
  EXPECT_EQ(ctl({"killpg", std::to_string(px_getpgid(grouped)), "-s", "HUP"}).exitCode, 0);
  EXPECT_EQ(collect(grouped), 128 + SIGHUP);

  // cat: standard input, and a write error fails.
  EXPECT_EQ(ctl({"cat", "-"}, "from stdin").out, "from stdin");
  std::string file = hostFile("a.txt", "abc");
  EXPECT_EQ(runCommand({"/bin/sh", "-c", "\"$0\" cat \"$1\" >&-", POSIXCTL_BINARY, file}).exitCode, 1);
}

}  // namespace
