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

TEST(Monitor, ReentersOnOneThreadAndTimesOutOnAnother) {
  Ref<Mon> mon = Mon::create();
  ASSERT_TRUE(mon->enter());
  ASSERT_TRUE(mon->enter(0));  // the holder gets in again at once

  bool otherGotIn = true;
  int64_t waited = 0;
  std::thread([&] {
    auto start = Clock::now();
    otherGotIn = mon->enter(80);
    waited = msSince(start);
    if (otherGotIn) mon->leave();
  }).join();
  EXPECT_FALSE(otherGotIn);
  EXPECT_GE(waited, 75);

  // One leave is not enough: the monitor was entered twice.
  mon->leave();
  std::thread([&] {
    otherGotIn = mon->enter(20);
    if (otherGotIn) mon->leave();
  }).join();
  EXPECT_FALSE(otherGotIn);

  mon->leave();
  std::thread([&] {
    otherGotIn = mon->enter(1000);
    if (otherGotIn) mon->leave();
  }).join();
  EXPECT_TRUE(otherGotIn);
}

TEST(Monitor, WaitingEnterSucceedsWhenTheHolderLeaves) {
  Ref<Mon> mon = Mon::create();
  mon->enter();
  std::atomic<bool> entered{false};
  std::thread waiter([&] {
    MonLock lock(mon);
    entered.store(true);
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  EXPECT_FALSE(entered.load());
  mon->leave();
  waiter.join();
  EXPECT_TRUE(entered.load());
}

TEST(Semaphore, CountsUpsAndTimesOutWhenEmpty) {
  Ref<Sem> sem = Sem::create(2);
  EXPECT_TRUE(sem->down(0));
  EXPECT_TRUE(sem->down(0));
  auto start = Clock::now();
  EXPECT_FALSE(sem->down(60));
  EXPECT_GE(msSince(start), 55);

  sem->up();
  sem->up();
  sem->up();
  EXPECT_TRUE(sem->down(0));
  EXPECT_TRUE(sem->down(0));
  EXPECT_TRUE(sem->down(0));
  EXPECT_FALSE(sem->down(0));
}

TEST(Semaphore, UpFromAnotherThreadWakesAForeverDown) {
  Ref<Sem> sem = Sem::create();
  std::atomic<bool> woke{false};
  std::thread waiter([&] {
    sem->down(kForever);
    woke.store(true);
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  EXPECT_FALSE(woke.load());
  sem->up();
  waiter.join();
  EXPECT_TRUE(woke.load());
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
