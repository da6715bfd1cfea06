// The platform's core objects: references across threads, the constructor guard, the heap's
// counts and refusal hook, and the log's filters and line format.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <regex>
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

// Hands out a reference to itself while it is being built, as objects that register
// themselves somewhere do.
class SelfPublishing : public Object {
 public:
  explicit SelfPublishing(WeakRef<SelfPublishing>* published) {
    lockRef();
    {
      Ref<SelfPublishing> self(this);
      *published = WeakRef<SelfPublishing>(self);
    }
    unlockRef();
  }
  ~SelfPublishing() override { g_destroyed.fetch_add(1); }
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

TEST(ObjectRefs, LockRefKeepsAnObjectAliveThroughItsConstructor) {
  int before = g_destroyed.load();
  WeakRef<SelfPublishing> published;
  Ref<SelfPublishing> object = new SelfPublishing(&published);
  EXPECT_EQ(g_destroyed.load(), before);
  EXPECT_EQ(object->strongCount(), 1u);
  EXPECT_EQ(published.lock().get(), object.get());
  object.reset();
  EXPECT_EQ(g_destroyed.load(), before + 1);
  EXPECT_FALSE(published.lock());

  // unlockRef on its own never deletes: the count goes back to 0 and the first Ref still owns.
  auto* raw = new Tracked();
  raw->lockRef();
  raw->unlockRef();
  EXPECT_EQ(g_destroyed.load(), before + 1);
  Ref<Tracked> owner = raw;
  EXPECT_EQ(owner->strongCount(), 1u);
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

TEST(HeapCounts, RefuseAfterRefusesUntilSwitchedOff) {
  // In a child: while the heap refuses, nothing else in the process may allocate.
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    Heap::refuseAfter(2);
    void* first = Heap::alloc(16, Heap::kSingle, nullptr);
    void* second = Heap::alloc(16, Heap::kSingle, nullptr);
    void* refused = Heap::alloc(16, Heap::kSingle, nullptr);
    Heap::refuseAfter(0);
    void* refusedAtOnce = Heap::alloc(16, Heap::kSingle, nullptr);
    Heap::refuseAfter(-1);
    void* again = Heap::alloc(16, Heap::kSingle, nullptr);
    _exit((first ? 1 : 0) | (second ? 2 : 0) | (refused ? 4 : 0) | (refusedAtOnce ? 8 : 0) |
          (again ? 16 : 0));
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 1 | 2 | 16);
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

  std::vector<uint64_t> handles(8);
  std::vector<std::thread> threads;
  for (size_t i = 0; i < handles.size(); ++i)
    threads.emplace_back([&handles, i] { handles[i] = SysLogFilter::reg("OBJTEST RACE"); });
  for (auto& t : threads) t.join();
  for (uint64_t h : handles) EXPECT_EQ(h, handles[0]);
}

TEST(LogFilters, LinesCarryTimeLevelSourceAndText) {
  testing::internal::CaptureStderr();
  {
    Ref<LogPrinter> printer = SysLogStream::stdOutPrinter();
    printer->setLevel(3);
    printer->setSource(SysLogFilter::id(SysLogFilter::reg("OBJTEST LINE")));
    *printer << "value " << hex << uint64_t{255} << dec << " and " << int64_t{-5};
    printer->endLine();
    *printer << "second";
    printer->endLine();
  }
  std::string text = testing::internal::GetCapturedStderr();
  const std::string stamp = R"(\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{3} 3 OBJTEST LINE: )";
  EXPECT_TRUE(std::regex_match(text, std::regex(stamp + "value ff and -5\n" + stamp + "second\n")))
      << text;
}

}  // namespace
