// The stream resolver and the node provider: reads and writes of a FIFO through a real socket,
// the request checks, handlers that wait for ever released by a hang-up or a close, and node
// records written into replies; messages as streams.
#include <gtest/gtest.h>

#include <atomic>

#include "platform/fifo.h"
#include "platform/multiplex.h"
#include "platform/nodes.h"
#include "platform_multiplex_support.h"
#include "posix/nodes.h"
#include "posix/wire.h"

using namespace chntest;
using Interfaces::MemDesc;
using Resolver = Services::Nodes::Resolvers::Stream;

namespace {

using Clock = std::chrono::steady_clock;

int64_t msSince(Clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

// A stream over a Fifo, read and written the way the server's pipe ends do it: a read waits
// for one byte and takes what is there; a write hands everything to the buffer.
class FifoStream : public Object, public Interfaces::Stream {
 public:
  explicit FifoStream(Ref<Fifo> fifo) : fifo(std::move(fifo)) {}
  uint32_t dataKind() override { return 1; }
  MemDesc map(Ref<Object>) override { return {}; }
  void unmap(Ref<Object>) override {}
  uint64_t read(MemDesc buffer, uint64_t size, uint32_t timeoutMs) override {
    ++calls;
    ++active;
    uint64_t n = 0;
    if (buffer.kind == MemDesc::kDirect && fifo->waitRead(1, timeoutMs))
      n = fifo->readMax(buffer.pointer(), size);
    --active;
    return n;
  }
  uint64_t write(MemDesc buffer, uint64_t size, uint32_t timeoutMs) override {
    ++calls;
    return buffer.kind == MemDesc::kDirect ? fifo->write(buffer.pointer(), size, timeoutMs) : 0;
  }
  uint64_t readable() override { return fifo->size(); }
  uint64_t control(uint32_t, uint64_t) override { return 0; }

  Ref<Fifo> fifo;
  std::atomic<int> calls{0};
  std::atomic<int> active{0};  // reads in progress
};

Bytes readRequest(uint64_t maxBytes, uint32_t timeoutMs) {
  Bytes b;
  putU64(b, maxBytes);
  putU32(b, timeoutMs);
  return b;
}

Bytes writeRequest(uint32_t timeoutMs, const Bytes& bytes) {
  Bytes b;
  putU32(b, timeoutMs);
  b.insert(b.end(), bytes.begin(), bytes.end());
  return b;
}

// The byte count a write is answered with; ~0 when the reply is not a done status and a count.
uint64_t countOf(const Frame& reply) {
  return reply.code == 1u && reply.data.size() == 8u ? getU64(reply.data.data()) : ~uint64_t{0};
}

class ResolverTest : public muxtest::MultiplexTest {
 protected:
  void SetUp() override {
    MultiplexTest::SetUp();
    stream = new FifoStream(new Fifo(4096));
    resolver = Resolver::create(stream, nullptr, 512);
    ASSERT_TRUE(resolver);
    ASSERT_EQ(mux->add(resolver, man), 1u);
  }
  // Sends one request and answers its reply (status in code).
  static Frame ask(Client& c, uint32_t code, const Bytes& data, int timeoutMs = 5000) {
    static std::atomic<uint64_t> nextId{1};
    uint64_t id = nextId++;
    Frame f;
    EXPECT_TRUE(c.send(request(code, id, data)) && c.recvFrame(&f, timeoutMs) && f.id == id);
    return f;
  }

  Ref<FifoStream> stream;
  Ref<Resolver> resolver;
  Ref<RecordingConMan> man = new RecordingConMan();
};

TEST_F(ResolverTest, ReadsAndWritesAFifoThroughTheSocket) {
  auto writer = bound(1), reader = bound(1);
  EXPECT_EQ(countOf(ask(*writer, PX_STREAM_WRITE, writeRequest(1000, {'h', 'i', '!'}))), 3u);
  Frame f = ask(*reader, PX_STREAM_READ, readRequest(2, 1000));
  EXPECT_TRUE(f.code == 1u && f.data == (Bytes{'h', 'i'}));
  EXPECT_EQ(ask(*reader, PX_STREAM_READ, readRequest(100, 1000)).data, (Bytes{'!'}));

  // More than the buffer holds goes through while the reader drains it.
  Bytes big(20000);
  for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<uint8_t>(i % 251);
  Bytes got;
  std::thread drain([&] {
    while (got.size() < big.size()) {
      Frame r = ask(*reader, PX_STREAM_READ, readRequest(3000, 5000));
      if (r.data.empty()) break;
      got.insert(got.end(), r.data.begin(), r.data.end());
    }
  });
  f = ask(*writer, PX_STREAM_WRITE, writeRequest(5000, big), 10000);
  drain.join();
  EXPECT_EQ(countOf(f), big.size());
  EXPECT_EQ(got, big);

  // An empty FIFO: the read waits out its time-out over several slices, then answers nothing.
  auto start = Clock::now();
  f = ask(*reader, PX_STREAM_READ, readRequest(10, 3 * Resolver::kSliceMs + 20));
  EXPECT_EQ(f.code, 1u);
  EXPECT_TRUE(f.data.empty());
  EXPECT_GE(msSince(start), 3 * Resolver::kSliceMs + 20);
  // End of file answers at once, even to a read that would wait for ever.
  stream->fifo->setEof();
  start = Clock::now();
  f = ask(*reader, PX_STREAM_READ, readRequest(10, kForever));
  EXPECT_TRUE(f.data.empty());
  EXPECT_LT(msSince(start), 1000);
  // A broken FIFO takes nothing.
  stream->fifo->setBroken();
  EXPECT_EQ(countOf(ask(*writer, PX_STREAM_WRITE, writeRequest(kForever, {1, 2, 3}))), 0u);
}

TEST_F(ResolverTest, AReadWaitingForEverEndsWhenTheClientHangsUp) {
  auto reader = bound(1);
  ASSERT_TRUE(reader->send(request(PX_STREAM_READ, 1, readRequest(10, kForever))));
  ASSERT_TRUE(eventually([&] { return stream->active.load() == 1; }));
  reader.reset();
  EXPECT_TRUE(eventually([&] { return man->disconnectCount() == 1; }, 2000));
  EXPECT_EQ(stream->active.load(), 0);
  int calls = stream->calls.load();
  std::this_thread::sleep_for(std::chrono::milliseconds(3 * Resolver::kSliceMs));
  EXPECT_EQ(stream->calls.load(), calls);  // nobody reads on behalf of the gone client
}

TEST_F(ResolverTest, AWriteWaitingForEverEndsWhenTheMultiplexCloses) {
  auto writer = bound(1);
  Bytes full(4096, 1);
  ASSERT_EQ(countOf(ask(*writer, PX_STREAM_WRITE, writeRequest(0, full))), 4096u);
  ASSERT_TRUE(writer->send(request(PX_STREAM_WRITE, 2, writeRequest(kForever, {2}))));
  ASSERT_TRUE(eventually([&] { return stream->calls.load() >= 3; }));  // waiting for room
  auto start = Clock::now();
  mux->close();
  EXPECT_TRUE(mux->wait(3000));
  EXPECT_LT(msSince(start), 2000);
  EXPECT_TRUE(writer->closedByPeer());
  EXPECT_EQ(man->disconnectCount(), 1u);
}

// Requests handed to the resolver directly: the checks that come before the stream, and the
// bounds the stream is called with.
TEST(ResolverRequestTest, ShortOrUnknownRequestsLeaveTheStreamAloneAndReadsAreBounded) {
  Ref<FifoStream> stream = new FifoStream(new Fifo(100000));
  Ref<Resolver> resolver = Resolver::create(stream, nullptr, 1024);
  EXPECT_FALSE(Resolver::create(nullptr, nullptr, 0));
  auto run = [&](uint32_t code, Bytes data) {
    Bytes raw = encode(request(code, 1, std::move(data)));
    Ref<OutMsg> out = OutMsg::create();
    uint32_t ret = 77;
    EXPECT_TRUE(resolver->handle(InMsg::decode(raw.data(), raw.size(), nullptr), out, &ret, 0,
                                 nullptr));
    return Frame{0, ret, 0, out->data(), {}};
  };
  struct {
    uint32_t code;
    Bytes data;
    uint32_t status;
  } refused[] = {{PX_STREAM_READ, Bytes(11), PX_RESULT_SHORT_REQUEST},
                 {PX_STREAM_WRITE, Bytes(3), PX_RESULT_SHORT_REQUEST},
                 {3, readRequest(1, 0), PX_RESULT_FAILED},
                 {0, {}, PX_RESULT_FAILED}};
  for (auto& row : refused) EXPECT_EQ(run(row.code, row.data).code, row.status) << row.code;
  EXPECT_EQ(stream->calls.load(), 0);

  // A read never answers more than 64 KiB, whatever it asks for.
  Bytes lots(70000, 5);
  EXPECT_EQ(countOf(run(PX_STREAM_WRITE, writeRequest(0, lots))), lots.size());
  Frame r = run(PX_STREAM_READ, readRequest(~uint64_t{0}, 0));
  EXPECT_EQ(r.code, 1u);
  EXPECT_EQ(r.data.size(), PX_STREAM_MAX_READ);
  // Reads and writes of nothing still reach the stream once.
  int calls = stream->calls.load();
  EXPECT_EQ(countOf(run(PX_STREAM_WRITE, writeRequest(0, {}))), 0u);
  EXPECT_TRUE(run(PX_STREAM_READ, readRequest(0, 0)).data.empty());
  EXPECT_EQ(stream->calls.load(), calls + 2);
}

TEST(ProviderTest, WritesTheWholeNodeRecordIntoAReplyOrNothing) {
  EXPECT_FALSE(Services::Nodes::Provider::create(nullptr, 0));
  Ref<DeviceNode> node = DeviceNode::create();
  node->add(PX_IFACE_STREAM, 0x1122334455667788ull, 1, 0, PX_ACCESS_READ, 0);
  node->add(PX_IFACE_FIFO_STATUS, 0x99, 2, 0, PX_ACCESS_SERVICE, 0);
  Ref<Services::Nodes::Provider> provider = Services::Nodes::Provider::create(node, 0);
  ASSERT_TRUE(provider);
  Ref<OutMsg> out = OutMsg::create();
  out->write("x", 1);
  EXPECT_TRUE(provider->serialize(out));
  Bytes expected = node->record();
  expected.insert(expected.begin(), 'x');
  EXPECT_EQ(out->data(), expected);
  EXPECT_EQ(expected.size(), 1 + PX_NODE_COUNT_SIZE + 2 * PX_NODE_ENTRY_SIZE);

  // A reply without room for the whole record gets none of it.
  Bytes filler(PX_WIRE_MAX_FRAME - PX_FRAME_HEADER_SIZE - 60);
  out = OutMsg::create();
  ASSERT_EQ(out->write(filler.data(), filler.size()), filler.size());
  EXPECT_FALSE(provider->serialize(out));
  EXPECT_EQ(out->data().size(), filler.size());
}

TEST(MessageStreamTest, MessagesServeAsStreamsOfDirectMemory) {
  Bytes raw = encode(request(1, 1, {1, 2, 3, 4, 5}));
  Ref<InMsg> in = InMsg::decode(raw.data(), raw.size(), nullptr);
  Ref<Interfaces::Stream> asStream = in;
  uint8_t got[8] = {};
  EXPECT_EQ(asStream->readable(), 5u);
  EXPECT_EQ(asStream->read(MemDesc{1, reinterpret_cast<uint64_t>(got), 8}, 8, 0), 0u);
  EXPECT_EQ(asStream->read(MemDesc::direct(got, 2), 8, 0), 2u);  // the descriptor bounds it
  EXPECT_EQ(asStream->read(MemDesc::direct(got + 2, 8), 8, 0), 3u);
  EXPECT_EQ(Bytes(got, got + 5), (Bytes{1, 2, 3, 4, 5}));
  EXPECT_EQ(asStream->write(MemDesc::direct(got, 1), 1, 0), 0u);

  Ref<OutMsg> out = OutMsg::create();
  Ref<Interfaces::Stream> sink = out;
  EXPECT_EQ(sink->write(MemDesc::direct(got, 3), 3, 0), 3u);
  EXPECT_EQ(sink->write(MemDesc{0, reinterpret_cast<uint64_t>(got), 3}, 3, 0), 0u);
  EXPECT_EQ(sink->read(MemDesc::direct(got, 3), 3, 0), 0u);
  EXPECT_EQ(out->data(), (Bytes{1, 2, 3}));
}

}  // namespace
