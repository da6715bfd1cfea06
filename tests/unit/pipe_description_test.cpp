// Pipe descriptions and published pipe ends: how each end's node is laid out, an end marked and
// its clients let go at once when its description dies, and published ends that close with
// their last connection or are withdrawn while nobody has claimed them.
#include <gtest/gtest.h>

#include <posix/nodes.h>

#include "fifo/autoclose_multiplex.h"
#include "fifo/fifo_pairs.h"
#include "platform_chn_support.h"
#include "platform_multiplex_support.h"

using namespace chntest;
using Libraries::Service::Multiplex;

namespace {

// A client bound to one entry of a node.
std::unique_ptr<Client> bindTo(const NodeEntry& entry) {
  auto client = std::make_unique<Client>(chnPath(entry.channel));
  EXPECT_TRUE(muxtest::binds(*client, entry.service));
  return client;
}

// Writes through a stream resolver; answers the count written, or -1 without an answer.
int64_t streamWrite(Client& c, const std::string& text) {
  Bytes data;
  putU32(data, 1000);
  data.insert(data.end(), text.begin(), text.end());
  Frame reply;
  if (!c.send(request(PX_STREAM_WRITE, 2, data)) || !c.recvFrame(&reply) || reply.data.size() != 8) return -1;
  return static_cast<int64_t>(getU64(reply.data.data()));
}

// A multiplex of its own whose socket path is answered in `path`.
Ref<Multiplex> namedMultiplex(std::string* path) {
  Ref<Multiplex> mux = Multiplex::create(String::create("AutoTest"));
  if (mux) *path = chnPath(mux->channelId());
  return mux;
}

class PipeDescriptionTest : public ::testing::Test {
 protected:
  RuntimeDirScope rt;
};

TEST_F(PipeDescriptionTest, EachEndServesStreamAndStatusOnItsOwnMultiplex) {
  FifoDescriptionPair pair = createFifoPair();
  ASSERT_TRUE(pair.read && pair.write);
  for (const auto& end : {pair.read, pair.write}) {
    std::vector<NodeEntry> e = end->node()->entries();
    ASSERT_EQ(e.size(), 2u);
    EXPECT_EQ(e[1].type, PX_IFACE_FIFO_STATUS);
    EXPECT_EQ(e[1].access, PX_ACCESS_SERVICE);
    EXPECT_EQ(e[0].channel, end->multiplex()->channelId());
    EXPECT_EQ(e[1].channel, e[0].channel);
    EXPECT_NE(e[0].service, e[1].service);
    EXPECT_EQ(e[0].reserved0 | e[0].reserved1 | e[1].reserved0 | e[1].reserved1, 0u);
  }
  EXPECT_NE(pair.read->multiplex()->channelId(), pair.write->multiplex()->channelId());
}

TEST_F(PipeDescriptionTest, ADyingDescriptionMarksTheBufferAtOnceAndLetsItsClientsGo) {
  FifoDescriptionPair pair = createFifoPair();
  ASSERT_TRUE(pair.read && pair.write);
  auto writer = bindTo(pair.write->node()->entries()[0]);
  Ref<Fifo> fifo = pair.read->fifoEnd()->fifo();
  pair.write.reset();
  EXPECT_TRUE(fifo->eof()) << "marked on the dropping thread, before the multiplex closes";
  EXPECT_TRUE(writer->closedByPeer(3000)) << "the close queue stopped the write end's multiplex";

  pair = createFifoPair();
  ASSERT_TRUE(pair.read && pair.write);
  auto reader = bindTo(pair.read->node()->entries()[0]);
  pair.read.reset();
  EXPECT_TRUE(pair.write->fifoEnd()->fifo()->broken());
  EXPECT_TRUE(reader->closedByPeer(3000));
}

TEST_F(PipeDescriptionTest, AutocloseCountsConnectionsAndClosesOnlyOnce) {
  std::string path;
  Ref<Multiplex> mux = namedMultiplex(&path);
  ASSERT_TRUE(mux);
  Ref<AutocloseSvcMultiplex> closer = AutocloseSvcMultiplex::create();
  Ref<RecordingConMan> inner = new RecordingConMan();
  closer->setInner(inner);
  closer->setMultiplex(std::exchange(mux, nullptr));
  inner->refuse = true;
  EXPECT_FALSE(closer->connect(nullptr));
  EXPECT_EQ(closer->openCount(), 0u) << "a refused connection is not counted";
  inner->refuse = false;
  EXPECT_TRUE(closer->connect(nullptr));
  EXPECT_TRUE(closer->connect(nullptr));
  closer->disconnect(nullptr);
  EXPECT_TRUE(closer->isOpen());
  EXPECT_TRUE(std::filesystem::exists(path));
  closer->disconnect(nullptr);
  EXPECT_FALSE(closer->isOpen());
  EXPECT_FALSE(std::filesystem::exists(path));
  EXPECT_EQ(inner->disconnectCount(), 2u);
  closer->disconnect(nullptr);
  EXPECT_EQ(inner->disconnectCount(), 2u) << "after the close notifications change nothing";

  // A disconnection while nothing is counted closes at once.
  Ref<AutocloseSvcMultiplex> idle = AutocloseSvcMultiplex::create();
  idle->setMultiplex(namedMultiplex(&path));
  idle->disconnect(nullptr);
  EXPECT_FALSE(idle->isOpen());
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(PipeDescriptionTest, OnlyAnEndNobodyConnectedToCanBeWithdrawn) {
  PipeProviderPair pair = createPipePair();
  ASSERT_TRUE(pair.readCloser && pair.writeCloser);
  std::string readPath = chnPath(pair.read->node()->entries()[0].channel);
  auto writer = bindTo(pair.write->node()->entries()[0]);
  EXPECT_TRUE(pair.writeCloser->claimed());
  EXPECT_FALSE(pair.writeCloser->closeUnclaimed()) << "a client holds the write end";
  EXPECT_EQ(streamWrite(*writer, "abc"), 3);

  EXPECT_FALSE(pair.readCloser->claimed());
  EXPECT_TRUE(pair.readCloser->closeUnclaimed());
  EXPECT_FALSE(pair.readCloser->closeUnclaimed()) << "withdrawn once";
  EXPECT_FALSE(pair.readCloser->connect(nullptr)) << "a withdrawn end takes no client";
  EXPECT_TRUE(eventually([&] { return !std::filesystem::exists(readPath); }, 3000));
  EXPECT_TRUE(eventually([&] { return streamWrite(*writer, "x") == 0; }, 3000))
      << "without its read end the pipe is broken";
}

}  // namespace
