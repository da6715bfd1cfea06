// Channels end to end: real sockets in a private runtime directory, clients that speak the
// frame format byte by byte, a recording connection manager.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <thread>

#include "platform/error.h"
#include "platform_chn_support.h"
#include "posix/wire.h"

using namespace chntest;

namespace {

using ChannelTest = ServedChannelTest;

TEST_F(ChannelTest, LinkKnowsItsPeer) {
  Client client(path());
  ASSERT_TRUE(client.connected());
  ASSERT_TRUE(client.send(request(1, 1)));
  Ref<InMsg> msg = server->next();
  ASSERT_TRUE(msg);
  ASSERT_EQ(man->connectCount(), 1u);
  Ref<ChnLink> link = man->connected(0);
  EXPECT_EQ(msg->link().get(), link.get());
  EXPECT_EQ(link->peerPid(), static_cast<uint64_t>(::getpid()));
  EXPECT_TRUE(link->isOpen());
}

TEST_F(ChannelTest, RefusedLinkIsClosedWithoutDisconnect) {
  {
    std::lock_guard lock(man->mutex);
    man->refuse = true;
  }
  Client refused(path());
  ASSERT_TRUE(refused.connected());
  EXPECT_TRUE(refused.closedByPeer());
  EXPECT_EQ(man->connectCount(), 1u);
  EXPECT_FALSE(man->connected(0)->isOpen());
  {
    std::lock_guard lock(man->mutex);
    man->refuse = false;
  }
  Client accepted(path());
  ASSERT_TRUE(accepted.send(request(2, 2)));
  ASSERT_TRUE(server->next());
  EXPECT_EQ(man->disconnectCount(), 0u);
}

TEST_F(ChannelTest, RepliesCarryIdStatusDataAndBlocks) {
  Client client(path());
  ASSERT_TRUE(client.send(request(42, 0xABCDEF0123456789ull, {1, 2, 3}, {{9, {4, 5}}})));
  Ref<InMsg> msg = server->next();
  ASSERT_TRUE(msg);
  EXPECT_EQ(msg->code(), 42u);
  EXPECT_EQ(msg->remaining(), 3u);

  // Several replies to one request: all of them arrive, in order; the last from another thread.
  for (uint32_t status = 1; status <= 3; ++status) {
    Ref<OutMsg> out = OutMsg::create();
    out->setCode(status);
    uint32_t value = status * 1000;
    out->write(&value, sizeof value);
    out->addBlock(status, "blk", 3);
    if (status < 3) {
      EXPECT_TRUE(msg->reply(out));
    } else {
      bool sent = false;
      std::thread([&] { sent = msg->reply(out); }).join();
      EXPECT_TRUE(sent);
    }
  }
  for (uint32_t status = 1; status <= 3; ++status) {
    Frame reply;
    ASSERT_TRUE(client.recvFrame(&reply));
    EXPECT_EQ(reply.kind, PX_FRAME_REPLY);
    EXPECT_EQ(reply.code, status);
    EXPECT_EQ(reply.id, 0xABCDEF0123456789ull);
    ASSERT_EQ(reply.data.size(), 4u);
    EXPECT_EQ(getU32(reply.data.data()), status * 1000);
    ASSERT_EQ(reply.blocks.size(), 1u);
    EXPECT_EQ(reply.blocks[0], (Block{status, {'b', 'l', 'k'}}));
  }
}

TEST_F(ChannelTest, ReplyAfterTheClientLeftAnswersFalse) {
  Ref<InMsg> msg;
  {
    Client client(path());
    ASSERT_TRUE(client.send(request(1, 7)));
    msg = server->next();
    ASSERT_TRUE(msg);
  }
  ASSERT_TRUE(eventually([&] { return man->disconnectCount() == 1; }));
  EXPECT_TRUE(man->wasDisconnected(msg->link()));
  EXPECT_FALSE(msg->link()->isOpen());
  EXPECT_FALSE(msg->reply(OutMsg::create()));
}

TEST_F(ChannelTest, ProtocolErrorsCloseOnlyThatLink) {
  Client good(path());
  std::vector<std::pair<const char*, Bytes>> offences = {
      {"datagram longer than a frame", encode(request(1, 1, Bytes(PX_WIRE_MAX_FRAME, 7)))},
      {"frame that does not decode", Bytes(10, 0)},
      {"reply sent to the server", encode(Frame{PX_FRAME_REPLY, 1, 1, {}, {}})},
      {"bind sent to a plain channel", encode(Frame{PX_FRAME_BIND, 0, 1, {}, {}})},
  };
  size_t round = 0;
  for (auto& [why, raw] : offences) {
    Client bad(path());
    ASSERT_TRUE(bad.sendRaw(raw)) << why;
    EXPECT_TRUE(bad.closedByPeer()) << why;
    ++round;
    ASSERT_TRUE(eventually([&] { return man->disconnectCount() == round; })) << why;
    // The well-behaved link still gets its answers.
    ASSERT_TRUE(good.send(request(5, round)));
    Ref<InMsg> msg = server->next();
    ASSERT_TRUE(msg) << why;
    EXPECT_EQ(msg->id(), round);
    ASSERT_TRUE(msg->reply(OutMsg::create()));
    Frame reply;
    ASSERT_TRUE(good.recvFrame(&reply)) << why;
    EXPECT_EQ(reply.id, round);
  }
  EXPECT_EQ(man->disconnectCount(), offences.size());
}

TEST_F(ChannelTest, CloseEndsReceiveAndRemovesTheSocket) {
  Client client(path());
  ASSERT_TRUE(client.send(request(1, 1)));
  ASSERT_TRUE(server->next());
  chn->close();
  ASSERT_TRUE(eventually([&] { return server->ended(); }));
  EXPECT_TRUE(client.closedByPeer());
  EXPECT_EQ(man->disconnectCount(), 1u);
  struct stat st;
  EXPECT_NE(::lstat(path().c_str(), &st), 0);
  EXPECT_EQ(Client(path()).connected(), false);
  EXPECT_FALSE(chn->receive());
}

// The flooding test drives receive() on the test thread, so it knows exactly what is queued.
TEST(ChannelFairness, AFloodingClientDoesNotStarveAnother) {
  RuntimeDirScope rt;
  Ref<RecordingConMan> man = new RecordingConMan();
  Ref<Chn> chn = Chn::create(man);
  ASSERT_TRUE(chn);
  Client flood(chnPath(chn->id())), quiet(chnPath(chn->id()));
  for (uint64_t i = 0; i < 100; ++i) ASSERT_TRUE(flood.send(request(1, i)));
  ASSERT_TRUE(quiet.send(request(2, 1000)));
  int position = -1;
  for (int i = 0; i < 101 && position < 0; ++i) {
    Ref<InMsg> msg = chn->receive();
    ASSERT_TRUE(msg);
    if (msg->code() == 2) position = i;
  }
  EXPECT_GE(position, 0);
  EXPECT_LT(position, 3);
  chn->close();
  EXPECT_FALSE(chn->receive());
  EXPECT_EQ(man->disconnectCount(), 2u);
}

TEST(ChannelName, LiveNameIsRefusedAndStaleNameReplaced) {
  RuntimeDirScope rt;
  Ref<RecordingConMan> man = new RecordingConMan();
  std::string named = rt.dir() + "/chn/test.service";

  // A stale name: a socket file nobody listens on any more.
  {
    Ref<Chn> dead = Chn::create(man);
    ASSERT_TRUE(dead);
    ASSERT_EQ(::symlink(chnPath(dead->id()).c_str(), named.c_str()), 0);
  }
  Ref<Chn> first = Chn::create(man, String::create("test.service"));
  ASSERT_TRUE(first);
  char target[64] = {};
  ASSERT_GT(::readlink(named.c_str(), target, sizeof target - 1), 0);
  char hex[17];
  std::snprintf(hex, sizeof hex, "%016llx", static_cast<unsigned long long>(first->id()));
  EXPECT_STREQ(target, hex);
  Server server(first);
  Client byName(named);
  ASSERT_TRUE(byName.send(request(3, 3)));
  Ref<InMsg> msg = server.next();
  ASSERT_TRUE(msg);
  EXPECT_EQ(msg->code(), 3u);

  // A live holder keeps the name; the refused channel leaves no socket behind.
  Error::set(0);
  EXPECT_FALSE(Chn::create(man, String::create("test.service")));
  EXPECT_EQ(Error::get(), static_cast<uint32_t>(EADDRINUSE));
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(rt.dir() + "/chn"),
                          std::filesystem::directory_iterator()),
            2);

  server.stop();
  struct stat st;
  EXPECT_NE(::lstat(named.c_str(), &st), 0);
}

}  // namespace
