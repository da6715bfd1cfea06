// Monitors, semaphores, the initialisation lock and platform threads.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "platform/sync.h"
#include "platform/thread.h"

namespace {

using Clock = std::chrono::steady_clock;

int64_t msSince(Clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

TEST(Monitor, ReentersOnOneThreadAndExcludesOthersUntilEveryEnterIsLeft) {
  Ref<Mon> mon = Mon::create();
  ASSERT_TRUE(mon->enter());
  ASSERT_TRUE(mon->enter(0));  // the holder gets in again at once
  auto enterElsewhere = [&](uint32_t timeoutMs) {
    bool in = false;
    std::thread([&] {
      in = mon->enter(timeoutMs);
      if (in) mon->leave();
    }).join();
    return in;
  };
  auto start = Clock::now();
  EXPECT_FALSE(enterElsewhere(80));
  EXPECT_GE(msSince(start), 75);
  mon->leave();  // one leave is not enough: the monitor was entered twice
  EXPECT_FALSE(enterElsewhere(20));

  std::atomic<bool> entered{false};  // a waiting enter gets in once the holder leaves
  std::thread waiter([&] {
    MonLock lock(mon);
    entered = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(20));  // let it wait, most times
  mon->leave();
  waiter.join();
  EXPECT_TRUE(entered.load());
}

TEST(Semaphore, CountsUpsTimesOutWhenEmptyAndWakesAForeverDown) {
  Ref<Sem> sem = Sem::create(2);
  EXPECT_TRUE(sem->down(0) && sem->down(0));
  auto start = Clock::now();
  EXPECT_FALSE(sem->down(60));
  EXPECT_GE(msSince(start), 55);

  for (int i = 0; i < 3; ++i) sem->up();
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(sem->down(0)) << i;
  EXPECT_FALSE(sem->down(0));

  std::thread waiter([&] { EXPECT_TRUE(sem->down(kForever)); });
  std::this_thread::sleep_for(std::chrono::milliseconds(20));  // let it wait, most times
  sem->up();
  waiter.join();
  EXPECT_FALSE(sem->down(0));  // the waiter took the one up
}

TEST(InitCodeLock, IsReentrantAndExcludesOtherThreads) {
  InitCode::lock();
  InitCode::lock();
  std::atomic<bool> otherHeld{false};
  std::thread other([&] {
    InitCode::lock();
    otherHeld.store(true);
    InitCode::unlock();
  });
  InitCode::unlock();
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  EXPECT_FALSE(otherHeld.load());  // still held once
  InitCode::unlock();
  other.join();
  EXPECT_TRUE(otherHeld.load());
}

TEST(AtomicCounter, IncAndDecFromManyThreadsBalance) {
  uint64_t counter = 0;
  std::thread a([&] { for (int i = 0; i < 10000; ++i) Atomic::inc(&counter); });
  std::thread b([&] { for (int i = 0; i < 10000; ++i) Atomic::inc(&counter); });
  std::thread c([&] { for (int i = 0; i < 5000; ++i) Atomic::dec(&counter); });
  a.join();
  b.join();
  c.join();
  EXPECT_EQ(Atomic::inc(&counter), 15001u);
}

class Recorder : public Object, public Exec {
 public:
  void run() override {
    name = Thd::name()->c_str();
    tid = Thd::current();
    Ref<Sem> gate = gate_;
    gate->down();
    cancelledSeen = Thd::cancelled();
  }
  Ref<Sem> gate_ = Sem::create();
  std::string name;
  uint64_t tid = 0;
  bool cancelledSeen = false;
};

TEST(PlatformThread, NamedCancellableAndJoinable) {
  Ref<Recorder> body = new Recorder();
  Ref<Thd> thread = Thd::create(body);
  ASSERT_TRUE(thread);
  thread->setName("a-name-longer-than-fifteen");
  ASSERT_TRUE(thread->start());
  EXPECT_FALSE(thread->start());
  EXPECT_FALSE(thread->join(30));  // still waiting at the gate
  thread->cancel();
  body->gate_->up();
  ASSERT_TRUE(thread->join(5000));
  EXPECT_EQ(body->name, "a-name-longer-t");
  EXPECT_NE(body->tid, Thd::current());
  EXPECT_TRUE(body->cancelledSeen);
  EXPECT_FALSE(Thd::cancelled());
}

}  // namespace
