// Process records, groups, signals and waiting at the level of the objects: weak listing,
// pending signals and the one signal waiter, queued waits that are aborted, programs that end
// before they are linked, and group signals that skip dead members. Replies are read back
// from a client socket.
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
  Ref<PosixProcess> entry(uint64_t pid, uint32_t level = 0) {
    return PosixProcess::createEntry({pid, 1}, level);
  }

  // Starts a program as `parent`'s child; its pid from the agent's answer, 0 when it failed.
  uint64_t spawn(const Ref<PosixProcess>& parent, const char* path,
                 std::vector<Ref<String>> arguments) {
    ProgramStart start;
    start.path = String::create(path);
    start.arguments = std::move(arguments);
    start.environment = Env::create();
    if (PosixProcess::spawn(parent, std::move(start), channel.request(PX_CMD_SPAWN)) != PX_RESULT_DONE)
      return 0;
    ChannelHarness::Reply r;
    uint64_t pid = 0;
    if (!channel.reply(&r) || r.code != PX_RESULT_DONE || r.data.size() != sizeof pid) return 0;
    std::memcpy(&pid, r.data.data(), sizeof pid);
    return pid;
  }

  // Waits until `parent` has been told of `zombies` ended children (bounded).
  static bool awaitEnd(const Ref<PosixProcess>& parent, uint64_t zombies) {
    for (int i = 0; i < 1000; ++i) {
      if (parent->zombieCount() >= zombies) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return false;
  }

  uint32_t nextReplyCode() {
    ChannelHarness::Reply r;
    return channel.reply(&r) ? r.code : 0xDEAD;
  }

  ChannelHarness channel;
};

TEST_F(ProcessTest, RecordsAreFoundByIdentityListedWeaklyAndAKnownIdentityKeepsItsRecord) {
  Ref<PosixProcess> p = entry(900001);
  EXPECT_EQ(PosixProcess::find({900001, 1}), p);
  EXPECT_EQ(PosixProcessGroup::find(900001), p->group());
  uint64_t listed = ProcessRegistry::size();
  Ref<PosixProcess> again = entry(900001);
  EXPECT_EQ(again, p) << "a second entry for a known identity is the first record";
  EXPECT_EQ(ProcessRegistry::size(), listed + 1) << "and it is listed twice";
  EXPECT_NE(PosixProcess::createEntry({900001, 2}, 0), p) << "the same pid started later";
  p.reset();
  again.reset();
  EXPECT_FALSE(PosixProcess::find({900001, 1})) << "records are listed weakly";
  EXPECT_FALSE(PosixProcessGroup::find(900001)) << "a group dies with its last member";
  // Listings of records that died go, at the latest when the listing has doubled.
  for (uint64_t pid = 910000; pid < 910500; ++pid) entry(pid);
  EXPECT_LT(ProcessRegistry::size(), 200u);
}

TEST_F(ProcessTest, GroupSignalSkipsDeadMembersAndAlwaysAnswersOne) {
  Ref<PosixProcess> leader = entry(900007);
  Ref<PosixProcess> member = entry(900008, 1);
  member->setGroup(leader->group());
  EXPECT_EQ(leader->group()->livingMembers(), 2u);
  EXPECT_FALSE(leader->group()->addMember(member)) << "already a member";
  EXPECT_EQ(leader->group()->signalAll(leader, 4, nullptr), 1u);
  // The member ranks above the leader: only the sender itself received the signal.
  EXPECT_EQ(leader->pendingSignals(), 1u << 3);
  EXPECT_EQ(member->pendingSignals(), 0u);
  member.reset();
  EXPECT_EQ(leader->group()->livingMembers(), 1u);
  EXPECT_EQ(leader->group()->signalAll(leader, 6, nullptr), 1u);
}

}  // namespace
