// Pipe and FIFO descriptions through real sockets: what their nodes list, bytes flowing through
// the stream resolvers, closing an end at once when its description dies, the serialised
// descriptor table, the descriptor service's pipe and table requests, and published pipe ends
// that close with their last connection.
#include <gtest/gtest.h>

#include <posix/fd_service.h>
#include <posix/nodes.h>
#include <posix/wire.h>

#include <cstring>

#include "fd/fd_table.h"
#include "fd/posix_fd_service.h"
#include "fifo/autoclose_multiplex.h"
#include "fifo/fifo_pairs.h"
#include "platform/log.h"
#include "platform_chn_support.h"

using namespace chntest;

namespace {

// A client bound to one entry of a node.
std::unique_ptr<Client> bindTo(const NodeEntry& entry) {
  auto client = std::make_unique<Client>(chnPath(entry.channel));
  Frame reply;
  bool ok = client->send(Frame{PX_FRAME_BIND, 0, entry.service, {}, {}}) && client->recvFrame(&reply) &&
            reply.code == 1;
  EXPECT_TRUE(ok);
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

std::string streamRead(Client& c, uint64_t max, uint32_t timeoutMs = 1000) {
  Bytes data;
  putU64(data, max);
  putU32(data, timeoutMs);
  Frame reply;
  if (!c.send(request(PX_STREAM_READ, 3, data)) || !c.recvFrame(&reply)) return "<no answer>";
  return std::string(reply.data.begin(), reply.data.end());
}

uint32_t statusOf(Client& c, uint32_t command) {
  Frame reply;
  if (!c.send(request(command, 4)) || !c.recvFrame(&reply)) return 99;
  return reply.code;
}

Ref<InMsg> fdRequest(uint32_t code) {
  Bytes frame = encode(request(code, 1));
  return InMsg::decode(frame.data(), frame.size(), nullptr);
}

Bytes bytesOf(const void* p, size_t n) { return Bytes(static_cast<const uint8_t*>(p), static_cast<const uint8_t*>(p) + n); }

// One serialised record: i32 type, u64 number, the node record.
Bytes record(int32_t type, uint64_t fd, const Ref<DeviceNode>& node) {
  Bytes out = bytesOf(&type, 4);
  putU64(out, fd);
  Bytes node_bytes = node->record();
  out.insert(out.end(), node_bytes.begin(), node_bytes.end());
  return out;
}

Bytes endMarker() { return Bytes{8, 0, 0, 0}; }

class PipeDescriptionTest : public ::testing::Test {
 protected:
  RuntimeDirScope rt;
};

TEST_F(PipeDescriptionTest, EachEndListsItsStreamAndStatusServicesOnItsOwnMultiplex) {
  FifoDescriptionPair pair = createFifoPair();
  ASSERT_TRUE(pair.read && pair.write);
  EXPECT_EQ(pair.read->type(), 5);
  EXPECT_TRUE(pair.read->multiplex()->name()->equals("FifoRead"));
  EXPECT_TRUE(pair.write->multiplex()->name()->equals("FifoWrite"));
  std::vector<NodeEntry> r = pair.read->node()->entries(), w = pair.write->node()->entries();
  ASSERT_EQ(r.size(), 2u);
  ASSERT_EQ(w.size(), 2u);
  EXPECT_EQ(r[0].type, PX_IFACE_STREAM);
  EXPECT_EQ(r[0].access, PX_ACCESS_READ);
  EXPECT_EQ(w[0].access, PX_ACCESS_WRITE);
  EXPECT_EQ(r[1].type, PX_IFACE_FIFO_STATUS);
  EXPECT_EQ(r[1].access, PX_ACCESS_SERVICE);
  EXPECT_EQ(w[1].access, PX_ACCESS_SERVICE);
  EXPECT_EQ(r[0].channel, pair.read->multiplex()->channelId());
  EXPECT_EQ(r[0].channel, r[1].channel);
  EXPECT_NE(r[0].channel, w[0].channel);
  EXPECT_NE(r[0].service, r[1].service);
  EXPECT_EQ(r[0].type, w[0].type);
  EXPECT_EQ(r[0].reserved0 | r[0].reserved1 | r[1].reserved0 | r[1].reserved1, 0u);
}

TEST_F(PipeDescriptionTest, ClosingTheWriteDescriptionGivesEndOfFileAtOnceAfterTheData) {
  FifoDescriptionPair pair = createFifoPair();
  ASSERT_TRUE(pair.read && pair.write);
  auto reader = bindTo(pair.read->node()->entries()[0]);
  auto readStatus = bindTo(pair.read->node()->entries()[1]);
  auto writer = bindTo(pair.write->node()->entries()[0]);
  EXPECT_EQ(streamWrite(*writer, "through the pipe"), 16);
  EXPECT_EQ(statusOf(*readStatus, 0), 1u);

  Ref<Fifo> fifo = pair.read->fifoEnd()->fifo();
  pair.write.reset();
  EXPECT_TRUE(fifo->eof()) << "marked on the dropping thread, before the multiplex closes";
  EXPECT_TRUE(writer->closedByPeer(3000)) << "the close queue stopped the write end's multiplex";
  EXPECT_EQ(streamRead(*reader, 7), "through");
  EXPECT_EQ(streamRead(*reader, 100), " the pipe");
  EXPECT_EQ(statusOf(*readStatus, 1), 0u);
  EXPECT_EQ(streamRead(*reader, 100, kForever), "") << "end-of-file ends a read that waits for ever";
  EXPECT_EQ(statusOf(*readStatus, 1), 1u);
  EXPECT_EQ(statusOf(*readStatus, 0), 0u);
}

TEST_F(PipeDescriptionTest, ClosingTheReadDescriptionBreaksThePipeAtOnce) {
  FifoDescriptionPair pair = createFifoPair();
  ASSERT_TRUE(pair.read && pair.write);
  auto writer = bindTo(pair.write->node()->entries()[0]);
  auto writeStatus = bindTo(pair.write->node()->entries()[1]);
  auto reader = bindTo(pair.read->node()->entries()[0]);
  pair.read.reset();
  EXPECT_TRUE(pair.write->fifoEnd()->fifo()->broken());
  EXPECT_EQ(streamWrite(*writer, "lost"), 0);
  EXPECT_EQ(statusOf(*writeStatus, 1), 2u);
  EXPECT_TRUE(reader->closedByPeer(3000));
}

TEST_F(PipeDescriptionTest, AFreshTableSerialisesAsTheEndMarkerAndWarnsOfItsPlaceholders) {
  FDTable table;
  Ref<OutMsg> out = OutMsg::create();
  testing::internal::CaptureStderr();
  int32_t count = table.serialize(out);
  std::string log = testing::internal::GetCapturedStderr();
  EXPECT_EQ(count, 3);
  EXPECT_EQ(out->data(), endMarker());
  if (SysLogFilter::level() <= 3) {
    for (const char* line : {"Tried to serialize invalid fd: 0", "Tried to serialize invalid fd: 1",
                             "Tried to serialize invalid fd: 2"})
      EXPECT_NE(log.find(line), std::string::npos) << line << " in\n" << log;
  }
  EXPECT_EQ(table.serialize(nullptr), 0);
}

TEST_F(PipeDescriptionTest, TheDescriptorServiceHandsOutPipesAndTheirTable) {
  FDTable table;
  Ref<OutMsg> reply = OutMsg::create();
  ASSERT_EQ(PosixFDService::handle(fdRequest(PX_FD_CMD_CREATE_PIPE), reply, table), 1u);
  const FileDescriptor* readEntry = table.entry(3);
  const FileDescriptor* writeEntry = table.entry(4);
  ASSERT_TRUE(readEntry && readEntry->server && writeEntry && writeEntry->server);
  Ref<DeviceNode> readNode = readEntry->server->node(), writeNode = writeEntry->server->node();
  Bytes expected;
  int32_t three = 3, four = 4;
  for (auto& [fd, node] : {std::pair{&three, readNode}, std::pair{&four, writeNode}}) {
    Bytes part = bytesOf(fd, 4);
    Bytes rec = node->record();
    expected.insert(expected.end(), part.begin(), part.end());
    expected.insert(expected.end(), rec.begin(), rec.end());
  }
  EXPECT_EQ(reply->data(), expected);
  EXPECT_EQ(readNode->entries()[0].access, PX_ACCESS_READ);

  // A duplicate shares the description: two records with the same node.
  table.remove(0);
  ASSERT_EQ(table.dup(3, 0, false), 0);
  reply = OutMsg::create();
  testing::internal::CaptureStderr();
  EXPECT_EQ(PosixFDService::handle(fdRequest(PX_FD_CMD_GET_TABLE), reply, table), 5u)
      << "three records and the placeholders 1 and 2";
  testing::internal::GetCapturedStderr();
  expected = record(5, 0, readNode);
  for (auto& [fd, node] : {std::pair{3, readNode}, std::pair{4, writeNode}}) {
    Bytes rec = record(5, fd, node);
    expected.insert(expected.end(), rec.begin(), rec.end());
  }
  expected.insert(expected.end(), {8, 0, 0, 0});
  EXPECT_EQ(reply->data(), expected);
}

TEST_F(PipeDescriptionTest, ATableTooLargeForOneReplyIsCutWithoutTheEndMarker) {
  FDTable table;
  Ref<OutMsg> reply = OutMsg::create();
  ASSERT_EQ(PosixFDService::handle(fdRequest(PX_FD_CMD_CREATE_PIPE), reply, table), 1u);
  for (int i = 0; i < 2000; ++i) ASSERT_GE(table.dup(3, 0, false), 0);
  Ref<OutMsg> out = OutMsg::create();
  testing::internal::CaptureStderr();
  EXPECT_EQ(table.serialize(out), 2005);
  testing::internal::GetCapturedStderr();
  const Bytes& data = out->data();
  size_t recordSize = record(5, 0, table.entry(3)->server->node()).size();
  ASSERT_GT(data.size(), 0u);
  EXPECT_LE(out->frameSize(), PX_WIRE_MAX_FRAME);
  EXPECT_EQ(data.size() % recordSize, 0u) << "only whole records, and no end marker";
}

TEST_F(PipeDescriptionTest, APublishedEndClosesWithTheLastOfItsConnectionsAndNotBefore) {
  PipeProviderPair pair = createPipePair();
  ASSERT_TRUE(pair.read && pair.write);
  std::vector<NodeEntry> r = pair.read->node()->entries(), w = pair.write->node()->entries();
  ASSERT_EQ(r.size(), 2u);
  EXPECT_EQ(r[0].access, PX_ACCESS_READ);
  EXPECT_EQ(w[0].access, PX_ACCESS_WRITE);
  std::string readPath = chnPath(r[0].channel);
  pair = {};
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_TRUE(std::filesystem::exists(readPath)) << "no client yet: the end stays open";

  auto writer = bindTo(w[0]);
  auto writeStatus = bindTo(w[1]);
  auto reader = bindTo(r[0]);
  auto readStatus = bindTo(r[1]);
  EXPECT_EQ(streamWrite(*writer, "abc"), 3);
  EXPECT_EQ(streamRead(*reader, 10), "abc");
  reader.reset();
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_EQ(statusOf(*readStatus, 0), 1u) << "the status link still holds the end open";
  EXPECT_EQ(streamWrite(*writer, "def"), 3);
  readStatus.reset();
  EXPECT_TRUE(eventually([&] { return !std::filesystem::exists(readPath); }, 3000));
  EXPECT_TRUE(eventually([&] { return streamWrite(*writer, "x") == 0; }, 3000))
      << "the read end died with its multiplex: the pipe is broken";
  EXPECT_EQ(statusOf(*writeStatus, 1), 2u);
  writer.reset();
  writeStatus.reset();
  EXPECT_TRUE(eventually([&] { return !std::filesystem::exists(chnPath(w[0].channel)); }, 3000));
}

TEST_F(PipeDescriptionTest, AutocloseCountsConnectionsAndClosesOnlyOnce) {
  Ref<Libraries::Service::Multiplex> mux = Libraries::Service::Multiplex::create(String::create("AutoTest"));
  ASSERT_TRUE(mux);
  std::string path = chnPath(mux->channelId());
  Ref<AutocloseSvcMultiplex> closer = AutocloseSvcMultiplex::create();
  Ref<RecordingConMan> inner = new RecordingConMan();
  closer->setInner(inner);
  closer->setMultiplex(mux);
  mux.reset();
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
  Ref<Libraries::Service::Multiplex> other = Libraries::Service::Multiplex::create(String::create("AutoTest"));
  ASSERT_TRUE(other);
  Ref<AutocloseSvcMultiplex> idle = AutocloseSvcMultiplex::create();
  idle->setMultiplex(other);
  path = chnPath(other->channelId());
  other.reset();
  idle->disconnect(nullptr);
  EXPECT_FALSE(idle->isOpen());
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(PipeDescriptionTest, OnlyAnEndNobodyConnectedToCanBeWithdrawn) {
  PipeProviderPair pair = createPipePair();
  ASSERT_TRUE(pair.readCloser && pair.writeCloser);
  std::string readPath = chnPath(pair.read->node()->entries()[0].channel);
  std::vector<NodeEntry> w = pair.write->node()->entries();
  auto writer = bindTo(w[0]);
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
