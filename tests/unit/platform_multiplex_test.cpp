// The service multiplex through real sockets: binding, routing, kept requests, notifications,
// broken frames, the link bound, and closing from outside and from its own threads.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <functional>

#include "platform_multiplex_support.h"

using namespace chntest;
using namespace muxtest;
using Libraries::Service::Multiplex;

namespace {

TEST_F(MultiplexTest, BindsRouteRequestsToTheirServices) {
  Ref<RecordingConMan> manA = new RecordingConMan(), manB = new RecordingConMan();
  EXPECT_EQ(mux->add(echo(1), manA), 1u);
  EXPECT_EQ(mux->add(echo(2), manB), 2u);
  EXPECT_TRUE(std::filesystem::exists(path));
  EXPECT_FALSE(std::filesystem::exists(rt.dir() + "/chn/" + name));  // reachable by id only

  auto a = bound(1), b = bound(2);
  ASSERT_TRUE(a->send(request(7, 70, {1, 2, 3}, {{9, {4, 5}}})));
  ASSERT_TRUE(b->send(request(8, 80, {6})));
  Frame fa, fb;
  ASSERT_TRUE(a->recvFrame(&fa) && b->recvFrame(&fb));
  EXPECT_TRUE(fa.kind == PX_FRAME_REPLY && fa.id == 70u && fa.code == 1007u);
  EXPECT_EQ(fa.data, (Bytes{1, 0, 0, 0, 1, 2, 3}));
  EXPECT_EQ(fa.blocks, (std::vector<Block>{{9, {4, 5}}}));
  EXPECT_TRUE(fb.id == 80u && fb.code == 2008u);

  ASSERT_TRUE(manA->connectCount() == 1u && manB->connectCount() == 1u);
  EXPECT_EQ(manA->connected(0)->peerPid(), static_cast<uint64_t>(::getpid()));
  a.reset();  // the client hangs up: its service's manager hears of it, the other's does not
  EXPECT_TRUE(eventually([&] { return manA->wasDisconnected(manA->connected(0)); }));
  EXPECT_EQ(manB->disconnectCount(), 0u);
  ASSERT_TRUE(b->send(request(9, 90)) && b->recvFrame(&fb));
  EXPECT_EQ(fb.code, 2009u);
}

TEST_F(MultiplexTest, UnknownOrRefusedBindsAreAnsweredZeroAndClosed) {
  Ref<RecordingConMan> man = new RecordingConMan();
  man->refuse = true;
  ASSERT_EQ(mux->add(echo(1), man), 1u);
  for (uint64_t id : {uint64_t{1}, uint64_t{0}, uint64_t{2}, ~uint64_t{0}}) {
    Client c(path);
    Frame f;
    ASSERT_TRUE(c.send(bind(id)) && c.recvFrame(&f)) << id;
    EXPECT_TRUE(f.kind == PX_FRAME_REPLY && f.id == id && f.code == 0u) << id;
    EXPECT_TRUE(c.closedByPeer()) << id;
  }
  EXPECT_EQ(man->connectCount(), 1u);  // only the known service's manager was asked
  EXPECT_EQ(man->disconnectCount(), 0u);  // a refused link was never connected
}

TEST_F(MultiplexTest, AKeptRequestIsAnsweredLaterFromAnyThread) {
  std::mutex mutex;
  std::vector<Ref<InMsg>> kept;  // guarded by mutex
  auto keep = [&](const Ref<InMsg>& in, const Ref<OutMsg>&, uint32_t*) {
    std::lock_guard lock(mutex);
    kept.push_back(in);
    return false;
  };
  ASSERT_EQ(mux->add(new FnService(keep), new RecordingConMan()), 1u);
  auto c = bound(1);
  ASSERT_TRUE(c->send(request(1, 11)) && c->send(request(1, 12)));
  ASSERT_TRUE(eventually([&] { std::lock_guard lock(mutex); return kept.size() == 2; }));
  Bytes raw;
  EXPECT_EQ(c->recvRaw(&raw, 100), -1);  // nothing answered yet
  // The later request first, then far more replies to the earlier one than the socket holds:
  // they queue on the link, and its thread sends them as the client reads.
  std::thread([&] {
    std::lock_guard lock(mutex);
    for (uint32_t i = 0; i <= 600; ++i) {
      Ref<OutMsg> out = OutMsg::create();
      Bytes data(1000, static_cast<uint8_t>(i));
      putU32(data, i);
      out->write(data.data(), data.size());
      EXPECT_TRUE(kept[i == 0 ? 1 : 0]->reply(out)) << i;
    }
  }).join();
  for (uint32_t i = 0; i <= 600; ++i) {
    Frame f;
    ASSERT_TRUE(c->recvFrame(&f) && f.data.size() == 1004u) << i;
    EXPECT_TRUE(f.id == (i == 0 ? 12u : 11u) && getU32(f.data.data() + 1000) == i) << i;
  }
  c.reset();  // once the link has gone, a late reply is refused
  EXPECT_TRUE(eventually([&] { std::lock_guard lock(mutex); return !kept[0]->reply(OutMsg::create()); }));
}

TEST_F(MultiplexTest, ABrokenFrameClosesOnlyItsLink) {
  Ref<RecordingConMan> man = new RecordingConMan();
  ASSERT_EQ(mux->add(echo(3), man), 1u);
  auto healthy = bound(1);
  Bytes lying = encode(request(1, 1, {1, 2, 3}));
  lying[16] = 200;  // data length beyond the datagram
  struct {
    bool bindFirst;
    Bytes bytes;
  } cases[] = {
      {false, encode(request(1, 1))},                        // a request before any bind
      {false, encode(Frame{PX_FRAME_BIND, 4, 1, {}, {}})},   // a bind with a code
      {false, encode(Frame{PX_FRAME_BIND, 0, 1, {1}, {}})},  // a bind with data
      {false, Bytes(10, 1)},                                  // shorter than a header
      {true, encode(Frame{PX_FRAME_REPLY, 0, 1, {}, {}})},   // a reply from the client
      {true, encode(bind(1))},                               // a second bind
      {true, lying},
      {true, Bytes(PX_WIRE_MAX_FRAME + 1, 0)},
  };
  size_t expectDisconnects = 0;
  for (size_t i = 0; i < std::size(cases); ++i) {
    std::unique_ptr<Client> c = cases[i].bindFirst ? bound(1) : std::make_unique<Client>(path);
    ASSERT_TRUE(c->sendRaw(cases[i].bytes)) << i;
    EXPECT_TRUE(c->closedByPeer()) << i;
    if (cases[i].bindFirst) ++expectDisconnects;
    EXPECT_TRUE(eventually([&] { return man->disconnectCount() == expectDisconnects; })) << i;
    Frame f;
    ASSERT_TRUE(healthy->send(request(2, 100 + i)) && healthy->recvFrame(&f)) << i;
    EXPECT_EQ(f.code, 3002u);
  }
}

// A handler closes the multiplex and waits for every thread but its own.
TEST_F(MultiplexTest, CloseEndsEveryLinkAndThreadAndRemovesTheSocket) {
  Ref<RecordingConMan> man = new RecordingConMan();
  std::atomic<int> waited{-1};
  Multiplex* self = mux.get();
  ASSERT_EQ(mux->add(echo(1), man), 1u);
  auto closeFromInside = [&, self](const Ref<InMsg>&, const Ref<OutMsg>&, uint32_t*) {
    self->close();
    waited = self->wait(5000);
    return true;
  };
  ASSERT_EQ(mux->add(new FnService(closeFromInside), man), 2u);
  std::vector<std::unique_ptr<Client>> clients;
  for (int i = 0; i < 5; ++i) clients.push_back(bound(1));
  Client unbound(path);
  auto stopper = bound(2);
  ASSERT_TRUE(eventually([&] { return threadsNamed(name) == 7; }));  // one per link

  ASSERT_TRUE(stopper->send(request(1, 5)));
  EXPECT_TRUE(stopper->closedByPeer());  // closing shut its link down before the reply
  for (auto& c : clients) EXPECT_TRUE(c->closedByPeer());
  EXPECT_TRUE(unbound.closedByPeer());
  EXPECT_TRUE(mux->wait(5000));
  EXPECT_EQ(waited.load(), 1);
  EXPECT_FALSE(std::filesystem::exists(path));
  EXPECT_EQ(man->disconnectCount(), 6u);
  EXPECT_EQ(mux->add(echo(2), man), 0u);
  // The threads have left their bodies; give them a moment to leave the process too.
  EXPECT_TRUE(eventually([&] { return threadsNamed(name) == 0; }));
}

// Counts links in plain fields (the multiplex runs one notification at a time) and closes the
// multiplex from inside the last disconnect, as a pipe end's manager does.
class ClosingConMan : public Object, public ConMan {
 public:
  bool connect(const Ref<ChnLink>&) override {
    overlapped = busy.exchange(true) || overlapped;
    ++open;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));  // widen any overlap
    busy = false;
    return true;
  }
  void disconnect(const Ref<ChnLink>&) override {
    overlapped = busy.exchange(true) || overlapped;
    Ref<Multiplex> last;
    if (--open == 0) last = std::move(mux);
    if (last) {
      last->close();
      waited = last->wait(kForever);
      last.reset();  // the last reference: the multiplex dies on its own link thread
      done = true;
    }
    busy = false;
  }
  Ref<Multiplex> mux;  // set before the services are added, which publishes it
  int open = 0;
  bool overlapped = false;
  bool waited = false;
  std::atomic<bool> busy{false};
  std::atomic<bool> done{false};
};

TEST_F(MultiplexTest, TheLastDisconnectMayCloseAndWaitForItsOwnMultiplex) {
  Ref<ClosingConMan> man = new ClosingConMan();
  man->mux = mux;  // the manager and the multiplex hold each other, as a pipe end's do
  ASSERT_EQ(mux->add(echo(1), man), 1u);
  ASSERT_EQ(mux->add(echo(2), man), 2u);
  mux.reset();
  std::vector<std::unique_ptr<Client>> clients(8);
  std::vector<std::thread> connecting;
  for (int i = 0; i < 8; ++i)
    connecting.emplace_back([&, i] { clients[i] = bound(1 + i % 2); });
  for (auto& t : connecting) t.join();
  clients.clear();  // all hang up at once
  EXPECT_TRUE(eventually([&] { return man->done.load(); }));
  EXPECT_TRUE(man->waited);
  EXPECT_FALSE(man->overlapped);
  EXPECT_FALSE(std::filesystem::exists(path));
  EXPECT_TRUE(eventually([&] { return threadsNamed(name) == 0; }));
}

}  // namespace
