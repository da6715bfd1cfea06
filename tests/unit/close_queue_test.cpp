// The deferred close queue: the one thread made on first use, closing every
// queued multiplex exactly once in queue order.
#include <gtest/gtest.h>

#include <filesystem>
#include <thread>

#include "common/close_queue.h"
#include "platform_chn_support.h"
#include "platform_multiplex_support.h"
#include "posix/wire.h"

using namespace chntest;
using Libraries::Service::Multiplex;

namespace {

// Notes in a shared log, in order, the tag of every multiplex whose link went away.
class OrderLog : public Object {
 public:
  void note(int tag) { std::lock_guard lock(mutex_); tags_.push_back(tag); }
  std::vector<int> tags() { std::lock_guard lock(mutex_); return tags_; }

 private:
  std::mutex mutex_;
  std::vector<int> tags_;  // guarded by mutex_
};

class TaggedConMan : public Object, public ConMan {
 public:
  TaggedConMan(Ref<OrderLog> log, int tag) : log_(std::move(log)), tag_(tag) {}
  bool connect(const Ref<ChnLink>&) override { return true; }
  void disconnect(const Ref<ChnLink>&) override { log_->note(tag_); }

 private:
  Ref<OrderLog> log_;
  int tag_;
};

// A multiplex with one service and one client bound to it; the client's link ends when the
// multiplex is closed, which the service's manager notes under `tag`.
struct WatchedMultiplex {
  Ref<Multiplex> mux;
  std::unique_ptr<Client> client;
};

WatchedMultiplex watched(const Ref<OrderLog>& log, int tag) {
  WatchedMultiplex w;
  w.mux = Multiplex::create(String::create("CloseQTest"));
  const uint64_t service = w.mux ? w.mux->add(muxtest::echo(0), new TaggedConMan(log, tag)) : 0;
  if (service == 0) return {};
  w.client = std::make_unique<Client>(chnPath(w.mux->channelId()));
  return muxtest::binds(*w.client, service) ? std::move(w) : WatchedMultiplex{};
}

class CloseQueueTest : public ::testing::Test {
 protected:
  RuntimeDirScope rt;
  Ref<OrderLog> log = new OrderLog();
};

TEST_F(CloseQueueTest, OneThreadClosesEveryRequestOnceInQueueOrderAndRemovesItsSocket) {
  WatchedMultiplex first = watched(log, 0);
  ASSERT_TRUE(first.mux);
  closeLater(first.mux);
  first.mux.reset();
  Ref<SvcCloseQueueObj> queue = SvcCloseQueueObj::instance();
  ASSERT_TRUE(queue);
  // The thread names itself once it runs.
  EXPECT_TRUE(eventually([] { return threadsNamed("SvcCloseQueue") == 1; }, 2000));

  // Four threads queue five multiplexes each at once; each thread's own come out in its order.
  constexpr int kThreads = 4, kEach = 5;
  std::vector<std::vector<WatchedMultiplex>> made(kThreads);
  std::vector<std::string> paths;
  for (int t = 0; t < kThreads; ++t)
    for (int i = 0; i < kEach; ++i) {
      made[t].push_back(watched(log, 1 + t * 100 + i));
      ASSERT_TRUE(made[t].back().mux);
      paths.push_back(chnPath(made[t].back().mux->channelId()));
    }
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&made, t] {
      for (auto& w : made[t]) closeLater(std::exchange(w.mux, nullptr));
    });
  for (auto& thread : threads) thread.join();
  ASSERT_TRUE(eventually([&] { return log->tags().size() == 1 + kThreads * kEach; }));
  EXPECT_EQ(SvcCloseQueueObj::instance(), queue) << "later requests reuse the queue";
  EXPECT_EQ(threadsNamed("SvcCloseQueue"), 1);
  std::vector<int> tags = log->tags();
  EXPECT_EQ(tags[0], 0);
  std::vector<int> last(kThreads, -1);
  for (size_t i = 1; i < tags.size(); ++i) {
    int t = tags[i] / 100, index = tags[i] % 100 - 1;
    ASSERT_TRUE(t >= 0 && t < kThreads) << tags[i];
    EXPECT_EQ(index, last[t] + 1) << "thread " << t << ": once each, in its order";
    last[t] = index;
  }
  for (auto& per : made)
    for (auto& w : per) EXPECT_TRUE(w.client->closedByPeer(1000));
  // Sockets beyond the spares go at once, the spares a second after the last multiplex.
  auto left = [&] {
    return std::count_if(paths.begin(), paths.end(), [](auto& p) { return std::filesystem::exists(p); });
  };
  EXPECT_LE(left(), static_cast<long>(Multiplex::kSpareSockets));
  EXPECT_TRUE(eventually([&] { return left() == 0; }, 5000));
  EXPECT_EQ(log->tags().size(), 1u + kThreads * kEach) << "each multiplex is closed exactly once";
}

}  // namespace

namespace {

TEST_F(CloseQueueTest, AMultiplexThatDoesNotStopHoldsUpNoOther) {
  // A handler stuck in a call the close cannot interrupt (until the test lets it go).
  std::atomic<bool> inside{false}, release{false};
  Ref<Multiplex> stuck = Multiplex::create(String::create("CloseQStuck"));
  ASSERT_TRUE(stuck);
  const uint64_t id = stuck->add(
      new muxtest::FnService([&](const Ref<InMsg>&, const Ref<OutMsg>&, uint32_t* ret) {
        inside = true;
        for (int i = 0; i < 1000 && !release; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
        *ret = 1;
        return true;
      }),
      new TaggedConMan(log, 1));
  Client client(chnPath(stuck->channelId()));
  ASSERT_TRUE(muxtest::binds(client, id));
  ASSERT_TRUE(client.send(Frame{PX_FRAME_REQUEST, 1, 1, {}}));
  ASSERT_TRUE(eventually([&] { return inside.load(); }, 2000));
  closeLater(std::move(stuck));

  WatchedMultiplex next = watched(log, 2);
  ASSERT_TRUE(next.mux);
  closeLater(std::exchange(next.mux, nullptr));
  // Torn down while the first still sits in its handler.
  EXPECT_TRUE(eventually([&] { return log->tags() == std::vector<int>{2}; }, 2000));
  release = true;
  EXPECT_TRUE(eventually([&] { return log->tags().size() == 2; }, 2000)) << "the stuck one goes too";
}

}  // namespace
