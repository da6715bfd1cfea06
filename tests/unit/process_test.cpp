// Process records, groups, signals and waiting, with real programs started through the
// platform and real requests whose replies are read back from a client socket.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <thread>

#include "channel_harness.h"
#include "fd/fd_table.h"
#include "process/posix_process.h"
#include "process/process_group.h"
#include "process/process_registry.h"

namespace {

class ProcessTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    ProcessRegistry::create();
    ProcessRegistry::createMonitor();
    PosixProcessGroup::createRegistry();
  }
  static void TearDownTestSuite() {
    PosixProcessGroup::releaseRegistry();
    ProcessRegistry::release();
    ProcessRegistry::releaseMonitor();
  }

  // A record for a program that connected by itself. Pids far above any real pid keep the
  // records of different tests apart.
  Ref<PosixProcess> entry(uint64_t pid) { return PosixProcess::createEntry(pid); }

  Ref<PosixProcess> spawn(const Ref<PosixProcess>& parent, const char* script) {
    ProgramStart start;
    start.path = String::create("/bin/sh");
    start.arguments = {String::create("sh"), String::create("-c"), String::create(script)};
    start.environment = Env::create();
    return PosixProcess::spawn(parent, std::move(start));
  }

  // Waits until `process` has ended and its parent has been told (bounded).
  static bool awaitEnd(const Ref<PosixProcess>& parent, uint64_t zombies) {
    for (int i = 0; i < 1000; ++i) {
      if (parent->zombieCount() >= zombies) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return false;
  }

  static StatusRecord recordOf(const ChannelHarness::Reply& reply) {
    StatusRecord record{};
    if (!reply.blocks.empty() && reply.blocks[0].bytes.size() == sizeof record)
      std::memcpy(&record, reply.blocks[0].bytes.data(), sizeof record);
    return record;
  }

  ChannelHarness channel;
};

TEST_F(ProcessTest, ConnectingProgramLeadsItsOwnGroupAndIsFoundByPid) {
  Ref<PosixProcess> p = entry(900001);
  EXPECT_EQ(p->pid(), 900001u);
  ASSERT_TRUE(p->group());
  EXPECT_EQ(p->group()->id(), 900001u);
  EXPECT_EQ(p->group()->livingMembers(), 1u);
  EXPECT_FALSE(p->parent());
  EXPECT_TRUE(p->fdTable());
  EXPECT_EQ(PosixProcess::find(900001), p);
  EXPECT_EQ(PosixProcessGroup::find(900001), p->group());

  uint64_t listed = ProcessRegistry::size();
  Ref<PosixProcess> again = PosixProcess::createEntry(900001);
  EXPECT_EQ(again, p) << "a second entry for a known pid is the first record";
  EXPECT_EQ(ProcessRegistry::size(), listed + 1) << "and it is listed twice";

  p.reset();
  again.reset();
  EXPECT_FALSE(PosixProcess::find(900001)) << "records are listed weakly";
  EXPECT_FALSE(PosixProcessGroup::find(900001)) << "a group dies with its last member";
}

TEST_F(ProcessTest, PendingSignalsAreAnsweredOncePerSignalInAscendingOrder) {
  Ref<PosixProcess> p = entry(900002);
  EXPECT_EQ(p->signal(p, 0, nullptr), 1u);
  EXPECT_EQ(p->pendingSignals(), 0u) << "signal 0 only probes";
  EXPECT_EQ(p->signal(p, 32, nullptr), 2u);
  EXPECT_EQ(p->signal(p, 5, nullptr), 1u);
  EXPECT_EQ(p->signal(p, 3, nullptr), 1u);
  EXPECT_EQ(p->signal(p, 5, nullptr), 1u);
  EXPECT_EQ(p->pendingSignals(), (1u << 4) | (1u << 2)) << "a repeated signal is pending once";

  EXPECT_FALSE(p->waitSignal(channel.request(3)));
  ChannelHarness::Reply r;
  ASSERT_TRUE(channel.reply(&r));
  EXPECT_EQ(r.code, 3u);
  ASSERT_TRUE(channel.reply(&r));
  EXPECT_EQ(r.code, 5u);
  EXPECT_FALSE(channel.reply(&r, 50));
  EXPECT_EQ(p->pendingSignals(), 0u);

  Ref<InMsg> kept = channel.request(3);
  EXPECT_TRUE(p->waitSignal(kept)) << "with nothing pending the request is kept";
  EXPECT_FALSE(p->waitSignal(channel.request(3))) << "one waiter at a time";
  StatusRecord info{};
  info.pid = 4242;
  EXPECT_EQ(p->signal(p, 7, &info), 1u);
  ASSERT_TRUE(channel.reply(&r));
  EXPECT_EQ(r.id, kept->id());
  EXPECT_EQ(r.code, 7u);
  EXPECT_EQ(recordOf(r).pid, 4242u);
  EXPECT_EQ(p->pendingSignals(), 0u);
  EXPECT_EQ(p->signal(p, 8, nullptr), 1u);
  EXPECT_EQ(p->pendingSignals(), 1u << 7) << "the waiter was answered once and cleared";
}

TEST_F(ProcessTest, ChildIsCollectedWithItsExitCodeAndNoWaitLeavesTheZombie) {
  Ref<PosixProcess> parent = entry(900003);
  Ref<PosixProcess> child = spawn(parent, "exit 3");
  ASSERT_TRUE(child);
  EXPECT_EQ(child->parent(), parent);
  EXPECT_EQ(child->groupId(), parent->groupId()) << "a child joins its parent's group";
  ASSERT_TRUE(awaitEnd(parent, 1));
  EXPECT_TRUE(child->terminated());
  EXPECT_FALSE(child->fdTable()) << "an ended program drops its descriptors";
  EXPECT_EQ(parent->pendingSignals(), 1u << (PX_SIG_CHILD - 1)) << "the parent learns of the end";

  ChannelHarness::Reply r;
  for (int pass = 0; pass < 2; ++pass) {
    parent->wait(channel.request(9), PX_WAIT_BY_PID, child->pid(), PX_WAIT_OPT_NOWAIT);
    ASSERT_TRUE(channel.reply(&r));
    EXPECT_EQ(r.code, 1u);
    EXPECT_EQ(recordOf(r).exit_code, 3u);
    EXPECT_EQ(recordOf(r).pid, child->pid());
    EXPECT_EQ(recordOf(r).signal, PX_SIG_CHILD);
  }
  parent->wait(channel.request(9), PX_WAIT_BY_GROUP, 0, 0);
  ASSERT_TRUE(channel.reply(&r));
  EXPECT_EQ(r.code, 1u) << "group 0 means the caller's own group";
  parent->wait(channel.request(9), PX_WAIT_ANY_CHILD, 0, 0);
  ASSERT_TRUE(channel.reply(&r));
  EXPECT_EQ(r.code, 5u) << "nothing left to wait for";
}

TEST_F(ProcessTest, BlockingWaitIsAnsweredAtTheEndAndOtherWaitersGetNothingLeft) {
  Ref<PosixProcess> parent = entry(900004);
  Ref<PosixProcess> child = spawn(parent, "read line");  // stdin is /dev/null: ends at once
  Ref<PosixProcess> sleeper = spawn(parent, "sleep 0.3");
  ASSERT_TRUE(child && sleeper);
  ChannelHarness::Reply r;

  parent->wait(channel.request(9), PX_WAIT_BY_PID, sleeper->pid(), PX_WAIT_OPT_NOHANG);
  ASSERT_TRUE(channel.reply(&r));
  EXPECT_EQ(r.code, 5u) << "not blocking while the child still runs";
  parent->wait(channel.request(9), PX_WAIT_BY_PID, 12345678, 0);
  ASSERT_TRUE(channel.reply(&r));
  EXPECT_EQ(r.code, 5u) << "not a child";

  ASSERT_TRUE(awaitEnd(parent, 1));
  parent->wait(channel.request(9), PX_WAIT_ANY_CHILD, 0, 0);  // collects the first child
  ASSERT_TRUE(channel.reply(&r));
  EXPECT_EQ(recordOf(r).pid, child->pid());

  Ref<InMsg> first = channel.request(9);
  Ref<InMsg> second = channel.request(9);
  parent->wait(first, PX_WAIT_BY_PID, sleeper->pid(), 0);
  parent->wait(second, PX_WAIT_ANY_CHILD, 0, 0);
  EXPECT_EQ(parent->waitCount(), 2u);
  ASSERT_TRUE(channel.reply(&r, 5000));
  EXPECT_EQ(r.id, first->id());
  EXPECT_EQ(r.code, 1u);
  EXPECT_EQ(recordOf(r).pid, sleeper->pid());
  ASSERT_TRUE(channel.reply(&r));
  EXPECT_EQ(r.id, second->id());
  EXPECT_EQ(r.code, 5u) << "the last child was collected by the first waiter";
  EXPECT_EQ(parent->zombieCount(), 0u) << "a child handed to a waiter never becomes a zombie";
}

TEST_F(ProcessTest, AbortAnswersEveryQueuedWait) {
  Ref<PosixProcess> parent = entry(900005);
  Ref<PosixProcess> child = spawn(parent, "sleep 5");
  ASSERT_TRUE(child);
  parent->wait(channel.request(9), PX_WAIT_ANY_CHILD, 0, 0);
  parent->wait(channel.request(9), PX_WAIT_BY_PID, child->pid(), 0);
  parent->failWaiters(PX_RESULT_ABORTED);
  ChannelHarness::Reply r;
  for (int i = 0; i < 2; ++i) {
    ASSERT_TRUE(channel.reply(&r));
    EXPECT_EQ(r.code, PX_RESULT_ABORTED);
  }
  EXPECT_EQ(parent->waitCount(), 0u);
  EXPECT_EQ(child->signal(parent, PX_SIG_KILL, nullptr), 1u);
  ASSERT_TRUE(awaitEnd(parent, 1));
  parent->wait(channel.request(9), PX_WAIT_ANY_CHILD, 0, 0);
  ASSERT_TRUE(channel.reply(&r));
  EXPECT_EQ(recordOf(r).exit_code, 128u + 9u) << "killed by the host's SIGKILL";
}

TEST_F(ProcessTest, ProgramsThatEndAtOnceAreStillSeenAsChildren) {
  // A program may end before the spawning thread has linked it: its end must wait for that.
  Ref<PosixProcess> parent = entry(900009);
  constexpr uint64_t kPrograms = 100;
  for (uint64_t i = 0; i < kPrograms; ++i) {
    ProgramStart start;
    start.path = String::create("/bin/true");
    start.arguments = {String::create("true")};
    start.environment = Env::create();
    ASSERT_TRUE(PosixProcess::spawn(parent, std::move(start))) << i;
  }
  ASSERT_TRUE(awaitEnd(parent, kPrograms));
  EXPECT_EQ(parent->childCount(), 0u);
}

TEST_F(ProcessTest, ProgramThatCannotStartLeavesNoChild) {
  Ref<PosixProcess> parent = entry(900006);
  ProgramStart start;
  start.path = String::create("/nonexistent/program");
  start.environment = Env::create();
  EXPECT_FALSE(PosixProcess::spawn(parent, std::move(start)));
  EXPECT_EQ(parent->childCount(), 0u);
}

TEST_F(ProcessTest, GroupSignalSkipsDeadMembersAndAlwaysAnswersOne) {
  Ref<PosixProcess> leader = entry(900007);
  Ref<PosixProcess> member = entry(900008);
  member->setGroup(leader->group());
  EXPECT_EQ(leader->group()->livingMembers(), 2u);
  EXPECT_FALSE(leader->group()->addMember(member)) << "already a member";
  EXPECT_EQ(leader->group()->signalAll(leader, 4, nullptr), 1u);
  // Records of made-up pids have no platform information: nobody may control them but
  // themselves, so only the sender itself received the signal.
  EXPECT_EQ(leader->pendingSignals(), 1u << 3);
  EXPECT_EQ(member->pendingSignals(), 0u);
  member.reset();
  EXPECT_EQ(leader->group()->livingMembers(), 1u);
  EXPECT_EQ(leader->group()->signalAll(leader, 6, nullptr), 1u);
}

}  // namespace
