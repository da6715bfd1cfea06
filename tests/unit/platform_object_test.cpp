// The platform's core objects: references across threads, the heap's counts and the log's
// filters. (The constructor guard: every server start. The heap's refusal and the log's line
// format: the crash dump tests.)
#include <gtest/gtest.h>

#include <stdlib.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "platform/heap.h"
#include "platform/log.h"
#include "platform/object.h"

namespace {

std::atomic<int> g_destroyed{0};

class Tracked : public Object {
 public:
  // Dying takes a moment, as it does for real objects: weak references resolved meanwhile must
  // still fail.
  ~Tracked() override {
    value = 0;
    g_destroyed.fetch_add(1);
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  int value = 42;
};

TEST(ObjectRefs, WeakRefsNeverResurrectAndObjectDiesOnce) {
  constexpr int kRounds = 60;
  constexpr int kThreads = 6;
  int destroyedBefore = g_destroyed.load();
  std::atomic<int> resurrected{0};
  std::atomic<int> badValue{0};
  for (int round = 0; round < kRounds; ++round) {
    Ref<Tracked> owner = new Tracked();
    WeakRef<Tracked> weak(owner);
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      // Half the threads hold a strong reference of their own, so the last one to go varies.
      Ref<Tracked> mine = t % 2 ? owner : nullptr;
      threads.emplace_back([&, mine]() mutable {
        while (!go.load()) std::this_thread::yield();
        for (int i = 0; i < 50 && mine; ++i) {
          Ref<Tracked> a = mine;
          Ref<Tracked> b = a;
          if (b->value != 42) badValue.fetch_add(1);
        }
        mine.reset();
        // Resolve until the object has been gone for a while; a lock after a failed one
        // would be a resurrection.
        int sinceGone = -1;
        for (int i = 0; i < 10000000 && sinceGone < 100; ++i) {
          WeakRef<Tracked> copy = weak;
          Ref<Tracked> locked = copy.lock();
          if (!locked) {
            ++sinceGone;
            continue;
          }
          if (sinceGone >= 0) resurrected.fetch_add(1);
          if (locked->value != 42) badValue.fetch_add(1);
        }
      });
    }
    go.store(true);
    owner.reset();
    for (auto& t : threads) t.join();
    EXPECT_FALSE(weak.lock());
    EXPECT_EQ(g_destroyed.load() - destroyedBefore, round + 1);
  }
  EXPECT_EQ(resurrected.load(), 0);
  EXPECT_EQ(badValue.load(), 0);
}

TEST(ObjectRefs, ConcurrentFirstWeakRefsShareOneProxy) {
  Ref<Tracked> owner = new Tracked();
  std::vector<GcProxy*> seen(8, nullptr);
  std::vector<WeakRef<Tracked>> weaks(8);
  std::atomic<bool> go{false};
  std::vector<std::thread> threads;
  for (size_t t = 0; t < seen.size(); ++t) {
    threads.emplace_back([&, t] {
      while (!go.load()) std::this_thread::yield();
      weaks[t] = WeakRef<Tracked>(owner);
      seen[t] = owner->gcProxy();
    });
  }
  go.store(true);
  for (auto& t : threads) t.join();
  for (size_t t = 0; t < seen.size(); ++t)
    EXPECT_TRUE(seen[t] == seen[0] && weaks[t].lock().get() == owner.get()) << t;
  owner.reset();
  for (auto& weak : weaks) EXPECT_FALSE(weak.lock());
}

// Stats are taken first and checked after, so that nothing the checks allocate is counted.
TEST(HeapCounts, AllocationsAndNewAreCountedUntilFreed) {
  Heap::Stats before = Heap::stats();
  void* block = Heap::alloc(100, Heap::kSingle, nullptr);
  Heap::Stats withBlock = Heap::stats();
  Heap::free(block, Heap::kSingle, nullptr);
  auto* object = new Tracked();  // global new goes through the heap as well
  Heap::Stats withObject = Heap::stats();
  delete object;
  Heap::Stats after = Heap::stats();
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(withBlock.liveBlocks, before.liveBlocks + 1);
  EXPECT_GE(withBlock.liveBytes, before.liveBytes + 100);
  EXPECT_EQ(withObject.liveBlocks, before.liveBlocks + 1);
  EXPECT_EQ(after.liveBlocks, before.liveBlocks);
  EXPECT_EQ(after.liveBytes, before.liveBytes);
}

TEST(LogFilters, HandlesAreStablePerNameAndPosixLogOffSwitchesFiltersOff) {
  setenv("POSIX_LOG_OFF", "OBJTEST QUIET,OBJTEST OTHER", 1);
  uint64_t loud = SysLogFilter::reg("OBJTEST LOUD");
  uint64_t quiet = SysLogFilter::reg("OBJTEST QUIET");
  uint64_t prefix = SysLogFilter::reg("OBJTEST QUIE");
  unsetenv("POSIX_LOG_OFF");
  EXPECT_GE(loud, 1u);
  EXPECT_NE(loud, quiet);
  EXPECT_EQ(SysLogFilter::reg("OBJTEST LOUD"), loud);
  EXPECT_EQ(SysLogFilter::reg("OBJTEST QUIET"), quiet);
  EXPECT_TRUE(SysLogFilter::state(loud));
  EXPECT_FALSE(SysLogFilter::state(quiet));
  EXPECT_TRUE(SysLogFilter::state(prefix));
}

}  // namespace
