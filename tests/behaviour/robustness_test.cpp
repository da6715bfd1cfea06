// Robustness of the server against bad and greedy clients: malformed and oversize frames,
// absurd counts, a client that never reads, and a client killed with requests kept.
#include <errno.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "posix/wire.h"
#include "posix_client.h"
#include "raw_link.h"
#include "server_fixture.h"

namespace {

class RobustnessTest : public ServerFixture {
 protected:
  std::string socketPath() const { return path("chn/posix.service"); }

  // A getParentId round trip on a fresh link.
  bool serverAnswers() {
    RawLink link(socketPath());
    RawReply reply;
    return link.connected() && link.roundTrip(PX_CMD_GET_PARENT_ID, 1, {}, &reply) &&
           reply.code == PX_RESULT_DONE;
  }
};

std::vector<uint8_t> header(uint32_t kind, uint32_t code, uint32_t dataLen, uint32_t blocks) {
  std::vector<uint8_t> f;
  putU32(f, kind);
  putU32(f, code);
  putU64(f, 1);
  putU32(f, dataLen);
  putU32(f, blocks);
  return f;
}

TEST_F(RobustnessTest, MalformedFramesCloseOnlyTheirLink) {
  RawLink good(socketPath());
  ASSERT_TRUE(good.connected());
  RawReply reply;
  ASSERT_TRUE(good.roundTrip(PX_CMD_GET_PARENT_ID, 1, {}, &reply));

  std::vector<uint8_t> trailing = header(PX_FRAME_REQUEST, PX_CMD_GET_PARENT_ID, 0, 0);
  trailing.resize(trailing.size() + 4);
  std::vector<uint8_t> missingBlock = header(PX_FRAME_REQUEST, PX_CMD_GET_PARENT_ID, 0, 1);
  std::vector<uint8_t> blockPastEnd = header(PX_FRAME_REQUEST, PX_CMD_GET_PARENT_ID, 0, 1);
  putU32(blockPastEnd, 2);
  putU32(blockPastEnd, 64);
  const std::vector<std::vector<uint8_t>> bad = {
      std::vector<uint8_t>(10, 1),                                  // shorter than a header
      header(PX_FRAME_REQUEST, PX_CMD_GET_PARENT_ID, 100, 0),      // data past the end
      trailing,                                                     // bytes after the frame
      missingBlock,                                                 // a block that is not there
      blockPastEnd,                                                 // a block past the end
      header(PX_FRAME_REPLY, 1, 0, 0),                              // not a request
      header(7, 1, 0, 0),                                           // no such kind
  };
  for (size_t k = 0; k < bad.size(); ++k) {
    RawLink link(socketPath());
    ASSERT_TRUE(link.connected());
    ASSERT_TRUE(link.send(bad[k])) << k;
    EXPECT_TRUE(link.closedByServer(3000)) << "frame " << k << " did not close its link";
    EXPECT_TRUE(good.roundTrip(PX_CMD_GET_PARENT_ID, 10 + k, {}, &reply)) << k;
  }
}

TEST_F(RobustnessTest, WellFormedButWrongRequestsAreAnswered) {
  RawLink link(socketPath());
  RawReply reply;
  ASSERT_TRUE(link.roundTrip(0, 1, {}, &reply));
  EXPECT_EQ(reply.code, PX_RESULT_FAILED);
  ASSERT_TRUE(link.roundTrip(12, 2, {}, &reply));
  EXPECT_EQ(reply.code, PX_RESULT_FAILED);
  std::vector<uint8_t> shortKill;
  putU32(shortKill, 5);  // half a pid
  ASSERT_TRUE(link.roundTrip(PX_CMD_KILL, 3, shortKill, &reply));
  EXPECT_EQ(reply.code, PX_RESULT_SHORT_REQUEST);
  ASSERT_TRUE(link.roundTrip(PX_CMD_GET_GROUP_ID, 4, {}, &reply));
  EXPECT_EQ(reply.code, PX_RESULT_SHORT_REQUEST);
  ASSERT_TRUE(link.roundTrip(PX_CMD_WAIT, 5, {}, &reply));
  EXPECT_EQ(reply.code, PX_RESULT_SHORT_REQUEST);
  EXPECT_TRUE(link.roundTrip(PX_CMD_GET_PARENT_ID, 6, {}, &reply));  // the link stays open
}

TEST_F(RobustnessTest, OversizeFrameClosesItsLink) {
  RawLink link(socketPath());
  ASSERT_TRUE(link.connected());
  // The largest frame is fine (a getParentId ignores its data).
  std::vector<uint8_t> largest(PX_WIRE_MAX_FRAME - PX_FRAME_HEADER_SIZE, 0);
  RawReply reply;
  ASSERT_TRUE(link.roundTrip(PX_CMD_GET_PARENT_ID, 1, largest, &reply));
  EXPECT_EQ(reply.code, PX_RESULT_DONE);
  std::vector<uint8_t> over(PX_WIRE_MAX_FRAME - PX_FRAME_HEADER_SIZE + 1, 0);
  ASSERT_TRUE(link.send(requestFrame(PX_CMD_GET_PARENT_ID, 2, over))) << strerror(errno);
  EXPECT_TRUE(link.closedByServer(3000));
  EXPECT_TRUE(serverAnswers());
}

TEST_F(RobustnessTest, AbsurdCountsInASpawnAreAnsweredQuickly) {
  RawLink link(socketPath());
  std::vector<uint8_t> manyArgs;
  putString(manyArgs, "/bin/true");
  putU32(manyArgs, 0);
  putU64(manyArgs, uint64_t{1} << 40);
  std::vector<uint8_t> manyEnv;
  putString(manyEnv, "/bin/true");
  putU32(manyEnv, 0);
  putU64(manyEnv, 0);
  putU64(manyEnv, uint64_t{1} << 40);
  std::vector<uint8_t> hugeString;
  putU32(hugeString, 0xFFFFFFF0u);  // a path length far past the frame
  for (const auto& data : {manyArgs, manyEnv, hugeString}) {
    for (uint32_t code : {PX_CMD_SPAWN, PX_CMD_SPAWN_SHARED}) {
      int64_t start = monotonicMs();
      RawReply reply;
      ASSERT_TRUE(link.roundTrip(code, 1, data, &reply, 5000)) << "no answer to spawn " << code;
      EXPECT_EQ(reply.code, PX_RESULT_FAILED);
      EXPECT_LT(monotonicMs() - start, 3000);
    }
  }
  int64_t child = spawnProbe({"exit", "1"});
  ASSERT_GT(child, 0);
  EXPECT_EQ(px_waitpid(child, nullptr, 0), child);
}

TEST_F(RobustnessTest, ClientThatNeverReadsDoesNotStallOthers) {
  std::atomic<bool> flooding{true};
  std::atomic<bool> dropped{false};
  std::atomic<long> sent{0};
  std::thread flooder([&] {
    RawLink greedy(socketPath());
    std::vector<uint8_t> frame = requestFrame(PX_CMD_GET_PARENT_ID, 1);
    int64_t deadline = monotonicMs() + 10000;
    while (monotonicMs() < deadline) {
      if (greedy.send(frame, true)) {
        ++sent;
      } else if (errno == EAGAIN) {
        sleepMs(1);
      } else {
        dropped = true;  // the server gave up on the link
        break;
      }
    }
    flooding = false;
  });
  RawLink other(socketPath());
  RawReply reply;
  int answered = 0, slow = 0;
  for (uint64_t k = 0; flooding || answered < 20; ++k) {
    int64_t start = monotonicMs();
    if (!other.roundTrip(PX_CMD_GET_PARENT_ID, 100 + k, {}, &reply, 3000)) break;
    if (monotonicMs() - start > 2000) ++slow;
    ++answered;
    sleepMs(20);
  }
  flooder.join();
  EXPECT_GE(answered, 20);
  EXPECT_EQ(slow, 0);
  EXPECT_TRUE(dropped) << "the link was not dropped after " << sent.load() << " requests";
  EXPECT_TRUE(serverAnswers());
}

// A client killed while it holds a kept signal wait and a blocking wait: its requests are
// dropped, its child's end is still handled, and the server's heap and threads come back.
TEST_F(RobustnessTest, KilledClientWithKeptRequestsLeavesNoTrace) {
  auto scenario = [&] {
    OutputPipe out;
    int64_t holder = spawnProbe({"hold", helper("px_probe"), "sleep", "30000"}, &out);
    ASSERT_GT(holder, 0);
    std::string line = expectLine(out, "holding");
    ASSERT_FALSE(line.empty());
    int64_t grandchild = std::stoll(line.substr(8));
    sleepMs(200);  // let both waits reach the server
    ASSERT_EQ(px_kill(holder, PX_SIGKILL), 0);
    int status = -1;
    ASSERT_EQ(px_waitpid(holder, &status, 0), holder);
    EXPECT_EQ(status, 128 + 9);
    // The orphan never connected: the host kill is the only signal that reaches it.
    EXPECT_EQ(px_kill(grandchild, PX_SIGKILL), 0);
    int sig = 0;
    while (px_sigtimedwait(&sig, nullptr, 100) == 0) {
    }
  };
  // The stats once every agent of an ended program has finished (they end shortly after).
  auto settled = [&](uint64_t idleThreads, HeapStats* out) {
    int64_t deadline = monotonicMs() + 5000;
    while (heapStats(out) && out->threads != idleThreads && monotonicMs() < deadline) sleepMs(50);
    return out->threads == idleThreads;
  };
  HeapStats idle, before, after;
  ASSERT_TRUE(heapStats(&idle));
  scenario();  // warm-up: the server's tables grow once
  ASSERT_TRUE(settled(idle.threads, &before));
  for (int round = 0; round < 3; ++round) scenario();
  ASSERT_TRUE(settled(idle.threads, &after)) << idle.threads << " -> " << after.threads;
  EXPECT_EQ(after.threads, before.threads);
  EXPECT_LE(after.blocks, before.blocks + 2) << before.blocks << " -> " << after.blocks;
  EXPECT_LE(after.bytes, before.bytes + 1024) << before.bytes << " -> " << after.bytes;
  EXPECT_TRUE(serverAnswers());
}

TEST_F(RobustnessTest, ADescriptorTableIsBounded) {
  int taken = 0;
  int last = -1;
  while (taken < 5000) {
    int fd = px_reserve_fd();
    if (fd < 0) break;
    last = fd;
    ++taken;
  }
  EXPECT_EQ(errno, EMFILE);
  EXPECT_EQ(taken, 4096 - 3) << "the placeholders 0, 1 and 2 count too";
  int fds[2];
  EXPECT_EQ(px_pipe(fds), -1);
  EXPECT_EQ(errno, EMFILE);
  ASSERT_EQ(px_close(last), 0);
  ASSERT_EQ(px_close(last - 1), 0);
  ASSERT_EQ(px_pipe(fds), 0) << "closing makes room: " << strerror(errno);
  EXPECT_EQ(px_write(fds[1], "ok", 2), 2);
  char buf[4];
  EXPECT_EQ(px_read(fds[0], buf, sizeof buf), 2);
  EXPECT_TRUE(serverAnswers());
}

}  // namespace
