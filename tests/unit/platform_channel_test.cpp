// Channels end to end: real sockets in a private runtime directory, clients that speak the
// frame format byte by byte, a recording connection manager.
#include <gtest/gtest.h>

#include <filesystem>
#include <thread>

#include "platform/error.h"
#include "platform_chn_support.h"
#include "posix/wire.h"

using namespace chntest;

namespace {

using ChannelTest = ServedChannelTest;

TEST_F(ChannelTest, RefusedLinkIsClosedWithoutDisconnect) {
  man->refuse = true;
  Client refused(path());
  ASSERT_TRUE(refused.connected());
  EXPECT_TRUE(refused.closedByPeer());
  EXPECT_EQ(man->connectCount(), 1u);
  EXPECT_FALSE(man->connected(0)->isOpen());
  man->refuse = false;
  Client accepted(path());
  ASSERT_TRUE(accepted.send(request(2, 2)));
  ASSERT_TRUE(server->next());
  EXPECT_EQ(man->disconnectCount(), 0u);
}

// Several replies to one request all arrive, in order, with the request's id; the last one is
// sent from another thread.
TEST_F(ChannelTest, LinkKnowsItsPeerAndRepliesFromAnyThreadArriveInOrder) {
  Client client(path());
  ASSERT_TRUE(client.send(request(42, 0xABCDEF0123456789ull, {1, 2, 3})));
  Ref<InMsg> msg = server->next();
  ASSERT_TRUE(msg);
  EXPECT_EQ(msg->code(), 42u);
  ASSERT_EQ(man->connectCount(), 1u);
  EXPECT_EQ(msg->link().get(), man->connected(0).get());
  EXPECT_EQ(msg->link()->peerPid(), static_cast<uint64_t>(::getpid()));

  for (uint32_t status = 1; status <= 3; ++status) {
    Ref<OutMsg> out = OutMsg::create();
    out->setCode(status);
    out->write(&status, sizeof status);
    bool sent = false;
    if (status < 3) sent = msg->reply(out);
    else std::thread([&] { sent = msg->reply(out); }).join();
    EXPECT_TRUE(sent) << status;
  }
  for (uint32_t status = 1; status <= 3; ++status) {
    Frame reply;
    ASSERT_TRUE(client.recvFrame(&reply));
    EXPECT_TRUE(reply.kind == PX_FRAME_REPLY && reply.code == status) << status;
    EXPECT_EQ(reply.id, 0xABCDEF0123456789ull);
    ASSERT_EQ(reply.data.size(), 4u);
    EXPECT_EQ(getU32(reply.data.data()), status);
  }
}

// The client hanging up and the server shutting the link down (from any thread) end it alike.
TEST_F(ChannelTest, ALinkEndedFromEitherSideRefusesRepliesAndIsDisconnectedOnce) {
  for (bool serverSide : {false, true}) {
    SCOPED_TRACE(serverSide ? "shut down by the server" : "left by the client");
    auto client = std::make_unique<Client>(path());
    ASSERT_TRUE(client->send(request(1, 7)));
    Ref<InMsg> msg = server->next();
    ASSERT_TRUE(msg);
    if (serverSide) {
      std::thread([&] { msg->link()->shutdown(); }).join();
      EXPECT_FALSE(msg->link()->isOpen());  // at once, not when the serving thread notices
      EXPECT_TRUE(client->closedByPeer());
    }
    client.reset();
    ASSERT_TRUE(eventually([&] { return man->wasDisconnected(msg->link()); }));
    EXPECT_FALSE(msg->link()->isOpen());
    EXPECT_FALSE(msg->reply(OutMsg::create()));
  }
  EXPECT_EQ(man->disconnectCount(), 2u);
}

TEST_F(ChannelTest, ProtocolErrorsCloseOnlyThatLink) {
  Client good(path());
  std::pair<const char*, Bytes> offences[] = {
      {"datagram longer than a frame", encode(request(1, 1, Bytes(PX_WIRE_MAX_FRAME, 7)))},
      {"frame that does not decode", Bytes(10, 0)},
      {"reply sent to the server", encode(Frame{PX_FRAME_REPLY, 1, 1, {}, {}})},
      {"bind sent to a plain channel", encode(Frame{PX_FRAME_BIND, 0, 1, {}, {}})},
  };
  uint64_t round = 0;
  for (auto& [why, raw] : offences) {
    SCOPED_TRACE(why);
    Client bad(path());
    ASSERT_TRUE(bad.sendRaw(raw));
    EXPECT_TRUE(bad.closedByPeer());
    ++round;
    ASSERT_TRUE(eventually([&] { return man->disconnectCount() == round; }));
    ASSERT_TRUE(good.send(request(5, round)));  // the well-behaved link still gets its answers
    Ref<InMsg> msg = server->next();
    ASSERT_TRUE(msg && msg->id() == round && msg->reply(OutMsg::create()));
    Frame reply;
    ASSERT_TRUE(good.recvFrame(&reply) && reply.id == round);
  }
}

TEST_F(ChannelTest, CloseEndsReceiveEveryLinkAndRemovesTheSocket) {
  Client one(path()), two(path());
  ASSERT_TRUE(one.send(request(1, 1)) && two.send(request(1, 2)));
  ASSERT_TRUE(server->next() && server->next());
  chn->close();
  ASSERT_TRUE(eventually([&] { return server->ended(); }));
  EXPECT_TRUE(one.closedByPeer() && two.closedByPeer());
  EXPECT_EQ(man->disconnectCount(), 2u);
  EXPECT_FALSE(std::filesystem::exists(path()));
  EXPECT_FALSE(Client(path()).connected());
  EXPECT_FALSE(chn->receive());
}

// The flooding test drives receive() on the test thread, so it knows exactly what is queued.
TEST(ChannelFairness, AFloodingClientDoesNotStarveAnother) {
  RuntimeDirScope rt;
  Ref<Chn> chn = Chn::create(new RecordingConMan());
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
  EXPECT_TRUE(position >= 0 && position < 3) << position;
  chn->close();
}

}  // namespace
