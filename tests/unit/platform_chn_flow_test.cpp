// Flow control of channels: replies that do not fit wait in a bounded queue, a client that never
// reads is dropped, and a channel short of descriptors neither spins nor gives up.
#include <gtest/gtest.h>
#include <time.h>

#include <atomic>

#include "platform_chn_support.h"

using namespace chntest;

namespace {

class ChannelFlowTest : public ServedChannelTest {
 protected:
  // A request from `client`, as the server received it.
  Ref<InMsg> ask(Client& client, uint64_t id) {
    if (!client.send(request(1, id))) return nullptr;
    return server->next();
  }
  static Ref<OutMsg> reply(uint32_t sequence, size_t padding) {
    Ref<OutMsg> out = OutMsg::create();
    out->write(&sequence, sizeof sequence);
    Bytes pad(padding, 0x33);
    if (padding) out->write(pad.data(), pad.size());
    return out;
  }
};

// Replies that do not fit the socket wait on the link, never blocking the replying thread, and
// reach a slow reader in order. A reader that never reads is dropped once its queue reaches the
// frame bound (small replies) or the byte bound (large ones), and the others go on.
TEST_F(ChannelFlowTest, SlowReadersGetEveryReplyInOrderAndNonReadersAreDroppedAtTheBounds) {
  Client slow(path()), busy(path()), bulky(path());
  Ref<InMsg> toSlow = ask(slow, 1), toBusy = ask(busy, 2), toBulky = ask(bulky, 3);
  ASSERT_TRUE(toSlow && toBusy && toBulky);
  const uint32_t queued = 900;  // far more than the socket holds, inside the queue's bounds
  for (uint32_t i = 0; i < queued; ++i) ASSERT_TRUE(toSlow->reply(reply(i, 1000))) << i;

  uint32_t sent = 0;
  while (sent < 10 * ChnLink::kMaxQueuedFrames && toBusy->reply(reply(sent, 16))) ++sent;
  EXPECT_GE(sent, ChnLink::kMaxQueuedFrames);
  EXPECT_LT(sent, 10 * ChnLink::kMaxQueuedFrames);
  const size_t big = 64 * 1024;
  uint32_t bulkySent = 0;
  while (bulkySent < ChnLink::kMaxQueuedFrames && toBulky->reply(reply(bulkySent, big)))
    ++bulkySent;
  EXPECT_GE(bulkySent, ChnLink::kMaxQueuedBytes / (big + 28) - 1);
  EXPECT_LT(bulkySent, ChnLink::kMaxQueuedBytes / big + 64);

  for (uint32_t i = 0; i < queued; ++i) {
    Frame f;
    ASSERT_TRUE(slow.recvFrame(&f)) << i;
    ASSERT_EQ(f.data.size(), 1004u);
    EXPECT_EQ(getU32(f.data.data()), i);
  }
  EXPECT_TRUE(toSlow->link()->isOpen());
  // The two others were dropped: the manager hears of it, the clients see the end, replies fail.
  ASSERT_TRUE(eventually([&] { return man->disconnectCount() == 2; }));
  EXPECT_TRUE(man->wasDisconnected(toBusy->link()) && man->wasDisconnected(toBulky->link()));
  EXPECT_TRUE(busy.closedByPeer() && bulky.closedByPeer());
  EXPECT_FALSE(toBusy->reply(reply(0, 0)));
}

// Replies race with links closing and with new links taking over their descriptor numbers: a
// reply meant for a link that has gone must never reach whoever holds the number now.
TEST_F(ChannelFlowTest, RepliesToGoneLinksNeverReachNewOnes) {
  std::mutex mutex;
  std::vector<Ref<InMsg>> answered;  // guarded by mutex
  std::atomic<bool> stop{false};
  std::thread replier([&] {
    while (!stop.load()) {
      std::vector<Ref<InMsg>> all;
      {
        std::lock_guard lock(mutex);
        all = answered;
      }
      for (const Ref<InMsg>& msg : all) msg->reply(reply(static_cast<uint32_t>(msg->id()), 0));
      std::this_thread::yield();
    }
  });
  struct Joiner {
    std::atomic<bool>& stop;
    std::thread& thread;
    ~Joiner() { stop = true; thread.join(); }
  } joiner{stop, replier};

  const uint64_t rounds = 30;
  for (uint64_t round = 1; round <= rounds; ++round) {
    Client client(path());
    Ref<InMsg> msg = ask(client, round);
    ASSERT_TRUE(msg);
    {
      std::lock_guard lock(mutex);
      answered.push_back(msg);
    }
    for (int k = 0; k < 5; ++k) {
      Frame f;
      ASSERT_TRUE(client.recvFrame(&f));
      ASSERT_EQ(f.id, round);
    }
  }
  ASSERT_TRUE(eventually([&] { return man->disconnectCount() == rounds; }));
}

double cpuSeconds() {
  timespec now;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return now.tv_sec + now.tv_nsec / 1e9;
}

TEST_F(ChannelFlowTest, OutOfDescriptorsPausesAcceptingWithoutSpinning) {
  // The connection waits in the backlog: the channel cannot take a descriptor for it.
  double spent = 0;
  size_t acceptedMeanwhile = 1;
  auto client = connectStarved(path(), [&] {
    double before = cpuSeconds();
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    spent = cpuSeconds() - before;
    acceptedMeanwhile = man->connectCount();
  });
  ASSERT_TRUE(client);
  EXPECT_LT(spent, 0.2) << "the channel kept retrying accept";
  EXPECT_EQ(acceptedMeanwhile, 0u);

  // With descriptors back, the waiting link is taken without any other event.
  ASSERT_TRUE(eventually([&] { return man->connectCount() == 1; }, 3000));
  ASSERT_TRUE(client->send(request(9, 9)));
  Ref<InMsg> msg = server->next();
  ASSERT_TRUE(msg && msg->code() == 9u);
}

}  // namespace
