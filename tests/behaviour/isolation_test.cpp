// A client reaches only what it was given: the paths the server opens for it mean what they
// mean to the client (never the server's own /proc directory), and no host call the server
// makes for a client waits on what the client controls. (Programs start with their standard
// files only: the posixctl tests.)
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cinttypes>
#include <cstring>
#include <cstdio>
#include <filesystem>

#include "posix/nodes.h"
#include "server_fixture.h"

namespace {

using IsolationTest = ServerFixture;

// The "Pid:" line of the status file px_open gives for `path`; "errno N" when the open fails.
std::string pidLine(const std::string& path) {
  int fd = px_open(path.c_str(), O_RDONLY, 0);
  if (fd < 0) return "errno " + std::to_string(errno);
  std::string text = readUpTo(fd, 1 << 16);
  px_close(fd);
  size_t at = text.find("\nPid:\t");
  return at == std::string::npos ? "" : text.substr(at + 1, text.find('\n', at + 1) - at - 1);
}

static char g_marker[16] = "untouched";

TEST_F(IsolationTest, ProcPathsNameTheClientAndNeverTheServer) {
  const std::string me = "Pid:\t" + std::to_string(getpid());
  const std::string server = "/proc/" + std::to_string(server_);
  ASSERT_EQ(symlink("/proc/self", path("me").c_str()), 0);
  ASSERT_EQ(symlink(server.c_str(), path("srv").c_str()), 0);
  for (const std::string& p : {std::string("/proc/self/status"), std::string("/proc/./self/status"),
                               std::string("/proc/thread-self/status"), path("me/status"),
                               "/proc/" + std::to_string(getpid()) + "/status"}) {
    EXPECT_EQ(pidLine(p), me) << p;
  }
  // /proc/self/mem is the client's own memory: what is written there lands in the test.
  int mem = px_open("/proc/self/mem", O_RDWR, 0);
  ASSERT_GE(mem, 0) << strerror(errno);
  ASSERT_EQ(px_lseek(mem, static_cast<off_t>(reinterpret_cast<uintptr_t>(g_marker)), SEEK_SET),
            static_cast<off_t>(reinterpret_cast<uintptr_t>(g_marker)));
  EXPECT_EQ(px_write(mem, "written", 8), 8);
  EXPECT_STREQ(g_marker, "written");
  px_close(mem);
  // The server's directory, under any name, is refused.
  for (const std::string& p :
       {server + "/maps", server + "/mem", "/proc/./" + server.substr(6) + "/fd/0",
        path("srv/status"), "/proc/self/root" + server + "/environ"}) {
    SCOPED_TRACE(p);
    EXPECT_ERRNO(px_open(p.c_str(), O_RDWR, 0), EACCES);
  }

  // A program's files and directory are read as its starter names them, and what the program
  // itself opens is read as it names it.
  char cwd[PATH_MAX];
  ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
  ASSERT_EQ(chdir(rt_.c_str()), 0);
  OutputPipe out;
  int64_t child = spawnRaw({helper("px_probe"), "find", "/proc/self/status", "Pid:", "sleep", "3000"},
                           {"POSIX_CWD=/proc/self/cwd", "POSIX_STDOUT=" + out.writePath(),
                            "POSIX_STDERR=/proc/self/mem"});
  ASSERT_EQ(chdir(cwd), 0);
  ASSERT_GT(child, 0) << strerror(errno);
  EXPECT_EQ(out.expect("found"), "found Pid:\t" + std::to_string(child));
  const std::string childProc = "/proc/" + std::to_string(child);
  std::error_code ec;
  EXPECT_EQ(std::filesystem::read_symlink(childProc + "/cwd", ec), std::filesystem::canonical(rt_));
  EXPECT_EQ(std::filesystem::read_symlink(childProc + "/fd/2", ec),
            "/proc/" + std::to_string(getpid()) + "/mem");
  px_kill(child, SIGKILL);
  collect(child);
  // A program named through the server's directory is refused too.
  EXPECT_ERRNO(spawnRaw({server + "/exe"}, {}), EACCES);
  EXPECT_ERRNO(spawnRaw({"/bin/true"}, {"POSIX_STDOUT=" + server + "/fd/1"}), EACCES);

  // The server is unharmed and still answers.
  EXPECT_EQ(kill(server_, 0), 0);
  EXPECT_GE(px_getppid(), 0) << strerror(errno);
}

TEST_F(IsolationTest, HostCallsForAClientAreBoundedByItsTimeOut) {
  std::string fifo = path("fifo");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  ASSERT_EQ(px_close(px_open(fifo.c_str(), O_RDONLY, 0)), 0);  // the close queue has its thread
  const int64_t fds = serverFds();
  // The server holds both ends of the FIFO and nobody reads: 100000 bytes do not fit.
  int fd = px_open(fifo.c_str(), O_RDWR, 0);
  ASSERT_GE(fd, 0) << strerror(errno);
  ASSERT_EQ(px_write(fd, "x", 1), 1);
  std::unique_ptr<RawLink> stream = bindService(fd, PX_IFACE_STREAM);
  ASSERT_TRUE(stream);
  const std::string lots(100000, 'y');
  RawReply reply;
  int64_t start = monotonicMs();
  ASSERT_TRUE(stream->roundTrip(PX_STREAM_WRITE, 1, streamWrite(300, lots), &reply, 5000));
  int64_t took = monotonicMs() - start;
  ASSERT_EQ(reply.data.size(), 8u);
  uint64_t count = 0;
  std::memcpy(&count, reply.data.data(), 8);
  EXPECT_GT(count, 0u);
  EXPECT_LT(count, 100000u) << "wrote all into a FIFO nobody reads";
  EXPECT_LT(took, 2000) << "a write of 300 ms";
  // A write that would wait for ever ends when its client goes, and the description is torn
  // down with every other one closed after it.
  ASSERT_TRUE(stream->send(requestFrame(PX_STREAM_WRITE, 2, streamWrite(0xFFFFFFFFu, lots))));
  sleepMs(200);
  stream.reset();
  ASSERT_EQ(px_close(fd), 0);
  std::string other = hostFile("other", "o");
  ASSERT_EQ(px_close(px_open(other.c_str(), O_RDONLY, 0)), 0);
  EXPECT_TRUE(eventually([&] { return serverFds() <= fds; }, 10000)) << serverFds() << " > " << fds;
  expectOthersServed();

  // A lease on a shared-memory object or a file holds up no open: it is refused at once.
  px_shm_id shm{};
  ASSERT_EQ(px_shm_create(4096, &shm), 0) << strerror(errno);
  char name[40];
  std::snprintf(name, sizeof name, "shm/%016" PRIx64, shm.id);
  int leased = open(path(name).c_str(), O_RDONLY | O_CLOEXEC);
  sighandler_t before = signal(SIGIO, SIG_IGN);  // the host's word that an open breaks the lease
  ASSERT_EQ(fcntl(leased, F_SETLEASE, F_RDLCK), 0) << strerror(errno);
  start = monotonicMs();
  EXPECT_ERRNO(spawnRaw({helper("px_probe"), "exit", "0"}, {}, 0, &shm), EWOULDBLOCK);
  EXPECT_ERRNO(px_open(path(name).c_str(), O_RDWR, 0), EWOULDBLOCK);
  EXPECT_GE(px_getppid(), 0);
  EXPECT_LT(monotonicMs() - start, 2000);
  close(leased);
  signal(SIGIO, before);
  // An object that is a link is not followed.
  ASSERT_EQ(unlink(path(name).c_str()), 0);
  ASSERT_EQ(symlink(("/proc/" + std::to_string(server_) + "/mem").c_str(), path(name).c_str()), 0);
  EXPECT_ERRNO(spawnRaw({helper("px_probe"), "exit", "0"}, {}, 0, &shm), ELOOP);
}

}  // namespace
