// Flow control of channels: replies that do not fit wait in a bounded queue, a client that never
// reads is dropped, and a channel short of descriptors neither spins nor gives up.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/un.h>
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

TEST_F(ChannelFlowTest, QueuedRepliesReachASlowReaderInOrder) {
  Client slow(chnPath(chn->id()));
  Ref<InMsg> msg = ask(slow, 1);
  ASSERT_TRUE(msg);
  // Far more than the socket holds, still inside the queue's bounds; nobody reads meanwhile,
  // and no reply may block the replying thread.
  const uint32_t count = 900;
  for (uint32_t i = 0; i < count; ++i) ASSERT_TRUE(msg->reply(reply(i, 1000))) << i;
  for (uint32_t i = 0; i < count; ++i) {
    Frame f;
    ASSERT_TRUE(slow.recvFrame(&f)) << i;
    ASSERT_EQ(f.data.size(), 1004u);
    EXPECT_EQ(getU32(f.data.data()), i);
  }
  EXPECT_TRUE(msg->link()->isOpen());
  EXPECT_EQ(man->disconnectCount(), 0u);
}

TEST_F(ChannelFlowTest, ANonReaderIsDroppedAtTheBoundAndOthersGoOn) {
  Client quiet(chnPath(chn->id())), busy(chnPath(chn->id())), bulky(chnPath(chn->id()));
  Ref<InMsg> toQuiet = ask(quiet, 1), toBusy = ask(busy, 2), toBulky = ask(bulky, 3);
  ASSERT_TRUE(toQuiet && toBusy && toBulky);

  // Small replies: the frame count bound ends it.
  uint32_t sent = 0;
  while (sent < 10 * ChnLink::kMaxQueuedFrames && toBusy->reply(reply(sent, 16))) {
    ++sent;
    if (sent % 500 == 0) {  // the other client is served all along
      ASSERT_TRUE(toQuiet->reply(reply(sent, 0)));
      Frame f;
      ASSERT_TRUE(quiet.recvFrame(&f));
      EXPECT_EQ(getU32(f.data.data()), sent);
    }
  }
  EXPECT_GE(sent, ChnLink::kMaxQueuedFrames);
  EXPECT_LT(sent, 10 * ChnLink::kMaxQueuedFrames);

  // Large replies: the byte bound ends it long before the frame count would.
  const size_t big = 64 * 1024;
  uint32_t bulkySent = 0;
  while (bulkySent < ChnLink::kMaxQueuedFrames && toBulky->reply(reply(bulkySent, big)))
    ++bulkySent;
  EXPECT_GE(bulkySent, ChnLink::kMaxQueuedBytes / (big + 28) - 1);
  EXPECT_LT(bulkySent, ChnLink::kMaxQueuedBytes / big + 64);

  // Both were dropped: the manager hears of it, the clients see the end, replies fail.
  ASSERT_TRUE(eventually([&] { return man->disconnectCount() == 2; }));
  EXPECT_TRUE(man->wasDisconnected(toBusy->link()));
  EXPECT_TRUE(man->wasDisconnected(toBulky->link()));
  EXPECT_TRUE(busy.closedByPeer());
  EXPECT_TRUE(bulky.closedByPeer());
  EXPECT_FALSE(toBusy->reply(reply(0, 0)));

  Ref<InMsg> again = ask(quiet, 4);
  ASSERT_TRUE(again);
  ASSERT_TRUE(again->reply(reply(77, 0)));
  Frame f;
  ASSERT_TRUE(quiet.recvFrame(&f));
  EXPECT_EQ(f.id, 4u);
}

TEST_F(ChannelFlowTest, ShutdownFromAnyThreadDisconnectsTheLink) {
  Client client(chnPath(chn->id()));
  Ref<InMsg> msg = ask(client, 1);
  ASSERT_TRUE(msg);
  std::thread([&] { msg->link()->shutdown(); }).join();
  EXPECT_FALSE(msg->link()->isOpen());
  EXPECT_FALSE(msg->reply(reply(1, 0)));
  EXPECT_TRUE(client.closedByPeer());
  ASSERT_TRUE(eventually([&] { return man->disconnectCount() == 1; }));
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
    Client client(chnPath(chn->id()));
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
  int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  ASSERT_GE(fd, 0);
  rlimit saved;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
  int lowestFree = ::dup(0);
  ASSERT_GE(lowestFree, 0);
  ::close(lowestFree);
  rlimit tight = saved;
  tight.rlim_cur = static_cast<rlim_t>(lowestFree);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &tight), 0);

  // The connection waits in the backlog: the channel cannot take a descriptor for it.
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::string path = chnPath(chn->id());
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  int rc = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
  double before = cpuSeconds();
  std::this_thread::sleep_for(std::chrono::milliseconds(400));
  double spent = cpuSeconds() - before;
  size_t acceptedMeanwhile = man->connectCount();
  setrlimit(RLIMIT_NOFILE, &saved);
  ASSERT_EQ(rc, 0);
  EXPECT_LT(spent, 0.2) << "the channel kept retrying accept";
  EXPECT_EQ(acceptedMeanwhile, 0u);

  // With descriptors back, the waiting link is taken without any other event.
  ASSERT_TRUE(eventually([&] { return man->connectCount() == 1; }, 3000));
  Bytes raw = encode(request(9, 9));
  ASSERT_EQ(::send(fd, raw.data(), raw.size(), 0), static_cast<ssize_t>(raw.size()));
  Ref<InMsg> msg = server->next();
  ASSERT_TRUE(msg);
  EXPECT_EQ(msg->code(), 9u);
  ::close(fd);
}

}  // namespace
