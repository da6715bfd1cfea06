// One client cannot take the others' room: the links a process holds are bound per channel and
// over every description's multiplex; when the server runs out of descriptors a process with
// few links still gets in; and a flood of broadcasts leaves the others their round trips.
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <memory>

#include "posix/fd_service.h"
#include "posix/posix_service.h"
#include "server_fixture.h"

namespace {

class FairnessTest : public ServerFixture {
 protected:
  // The server logs a line per process, which one check here looks for the absence of.
  void SetUp() override {
    setenv("POSIX_LOG_LEVEL", "1", 1);
    ServerFixture::SetUp();
    unsetenv("POSIX_LOG_LEVEL");
  }
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

  // Binds links to the service `e` while the binds are accepted (a multiplex closes a link
  // beyond its bounds at once); how many were.
  int bindUntilRefused(const px_node_entry& e, Links* held) {
    int n = 0;
    for (; auto link = bindEntry(e); ++n) held->push_back(std::move(link));
    return n;
  }
};

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
    for (int k = 0; k < 3; ++k) sendNumber(report[1], bindUntilRefused(streams[k], &held));
    held.erase(held.begin() + 1);  // a place comes free
    int again = 0;
    eventually([&] { return (again += bindUntilRefused(streams[2], &held)) > 0; });
    sendNumber(report[1], again);
    sendNumber(report[1], openUntilRefused(service(PX_SERVICE_NAME), PX_CMD_GET_PARENT_ID, &held));
    sendNumber(report[1], openUntilRefused(service(PX_FD_SERVICE_NAME), PX_FD_CMD_GET_TABLE, &held));
    takeNumber(hold[0]);
  });
  EXPECT_EQ(takeNumber(report[0]), 256) << "links on one multiplex";
  EXPECT_EQ(takeNumber(report[0]), 256);
  EXPECT_EQ(takeNumber(report[0]), 0) << "links on every multiplex together";
  EXPECT_EQ(takeNumber(report[0]), 1) << "a link that closed makes room";
  EXPECT_EQ(takeNumber(report[0]), 127) << "links on posix.service, beside the one it holds";
  EXPECT_EQ(takeNumber(report[0]), 128) << "links on posix.fd.service";

  // A well-behaved client beside it: new links on every kind of channel, answered at once.
  px_fini();
  expectOthersServed();

  // Out of descriptors: only the reserve is left, and a process with few links gets it.
  px_fini();
  sleepMs(200);  // the server notices the closed links
  rlimit saved{};
  ASSERT_EQ(prlimit(server_, RLIMIT_NOFILE, nullptr, &saved), 0);
  rlimit tight{static_cast<rlim_t>(lowestFreeServerFd()), saved.rlim_max};
  ASSERT_EQ(prlimit(server_, RLIMIT_NOFILE, &tight, nullptr), 0);
  int64_t start = monotonicMs();
  EXPECT_GE(px_getppid(), 0) << strerror(errno);
  EXPECT_GE(px_reserve_fd(), 0) << strerror(errno);
  EXPECT_LT(monotonicMs() - start, 3000);
  ASSERT_EQ(prlimit(server_, RLIMIT_NOFILE, &saved, nullptr), 0);

  close(hold[1]);
  EXPECT_EQ(waitExit(hostile, 10000), 0);
  // Processes that connected by themselves and left are no orphans worth a line.
  EXPECT_EQ(serverLog().find("Entry for orphan process"), std::string::npos);
}

// 300 processes connected, one flooding signal broadcasts to all of them over 16 links, and
// another flooding them to a group of 300 started programs (each a continue: a host signal per
// target); the round trips of another client stay short.
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
      sendNumber(ready[1], link.roundTrip(PX_CMD_GET_PARENT_ID, 1, {}, &reply));
      takeNumber(hold[0]);
    }));
  }
  // A group of kCrowd programs that sleep, led by a process that kills it (and itself) at the end.
  pid_t leader = inChild([&] {
    close(hold[1]);
    int started = 0;
    while (started < kCrowd && spawnRaw({"/bin/sleep", "60"}, {"POSIX_STDIN=", "POSIX_STDOUT=", "POSIX_STDERR="}) > 0)
      ++started;
    sendNumber(ready[1], started == kCrowd);
    takeNumber(hold[0]);
    px_killpg(0, PX_SIGKILL);
  });
  for (int i = 0; i <= kCrowd; ++i) ASSERT_EQ(takeNumber(ready[0]), 1);

  auto everyone = requestFrame(PX_CMD_KILL_GROUP, 1, signalRequest(PX_KILL_SELECTOR_ALL, PX_SIGCONT));
  auto group = requestFrame(PX_CMD_KILL_GROUP, 1, signalRequest(leader, PX_SIGCONT));
  pid_t flooder = flood(service(PX_SERVICE_NAME), kFloodLinks, 2, everyone);
  pid_t groupFlooder = flood(service(PX_SERVICE_NAME), kFloodLinks, 2, group);
  ASSERT_GT(flooder, 0);
  ASSERT_GT(groupFlooder, 0);
  RawLink link(service(PX_SERVICE_NAME));
  uint64_t id = 100;
  std::vector<int64_t> trips = timeCalls("round trips during the flood", 40, 10, [&] {
    RawReply reply;
    return link.roundTrip(PX_CMD_GET_PARENT_ID, ++id, {}, &reply, 10000);
  });
  kill(flooder, SIGKILL);
  kill(groupFlooder, SIGKILL);
  close(hold[1]);
  waitExit(flooder, 5000);
  waitExit(groupFlooder, 5000);
  waitExit(leader, 10000);
  for (pid_t pid : crowd) waitExit(pid, 5000);
  EXPECT_EQ(trips.size(), 40u);
  EXPECT_LT(trips[trips.size() / 2], 50);
  EXPECT_LT(trips.back(), 1000);
}

}  // namespace
