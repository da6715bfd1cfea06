// Starting programs: nothing a start opens holds up the server, the working directory and
// standard files a program starts with, and posixctl run's signals and exit codes.
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <tuple>

#include "command_runner.h"
#include "posix/posix_service.h"
#include "raw_link.h"
#include "server_fixture.h"

namespace {

// The data of a spawn request for `argv` with no environment and start options `options`.
std::vector<uint8_t> spawnData(const std::vector<std::string>& argv, uint32_t options) {
  std::vector<uint8_t> data;
  putString(data, argv[0]);
  putU32(data, 0);
  putU64(data, argv.size());
  for (const std::string& a : argv) putString(data, a);
  putU64(data, 0);
  putU32(data, options);
  return data;
}

// Sends a request with `fds` attached, and reads its reply.
bool roundTripWith(RawLink& link, uint32_t code, uint64_t id, const std::vector<uint8_t>& data,
                   const std::vector<int>& fds, RawReply* out) {
  std::vector<uint8_t> frame = requestFrame(code, id, data);
  iovec iov{frame.data(), frame.size()};
  alignas(cmsghdr) char control[CMSG_SPACE(8 * sizeof(int))] = {};
  msghdr msg{};
  msg.msg_iov = &iov;
  msg.msg_iovlen = 1;
  msg.msg_control = control;
  msg.msg_controllen = CMSG_SPACE(fds.size() * sizeof(int));
  cmsghdr* c = CMSG_FIRSTHDR(&msg);
  c->cmsg_level = SOL_SOCKET;
  c->cmsg_type = SCM_RIGHTS;
  c->cmsg_len = CMSG_LEN(fds.size() * sizeof(int));
  std::memcpy(CMSG_DATA(c), fds.data(), fds.size() * sizeof(int));
  if (sendmsg(link.fd(), &msg, MSG_NOSIGNAL) != static_cast<ssize_t>(frame.size())) return false;
  do {
    if (link.receive(out, 5000) != 1) return false;
  } while (out->id != id);
  return true;
}

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
// killed by the next signal, also when its group, run's waiting leader with it, was stopped.
TEST_F(ProgramStartTest, SignalsToRunReachTheProgram) {
  // A script, the signal sent to run, a second one (0: none), the exit code run answers, and
  // whether the program's group (run's waiting leader with it) is stopped first.
  for (auto [script, first, second, code, stopped] :
       std::vector<std::tuple<std::string, int, int, int, bool>>{
           {"trap 'echo trapped; exit 5' INT; echo ready; while :; do sleep 0.05; done", SIGINT, 0, 5, false},
           {"echo ready; exec sleep 30", SIGINT, 0, 130, false},
           {"trap '' TERM INT; echo ready; exec sleep 30", SIGTERM, SIGINT, 137, false},
           {"trap '' TERM INT; echo ready $$; exec sleep 30", SIGTERM, SIGINT, 137, true}}) {
    OutputPipe out;
    pid_t run = startCommand({POSIXCTL_BINARY, "run", "/bin/sh", "-c", script}, out.writeFd());
    std::string ready = out.expect("ready", 10000);
    ASSERT_EQ(ready.substr(0, 5), "ready") << script;
    pid_t leader = 0;
    if (stopped) {
      // As a stop of the program's group through the server: the program and run's leader
      // (run's one child), which cannot collect the killed program until run lets it go on.
      // Stopped once run knows the program (it then waits for the leader); stopped before the
      // leader has told it, run forwards nothing until the leader goes on.
      const std::string proc = "/proc/" + std::to_string(run) + "/task/" + std::to_string(run);
      const std::string waiting = std::to_string(SYS_wait4);
      std::string call;
      for (int tries = 0; tries < 500 && call != waiting; ++tries) {
        sleepMs(10);
        std::ifstream(proc + "/syscall") >> call;
      }
      ASSERT_EQ(call, waiting);
      std::ifstream children(proc + "/children");
      ASSERT_TRUE(children >> leader);
      ASSERT_EQ(kill(static_cast<pid_t>(std::stol(ready.substr(6))), SIGSTOP), 0);
      ASSERT_EQ(kill(leader, SIGSTOP), 0);
      sleepMs(100);
    }
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
    if (status == -1 && leader > 0) kill(leader, SIGKILL);  // run's child until run is collected
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

// The caller's own files go with a spawn request and the program gets them as they are (a
// socket too, which no path opens); the server keeps none of them, whether a request takes
// them, names fewer, more or none, or is refused.
TEST_F(ProgramStartTest, HandedFilesReachTheProgramAndNoneIsKept) {
  RawLink link(path("chn/posix.service"));
  ASSERT_TRUE(link.connected());
  int out[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, out), 0);
  std::string dir = path("handed");
  ASSERT_EQ(mkdir(dir.c_str(), 0700), 0);
  int dirFd = open(dir.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  ASSERT_GE(dirFd, 0);
  const uint32_t all = PX_SPAWN_OPTION_STDOUT_FD | PX_SPAWN_OPTION_STDERR_FD | PX_SPAWN_OPTION_CWD_FD;
  RawReply reply;
  ASSERT_TRUE(roundTripWith(link, PX_CMD_SPAWN, 1, spawnData({"/bin/sh", "-c", "pwd; echo e >&2"}, all),
                            {out[1], out[1], dirFd}, &reply));
  close(out[1]);
  ASSERT_EQ(reply.code, PX_RESULT_DONE);
  uint64_t child = 0;
  ASSERT_EQ(reply.data.size(), sizeof child);
  std::memcpy(&child, reply.data.data(), sizeof child);
  // End of file comes once the program has ended: the server holds no copy of the socket.
  std::string got;
  char buf[256];
  for (ssize_t n; (n = read(out[0], buf, sizeof buf)) > 0;) got.append(buf, static_cast<size_t>(n));
  close(out[0]);
  EXPECT_EQ(got, std::filesystem::canonical(dir).string() + "\ne\n");
  int status = -1;
  EXPECT_EQ(px_waitpid(static_cast<int64_t>(child), &status, 0), static_cast<int64_t>(child));
  EXPECT_EQ(status, 0);

  // 200 requests with four descriptors each: taken by a start that then fails, left over by
  // one that names one, sent with a request that takes none, or named but fewer than said.
  int64_t before = serverFds();
  int four[4] = {dirFd, dirFd, dirFd, dirFd};
  std::vector<int> fds(four, four + 4);
  for (uint64_t i = 0; i < 200; ++i) {
    uint32_t code = PX_CMD_SPAWN;
    std::vector<uint8_t> data = spawnData({"/nonexistent"}, i % 4 == 0 ? 0 : PX_SPAWN_OPTIONS_ALL);
    uint32_t expect = ENOENT;
    if (i % 4 == 1) {
      code = PX_CMD_GET_PARENT_ID;
      data.clear();
    } else if (i % 4 == 2) {
      data = spawnData({"/nonexistent"}, 1u << 4);
      expect = EINVAL;
    }
    ASSERT_TRUE(roundTripWith(link, code, 100 + i, data, fds, &reply)) << i;
    if (code == PX_CMD_SPAWN) {
      uint32_t reason = 0;
      ASSERT_EQ(reply.data.size(), sizeof reason) << i;
      std::memcpy(&reason, reply.data.data(), sizeof reason);
      EXPECT_EQ(reason, expect) << i;
    }
  }
  ASSERT_TRUE(roundTripWith(link, PX_CMD_SPAWN, 300, spawnData({"/bin/true"}, PX_SPAWN_OPTIONS_ALL),
                            {dirFd}, &reply));
  EXPECT_EQ(reply.code, PX_RESULT_FAILED);
  EXPECT_EQ(reply.data.size() == 4 ? reply.data[0] : 0, EBADF);
  close(dirFd);
  EXPECT_TRUE(eventually([&] { return serverFds() <= before; })) << serverFds() << " > " << before;
}

}  // namespace
