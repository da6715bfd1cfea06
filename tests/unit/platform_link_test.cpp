// Links of channels and service multiplexes where only a unit test can force the situation:
// replies queued for a slow or absent reader, replies racing with links that go, accepting
// while the process has no descriptor to spare, and closing while clients connect. (Routing,
// binds, broken frames, a flooding client, the link bounds and multiplexes that close
// themselves with their last link: the behaviour tests on pipes, files and fairness.)
#include <gtest/gtest.h>
#include <time.h>

#include <atomic>
#include <filesystem>

#include "platform_chn_support.h"
#include "platform_multiplex_support.h"

using namespace chntest;
using namespace muxtest;

namespace {

class ChannelLinkTest : public ::testing::Test {
 protected:
  // A request from `client`, as the server received it.
  Ref<InMsg> ask(Client& client, uint64_t id) {
    return client.send(request(1, id)) ? server.next() : nullptr;
  }
  static Ref<OutMsg> reply(uint32_t sequence, size_t padding) {
    Ref<OutMsg> out = OutMsg::create();
    out->write(&sequence, sizeof sequence);
    Bytes pad(padding, 0x33);
    if (padding) out->write(pad.data(), pad.size());
    return out;
  }
  std::string path() const { return chnPath(chn->id()); }

  RuntimeDirScope rt;
  Ref<RecordingConMan> man = new RecordingConMan();
  Ref<Chn> chn = Chn::create(man);
  Server server{chn};
};

// Replies that do not fit the socket wait on the link, never blocking the replying thread, and
// reach a slow reader in order. A reader that never reads is dropped once its queue reaches the
// frame bound (small replies) or the byte bound (large ones), and the others go on.
TEST_F(ChannelLinkTest, SlowReadersGetEveryReplyInOrderAndNonReadersAreDroppedAtTheBounds) {
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

// Requests a client sent in a row are read together; their replies wait until the service has
// handled the last of them (it asks for the next request), then all go out, in order.
TEST_F(ChannelLinkTest, RepliesToABatchGoOutTogetherOnceItIsHandled) {
  Ref<Chn> own = Chn::create(new RecordingConMan());
  ASSERT_TRUE(own);
  Client c(chnPath(own->id()));
  for (uint64_t id = 1; id <= 3; ++id) ASSERT_TRUE(c.send(request(1, id)));
  Bytes raw;
  for (uint64_t id = 1; id <= 3; ++id) {
    Ref<InMsg> msg = own->receive(2000);
    ASSERT_TRUE(msg);
    EXPECT_EQ(msg->id(), id);
    ASSERT_TRUE(msg->reply(reply(static_cast<uint32_t>(id), 0)));
    EXPECT_EQ(c.recvRaw(&raw, 0), -1) << "a reply went out before the batch was handled";
  }
  EXPECT_FALSE(own->receive(50));  // handled: the replies go
  for (uint32_t id = 1; id <= 3; ++id) {
    Frame f;
    ASSERT_TRUE(c.recvFrame(&f, 2000));
    EXPECT_EQ(f.id, id);
  }
  own->close();
}

// Replies race with links closing and with new links taking over their descriptor numbers: a
// reply meant for a link that has gone must never reach whoever holds the number now.
TEST_F(ChannelLinkTest, RepliesToGoneLinksNeverReachNewOnes) {
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
      EXPECT_EQ(f.id, round);
    }
  }
  stop = true;
  replier.join();
  EXPECT_TRUE(eventually([&] { return man->disconnectCount() == rounds; }));
}

// Clients keep connecting and binding while the multiplex closes. Every link that got in is
// shut down and disconnected, nothing binds once close() has returned (a link that reaches the
// socket, kept as a spare, is closed at once), and no thread or descriptor stays behind but
// the spare sockets (the pool's threads end a moment after the last link).
TEST_F(MultiplexTest, CloseRacingIncomingConnectsEndsEveryLink) {
  auto openFds = [] {
    auto all = std::filesystem::directory_iterator("/proc/self/fd");
    return std::distance(begin(all), end(all));
  };
  const auto fds = openFds();
  for (int round = 0; round < 10; ++round) {
    Ref<RecordingConMan> man = new RecordingConMan();
    Ref<Multiplex> racing = Multiplex::create(String::create(name.c_str()));
    ASSERT_TRUE(racing);
    const uint64_t service = racing->add(echo(1), man);
    ASSERT_NE(service, 0u);
    const std::string where = chnPath(racing->channelId());
    std::atomic<bool> closeReturned{false};
    std::atomic<int> lateBinds{0};
    std::vector<std::vector<std::unique_ptr<Client>>> held(4);
    std::vector<std::thread> connectors;
    for (size_t t = 0; t < held.size(); ++t) {
      connectors.emplace_back([&, t] {
        while (held[t].size() < 40) {
          const bool after = closeReturned.load();
          auto c = std::make_unique<Client>(where);
          if (!c->connected()) {
            if (after) return;
            continue;
          }
          // Answered, or ended by the close; never answered after it.
          if (binds(*c, service, 200) && after) ++lateBinds;
          held[t].push_back(std::move(c));
        }
      });
    }
    std::this_thread::sleep_for(std::chrono::microseconds(1000 * round));
    racing->close();
    closeReturned = true;
    for (auto& t : connectors) t.join();
    EXPECT_EQ(lateBinds.load(), 0) << round;
    for (auto& clients : held)
      for (auto& c : clients) EXPECT_TRUE(c->closedByPeer()) << round;
    EXPECT_TRUE(racing->wait(5000)) << round;
    EXPECT_EQ(man->disconnectCount(), man->connectCount()) << round;
  }
  EXPECT_TRUE(eventually([&] { return threadsNamed("MuxServe") == 0; }));
  EXPECT_TRUE(eventually([&] { return openFds() <= fds + static_cast<long>(Multiplex::kSpareSockets); }));
}

// A closed multiplex's socket serves the next multiplex (same channel id, no new file), whose
// services are numbered past the old ones: a client that kept the old node reaches nothing.
// (When the spares go with their files: the close queue tests.)
TEST_F(MultiplexTest, ASpareSocketServesTheNextMultiplexButNeverTheOldServices) {
  const uint64_t old = mux->add(echo(1), new RecordingConMan());
  Client early(path);
  ASSERT_TRUE(binds(early, old));
  mux->close();
  ASSERT_TRUE(mux->wait(5000));
  EXPECT_TRUE(early.closedByPeer());
  Client late(path);  // reaches the spare
  EXPECT_FALSE(binds(late, old, 500));

  Ref<Multiplex> next = Multiplex::create(String::create(name.c_str()));
  ASSERT_TRUE(next);
  EXPECT_EQ(next->channelId(), mux->channelId());
  const uint64_t fresh = next->add(echo(2), new RecordingConMan());
  EXPECT_GT(fresh, old);
  Client stale(path);
  EXPECT_FALSE(binds(stale, old, 500));
  Client now(path);
  ASSERT_TRUE(binds(now, fresh));
  Frame f;
  ASSERT_TRUE(now.send(request(7, 1)) && now.recvFrame(&f));
  EXPECT_EQ(f.code, 2007u);
  next->close();
  ASSERT_TRUE(next->wait(5000));
}

}  // namespace
