// How long pipe ends live: a pipe of the process service closes itself when its connections
// go, and a client killed while its read or write of a pipe or host FIFO waits in the server
// leaves no thread behind and does not hold up the pipe, its other readers or later pipes.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <fstream>

#include <cstring>
#include <filesystem>
#include <functional>

#include "posix/pipe_page.h"
#include "raw_link.h"
#include "server_fixture.h"

namespace {

constexpr int kSettleMs = 10000;

class PipeLifetimeTest : public ServerFixture {
 protected:
  // Starts the probe with `steps`, the last of which blocks, waits until it prints "blocking"
  // and its call waits (inside a call on a pipe, as the server lists it; a host FIFO's read is
  // not listed, and gets a moment instead), runs `meanwhile`, kills the probe, and expects the
  // server's threads back at `baseline`.
  void killWhileBlocked(std::vector<std::string> steps, int64_t baseline,
                        const std::function<void()>& meanwhile = [] {}, bool onPipe = true) {
    OutputPipe out;
    steps.insert(steps.begin(), {"print", "blocking"});
    int64_t child = spawnProbe(steps, &out);
    ASSERT_GT(child, 0) << strerror(errno);
    ASSERT_EQ(out.expect("blocking"), "blocking");
    if (onPipe) {
      ASSERT_TRUE(awaitInsidePipeCall(static_cast<uint64_t>(child)));
    } else {
      sleepMs(300);
    }
    meanwhile();
    ASSERT_EQ(kill(static_cast<pid_t>(child), SIGKILL), 0);
    EXPECT_EQ(collect(child), 128 + SIGKILL);
    EXPECT_LE(awaitThreadsAtMost(baseline, kSettleMs), baseline);
  }
};

TEST_F(PipeLifetimeTest, ChannelPipeEndsCloseWithTheirConnectionsAndTheirProcess) {
  int64_t before = serverThreads();
  ASSERT_GT(before, 0);
  px_channel* ends[2] = {nullptr, nullptr};
  ASSERT_EQ(px_pipe_channels(ends), 0) << strerror(errno);
  EXPECT_EQ(px_channel_write(ends[1], "abc", 3), 3);
  px_channel_close(ends[1]);
  // The write end went with its connection: the reader drains, then sees end-of-file.
  char buf[16];
  ASSERT_EQ(px_channel_read(ends[0], buf, sizeof buf), 3);
  EXPECT_EQ(std::memcmp(buf, "abc", 3), 0);
  EXPECT_EQ(px_channel_read(ends[0], buf, sizeof buf), 0);
  px_channel_close(ends[0]);

  // And the other way round: without its reader, a writer gets EPIPE.
  ASSERT_EQ(px_pipe_channels(ends), 0) << strerror(errno);
  px_channel_close(ends[0]);
  ssize_t n = 0;
  eventually([&] { return (n = px_channel_write(ends[1], "x", 1)) != 1; }, kSettleMs, 20);
  EXPECT_ERRNO(n, EPIPE);
  px_channel_close(ends[1]);
  // Nothing of either pipe stays in the server.
  EXPECT_LE(awaitThreadsAtMost(before, kSettleMs), before);

  // Both ends of a pipe go with the connections of a process that is killed.
  OutputPipe out;
  int64_t child = spawnProbe({"channels", "sleep", "60000"}, &out);
  ASSERT_GT(child, 0) << strerror(errno);
  ASSERT_EQ(out.expect("channels"), "channels");
  EXPECT_GT(serverThreads(), before);
  ASSERT_EQ(kill(static_cast<pid_t>(child), SIGKILL), 0);
  EXPECT_EQ(collect(child), 128 + SIGKILL);
  EXPECT_LE(awaitThreadsAtMost(before, kSettleMs), before);
}

TEST_F(PipeLifetimeTest, PipesNobodyConnectsToAreBoundedAndGoWithTheirMaker) {
  px_fini();  // the process's only links are the raw ones below
  int64_t before = entriesIn(path("chn"));
  int made = 0;
  int64_t threads = -1, fds = -1;
  {
    RawLink link(path("chn/posix.service"));
    ASSERT_TRUE(link.connected());
    RawReply reply;
    for (uint64_t id = 1; id <= 100; ++id) {
      ASSERT_TRUE(link.roundTrip(PX_CMD_CREATE_PIPE, id, {}, &reply));
      if (reply.code != PX_RESULT_DONE) break;
      if (++made == 1) {  // the first pipe brings the one acceptor of all multiplexes
        threads = serverThreads();
        fds = serverFds() - 2;  // without that pipe's two listening sockets
      }
    }
    EXPECT_EQ(reply.code, PX_RESULT_LIMIT) << "a bound on pipes nobody connected to";
    EXPECT_EQ(made, 64);
    EXPECT_EQ(entriesIn(path("chn")), before + 2 * made);
    EXPECT_LE(serverThreads(), threads) << "a pipe nobody connects to costs no thread";
  }
  // The link was the process's last: its record and the pipes it left waiting go, with every
  // descriptor the server had for them.
  EXPECT_TRUE(eventually([&] { return entriesIn(path("chn")) == before; }, kSettleMs, 20));
  EXPECT_TRUE(eventually([&] { return serverFds() <= fds; }, kSettleMs, 20)) << serverFds() << " > " << fds;
  expectOthersServed();
}

TEST_F(PipeLifetimeTest, AReaderOrWriterKilledWhileBlockedLeavesNothingBehind) {
  int fds[2];
  ASSERT_EQ(px_pipe(fds), 0) << strerror(errno);
  // Open this process's links to both ends (stream and status) before counting threads.
  char buf[4096];
  const std::string full(4096, 'f');
  ASSERT_EQ(px_write(fds[1], "x", 1), 1);
  ASSERT_EQ(px_read(fds[0], buf, sizeof buf), 1);
  EXPECT_ERRNO(px_set_nonblock(99, 1), EBADF);
  int64_t baseline = serverThreads();
  ASSERT_GT(baseline, 0);

  // The pipe is empty; a second reader that may not wait is answered at once meanwhile.
  killWhileBlocked({"readn", std::to_string(fds[0]), "1"}, baseline, [&] {
    ASSERT_EQ(px_set_nonblock(fds[0], 1), 0);
    int64_t start = monotonicMs();
    EXPECT_ERRNO(px_read(fds[0], buf, 1), EAGAIN);
    EXPECT_LT(monotonicMs() - start, 900);
    ASSERT_EQ(px_set_nonblock(fds[0], 0), 0);
  });
  // The pipe still works for its other reader.
  EXPECT_EQ(px_write(fds[1], "after", 5), 5);
  EXPECT_EQ(px_read(fds[0], buf, sizeof buf), 5);

  EXPECT_EQ(px_write(fds[1], full.data(), 4096), 4096);
  killWhileBlocked({"write", std::to_string(fds[1]), std::string(4096, 'w')}, baseline);  // full
  // The killed write put nothing in: the reader finds the parent's 4096 bytes, and the
  // writer can go on; new pipes are not held up.
  EXPECT_EQ(readUpTo(fds[0], 4096), full);
  EXPECT_EQ(px_write(fds[1], "more", 4), 4);
  EXPECT_EQ(px_read(fds[0], buf, sizeof buf), 4);
  expectOthersServed();
  // A host FIFO is read in slices too: a reader killed while it waits leaves nothing behind.
  ASSERT_EQ(mkfifo(path("fifo").c_str(), 0600), 0);
  int fifo = px_open(path("fifo").c_str(), O_RDWR, 0);
  ASSERT_GE(fifo, 0) << strerror(errno);
  killWhileBlocked({"readn", std::to_string(fifo), "1"}, serverThreads(), [] {}, false);
}

// Shared pages of pipes that the server has mapped now.
int serverPipePages(pid_t server) {
  std::ifstream maps("/proc/" + std::to_string(server) + "/maps");
  int count = 0;
  for (std::string line; std::getline(maps, line);) count += line.find("posix-pipe") != std::string::npos;
  return count;
}

// A process that holds the write lock of a pipe's shared page, with half a record copied behind
// the tail, and has set the read lock to a token it was never given, is SIGKILLed: when its
// link closes the server frees its lock and every lock no living holder has, nothing of the
// half record appears, and every page goes with its pipe (and is made only when first asked
// for).
TEST_F(PipeLifetimeTest, AHolderKilledInTheMiddleOfACopyWedgesNoOne) {
  const int pagesBefore = serverPipePages(server_);
  int fds[2];
  ASSERT_EQ(px_pipe(fds), 0) << strerror(errno);
  EXPECT_EQ(serverPipePages(server_), pagesBefore);
  std::unique_ptr<RawLink> status = bindService(fds[1], PX_IFACE_FIFO_STATUS);
  ASSERT_TRUE(status);
  ASSERT_TRUE(status->send(requestFrame(PX_FIFO_CMD_SHARED_PAGE, 1)));
  uint8_t frame[256];
  char control[CMSG_SPACE(sizeof(int))];
  iovec iov{frame, sizeof frame};
  msghdr msg{};
  msg.msg_iov = &iov;
  msg.msg_iovlen = 1;
  msg.msg_control = control;
  msg.msg_controllen = sizeof control;
  ASSERT_EQ(recvmsg(status->fd(), &msg, 0), 24 + 8) << strerror(errno);
  cmsghdr* cmsg = CMSG_FIRSTHDR(&msg);
  ASSERT_TRUE(cmsg != nullptr && cmsg->cmsg_type == SCM_RIGHTS);
  int file;
  std::memcpy(&file, CMSG_DATA(cmsg), sizeof file);
  uint32_t token, ring;
  std::memcpy(&token, frame + 24, 4);
  std::memcpy(&ring, frame + 28, 4);
  ASSERT_EQ(ring, 4096u);
  auto* page = static_cast<px_pipe_page*>(mmap(nullptr, 8192, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0));
  ASSERT_NE(page, MAP_FAILED);
  close(file);
  EXPECT_EQ(serverPipePages(server_), pagesBefore + 1);

  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  pid_t holder = fork();
  if (holder == 0) {
    uint32_t free = 0;
    bool held = std::atomic_ref<uint32_t>(page->write_lock).compare_exchange_strong(free, token);
    free = 0;
    held = held && std::atomic_ref<uint32_t>(page->read_lock).compare_exchange_strong(free, PX_PIPE_MIN_TOKEN - 1);
    std::memset(reinterpret_cast<uint8_t*>(page) + PX_PIPE_RING_OFFSET, 'h', 100);  // never published
    sendNumber(ready[1], held);
    pause();
    _exit(0);
  }
  status.reset();  // the holder's copy keeps the link open
  munmap(page, 8192);
  close(ready[1]);
  EXPECT_EQ(takeNumber(ready[0]), 1) << "the holder took the locks";
  close(ready[0]);
  // A writer and a reader wait for the locks while the holder lives...
  ASSERT_EQ(px_set_nonblock(fds[1], 1), 0);
  EXPECT_ERRNO(px_write(fds[1], "x", 1), EAGAIN);
  ASSERT_EQ(px_set_nonblock(fds[1], 0), 0);
  // ...and go on once it has been killed.
  ASSERT_EQ(kill(holder, SIGKILL), 0);
  ASSERT_EQ(waitpid(holder, nullptr, 0), holder);
  EXPECT_EQ(px_write(fds[1], "after", 5), 5);
  ASSERT_EQ(px_set_nonblock(fds[0], 1), 0);
  char got[8] = {};
  EXPECT_TRUE(eventually([&] { return px_read(fds[0], got, sizeof got) == 5; }, 3000));
  EXPECT_EQ(std::string(got, 5), "after");
  EXPECT_EQ(px_close(fds[0]), 0);
  EXPECT_EQ(px_close(fds[1]), 0);
  EXPECT_TRUE(eventually([&] { return serverPipePages(server_) == pagesBefore; }));
}

}  // namespace
