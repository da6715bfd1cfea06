// Starting programs: nothing a start opens holds up the server, the working directory and
// standard files a program starts with, and posixctl run's signals and exit codes.
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <tuple>

#include "command_runner.h"
#include "server_fixture.h"

namespace {

class ProgramStartTest : public ServerFixture {
 protected:
  // Runs `script` with /bin/sh in `dir`; $0 is posixctl, $1 the directory.
  CommandResult shell(const std::string& script, const std::string& dir) {
    return runCommand({"/bin/sh", "-c", "cd \"$1\" && " + script, POSIXCTL_BINARY, dir});
  }
};

TEST_F(ProgramStartTest, StandardFilesThatWouldBlockHoldUpNoOne) {
  std::string fifo = path("fifo");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  // Input from a FIFO nobody writes: the program starts and reads end-of-file, and another
  // client gets its answers meanwhile.
  OutputPipe out;
  setenv("POSIX_STDIN", fifo.c_str(), 1);
  pid_t probe = startCommand({helper("px_probe"), "spawn", "/bin/cat", "--", "wait"}, out.writeFd());
  unsetenv("POSIX_STDIN");
  CommandResult status = runCommand({POSIXCTL_BINARY, "status"}, "", 5000);
  std::string child = out.expect("child", 5000);
  int fd = open(fifo.c_str(), O_WRONLY | O_NONBLOCK);  // frees a start that blocked after all
  if (fd >= 0) close(fd);
  EXPECT_EQ(status.exitCode, 0) << "a second client got no answer";
  EXPECT_NE(child.find(" exit 0"), std::string::npos) << child;
  EXPECT_EQ(waitExit(probe, 10000), 0);

  // Output to a FIFO nobody reads: the start fails at once, and says why.
  EXPECT_ERRNO(spawnRaw({"/bin/true"}, {"POSIX_STDOUT=" + fifo}), ENXIO);
}

TEST_F(ProgramStartTest, ProgramsStartInTheStartersDirectory) {
  std::string dir = path("sub");
  ASSERT_EQ(mkdir(dir.c_str(), 0700), 0);
  hostFile("sub/rel.txt", "relative\n");
  const std::string where = std::filesystem::canonical(dir);

  CommandResult r = shell("\"$0\" run pwd && \"$0\" run cat rel.txt", dir);
  EXPECT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(r.out, where + "\nrelative\n");

  // A working directory named to px_spawn; a relative standard file resolves there.
  hostFile("sub/out.txt", "");  // the server opens, never creates
  int64_t child = spawnRaw({"/bin/pwd"}, {"POSIX_CWD=" + dir, "POSIX_STDOUT=out.txt"});
  ASSERT_GT(child, 0) << strerror(errno);
  EXPECT_EQ(collect(child), 0);
  EXPECT_EQ(hostRead(dir + "/out.txt"), where + "\n");
}

// A standard descriptor closed for posixctl run is closed for the program, which never sees
// one of posixctl's own sockets there; the run behaves as the command run directly.
TEST_F(ProgramStartTest, ClosedStandardDescriptorsStayClosed) {
  // Writes the numbers of the open standard descriptors to $1.$2.
  const std::string probe = "/bin/sh -c 's=; for f in 0 1 2; do [ -e /proc/$$/fd/$f ] && s=$s$f; "
                            "done; echo \"$s\" > \"$1.$2\"' x \"$1/out\" ";
  for (const char* redirect : {"<&-", ">&-", "2>&-", "<&- >&- 2>&-"}) {
    std::string script = "\"$0\" run -- " + probe + "run " + redirect + "; " + probe + "direct " + redirect;
    CommandResult r = shell(script, rt_);
    EXPECT_EQ(r.exitCode, 0) << redirect << ": " << r.err;
    std::string run = hostRead(path("out.run")), direct = hostRead(path("out.direct"));
    EXPECT_FALSE(direct.empty()) << redirect;
    EXPECT_EQ(run, direct) << redirect;
  }
}

// An interrupt reaches the program's whole host process group as it would from a shell: the
// program's trap runs, or the interrupt ends it (130). A program that ignores a terminate is
// killed by the next signal.
TEST_F(ProgramStartTest, SignalsToRunReachTheProgram) {
  // A script, the signal sent to run, a second one (0: none) and the exit code run answers.
  for (auto [script, first, second, code] : std::vector<std::tuple<std::string, int, int, int>>{
           {"trap 'echo trapped; exit 5' INT; echo ready; while :; do sleep 0.05; done", SIGINT, 0, 5},
           {"echo ready; exec sleep 30", SIGINT, 0, 130},
           {"trap '' TERM INT; echo ready; exec sleep 30", SIGTERM, SIGINT, 137}}) {
    OutputPipe out;
    pid_t run = startCommand({POSIXCTL_BINARY, "run", "/bin/sh", "-c", script}, out.writeFd());
    ASSERT_EQ(out.expect("ready", 10000), "ready") << script;
    kill(run, first);
    if (second != 0) {
      sleepMs(200);
      kill(run, second);
    }
    if (code == 5) {
      EXPECT_EQ(out.expect("trapped"), "trapped");
    }
    int status = waitExit(run, 15000);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == code) << script << ": " << status;
  }
}

TEST_F(ProgramStartTest, ProgramsThatCannotStartExitAsInAShell) {
  hostFile("plain.txt", "not a program\n");
  CommandResult r = runCommand({POSIXCTL_BINARY, "run", "no-such-program-anywhere"});
  EXPECT_EQ(r.exitCode, 127);
  EXPECT_NE(r.err.find("No such file"), std::string::npos) << r.err;
  r = runCommand({POSIXCTL_BINARY, "run", path("plain.txt")});
  EXPECT_EQ(r.exitCode, 126);
  EXPECT_NE(r.err.find("Permission denied"), std::string::npos) << r.err;
}

}  // namespace
