// Process records and groups at the level of the objects: records found by identity and listed
// weakly, and group signals that skip dead members.
#include <gtest/gtest.h>

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
  // A record takes its listings and its group's with it; nothing dead is left to sweep.
  uint64_t groups = PosixProcessGroup::registrySize();
  for (uint64_t pid = 910000; pid < 910500; ++pid) entry(pid);
  EXPECT_EQ(ProcessRegistry::size(), listed - 1);
  EXPECT_EQ(PosixProcessGroup::registrySize(), groups);
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
  // A walk from a serial on leaves out who joined after it was taken, and goes on from where
  // the last slice ended.
  uint64_t from = 0, before = leader->group()->nextSerial();
  Ref<PosixProcess> late = entry(900009);
  late->setGroup(leader->group());
  EXPECT_EQ(leader->group()->membersFrom(&from, before, 1), std::vector<Ref<PosixProcess>>{leader});
  EXPECT_EQ(leader->group()->membersFrom(&from, before, 5), std::vector<Ref<PosixProcess>>{member});
  EXPECT_EQ(from, before);
  late.reset();
  member.reset();
  EXPECT_EQ(leader->group()->livingMembers(), 1u) << "a member leaves with its record";
  EXPECT_EQ(leader->group()->signalAll(leader, 6, nullptr), 1u);
}

}  // namespace
