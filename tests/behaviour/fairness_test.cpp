// One client cannot take the others' room: the links a process holds are bound per channel and
// over every description's multiplex; when the server runs out of descriptors a process with
// few links still gets in; and a flood of broadcasts leaves the others their round trips.
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <filesystem>
#include <memory>

#include "posix/fd_service.h"
#include "posix/posix_service.h"
#include "server_fixture.h"

namespace {

using Links = std::vector<std::unique_ptr<RawLink>>;

class FairnessTest : public ServerFixture {
 protected:
  std::string service(const char* name) const { return path(std::string("chn/") + name); }

  // Opens links to `socket` while each is served (`ask` answered on it); keeps them in `held`.
  static int openUntilRefused(const std::string& socket, uint32_t ask, Links* held) {
    for (int n = 0;; ++n) {
      auto link = std::make_unique<RawLink>(socket);
      RawReply reply;
      if (!link->roundTrip(ask, 7, {}, &reply, 3000)) return n;
      held->push_back(std::move(link));
    }
  }

  // Binds links to the service `e` while the binds are accepted; how many were.
  int bindUntilRefused(const px_node_entry& e, Links* held) {
    char name[17];
    std::snprintf(name, sizeof name, "%016" PRIx64, e.channel);
    for (int n = 0;; ++n) {
      auto link = std::make_unique<RawLink>(path(std::string("chn/") + name));
      RawReply reply;
      if (!link->send(frameHeader(PX_FRAME_BIND, 0, e.service)) || link->receive(&reply, 3000) != 1 ||
          reply.code != PX_RESULT_DONE)
        return n;
      held->push_back(std::move(link));
    }
  }

  // The lowest descriptor number the server has free.
  int lowestFreeDescriptor() const {
    int fd = 0;
    while (std::filesystem::exists("/proc/" + std::to_string(server_) + "/fd/" + std::to_string(fd))) ++fd;
    return fd;
  }
};

// Runs `body` in a child process; its pid. The child reports numbers through `report`.
template <class Body>
pid_t inChild(Body body) {
  pid_t pid = fork();
  if (pid == 0) {
    body();
    _exit(0);
  }
  return pid;
}

bool put(int fd, int64_t v) { return write(fd, &v, sizeof v) == sizeof v; }
int64_t take(int fd) {
  int64_t v = -1;
  return read(fd, &v, sizeof v) == sizeof v ? v : -1;
}

TEST_F(FairnessTest, LinksAreBoundPerProcessAndAFewLinksStillGetInWhenDescriptorsRunOut) {
  int report[2], hold[2];
  ASSERT_EQ(pipe(report), 0);
  ASSERT_EQ(pipe(hold), 0);
  pid_t hostile = inChild([&] {
    close(hold[1]);
    // The streams of three ends of its own pipes: multiplexes of 256 links each.
    Links held;
    held.push_back(std::make_unique<RawLink>(service(PX_SERVICE_NAME)));
    RawReply reply;
    held[0]->roundTrip(PX_CMD_GET_PARENT_ID, 1, {}, &reply);  // known before the next link
    held.push_back(std::make_unique<RawLink>(service(PX_FD_SERVICE_NAME)));
    std::vector<px_node_entry> streams;
    for (int k = 0; k < 2 && held[1]->roundTrip(PX_FD_CMD_CREATE_PIPE, 2, {}, &reply); ++k) {
      std::vector<px_node_entry> node;
      size_t at = 4;  // the read end's number, its node, the write end's number, its node
      for (int end = 0; end < 2 && takeNode(reply.data, &at, &node); ++end, at += 4) {
        streams.push_back(node[0]);
        node.clear();
      }
    }
    streams.resize(3);  // an end it could not make counts no link
    held.erase(held.begin() + 1);  // the descriptor link: its table lives with its record
    for (int k = 0; k < 3; ++k) put(report[1], bindUntilRefused(streams[k], &held));
    held.erase(held.begin() + 1);  // a place comes free
    int again = 0;
    eventually([&] { return (again += bindUntilRefused(streams[2], &held)) > 0; });
    put(report[1], again);
    put(report[1], openUntilRefused(service(PX_SERVICE_NAME), PX_CMD_GET_PARENT_ID, &held));
    put(report[1], openUntilRefused(service(PX_FD_SERVICE_NAME), PX_FD_CMD_GET_TABLE, &held));
    take(hold[0]);
  });
  EXPECT_EQ(take(report[0]), 256) << "links on one multiplex";
  EXPECT_EQ(take(report[0]), 256);
  EXPECT_EQ(take(report[0]), 0) << "links on every multiplex together";
  EXPECT_EQ(take(report[0]), 1) << "a link that closed makes room";
  EXPECT_EQ(take(report[0]), 127) << "links on posix.service, beside the one it holds";
  EXPECT_EQ(take(report[0]), 128) << "links on posix.fd.service";

  // A well-behaved client beside it: new links on every kind of channel, answered at once.
  int64_t start = monotonicMs();
  px_fini();
  int fds[2];
  char buf[2];
  bool served = px_getppid() >= 0 && px_pipe(fds) == 0 && px_write(fds[1], "ok", 2) == 2 &&
                px_read(fds[0], buf, 2) == 2 && px_close(fds[0]) == 0 && px_close(fds[1]) == 0;
  EXPECT_TRUE(served) << strerror(errno);
  EXPECT_LT(monotonicMs() - start, 3000);

  // Out of descriptors: only the reserve is left, and a process with few links gets it.
  px_fini();
  sleepMs(200);  // the server notices the closed links
  rlimit saved{}, tight{};
  ASSERT_EQ(prlimit(server_, RLIMIT_NOFILE, nullptr, &saved), 0);
  tight = saved;
  tight.rlim_cur = static_cast<rlim_t>(lowestFreeDescriptor());
  ASSERT_EQ(prlimit(server_, RLIMIT_NOFILE, &tight, nullptr), 0);
  start = monotonicMs();
  EXPECT_GE(px_getppid(), 0) << strerror(errno);
  EXPECT_GE(px_reserve_fd(), 0) << strerror(errno);
  EXPECT_LT(monotonicMs() - start, 3000);
  ASSERT_EQ(prlimit(server_, RLIMIT_NOFILE, &saved, nullptr), 0);

  close(hold[1]);
  EXPECT_EQ(waitExit(hostile, 10000), 0);
  // Processes that connected by themselves and left are no orphans worth a line.
  EXPECT_EQ(serverLog().find("Entry for orphan process"), std::string::npos);
}

// 300 processes connected, one flooding signal broadcasts to all of them over 16 links (each a
// continue: a host signal per target); the round trips of another client stay short.
TEST_F(FairnessTest, ABroadcastFloodLeavesOthersTheirRoundTrips) {
  constexpr int kCrowd = 300;
  constexpr int kFloodLinks = 16;
  int ready[2], hold[2];
  ASSERT_EQ(pipe(ready), 0);
  ASSERT_EQ(pipe(hold), 0);
  std::vector<pid_t> crowd;
  for (int i = 0; i < kCrowd; ++i) {
    crowd.push_back(inChild([&] {
      close(hold[1]);
      RawLink link(service(PX_SERVICE_NAME));
      RawReply reply;
      put(ready[1], link.roundTrip(PX_CMD_GET_PARENT_ID, 1, {}, &reply));
      take(hold[0]);
    }));
  }
  for (int i = 0; i < kCrowd; ++i) ASSERT_EQ(take(ready[0]), 1);

  std::vector<uint8_t> everyone;
  putU64(everyone, PX_KILL_SELECTOR_ALL);
  putU32(everyone, PX_SIGCONT);
  everyone.resize(everyone.size() + PX_SIGNAL_INFO_SIZE);
  pid_t flooder = inChild([&] {
    Links links;
    std::vector<pollfd> polls;
    for (int i = 0; i < kFloodLinks; ++i) {
      links.push_back(std::make_unique<RawLink>(service(PX_SERVICE_NAME)));
      polls.push_back({links.back()->fd(), POLLIN, 0});
      for (int k = 0; k < 2; ++k) links.back()->send(requestFrame(PX_CMD_KILL_GROUP, 1, everyone));
    }
    put(ready[1], 1);
    for (;;) {
      if (poll(polls.data(), polls.size(), -1) < 0) continue;
      for (int i = 0; i < kFloodLinks; ++i) {
        RawReply reply;
        if ((polls[i].revents & POLLIN) && links[i]->receive(&reply, 0) == 1)
          links[i]->send(requestFrame(PX_CMD_KILL_GROUP, 1, everyone));
      }
    }
  });
  ASSERT_EQ(take(ready[0]), 1);
  sleepMs(300);

  RawLink link(service(PX_SERVICE_NAME));
  std::vector<int64_t> trips;
  for (uint64_t k = 0; k < 40; ++k) {
    int64_t start = monotonicMs();
    RawReply reply;
    ASSERT_TRUE(link.roundTrip(PX_CMD_GET_PARENT_ID, 100 + k, {}, &reply, 10000));
    trips.push_back(monotonicMs() - start);
    sleepMs(10);
  }
  kill(flooder, SIGKILL);
  close(hold[1]);
  waitExit(flooder, 5000);
  for (pid_t pid : crowd) waitExit(pid, 5000);
  std::sort(trips.begin(), trips.end());
  std::printf("round trips during the flood: median %" PRId64 " ms, slowest %" PRId64 " ms\n",
              trips[trips.size() / 2], trips.back());
  EXPECT_LT(trips[trips.size() / 2], 50);
  EXPECT_LT(trips.back(), 1000);
}

}  // namespace
