// Descriptor tables where the library cannot look: numbering among gaps and high numbers,
// flags and placeholders in a copy, and what a copy shares and counts.
#include <gtest/gtest.h>

#include "fd/fd_table.h"

namespace {

class FakeDescription : public Object, public FileDescriptionServer {
 public:
  explicit FakeDescription(int* deaths) : deaths_(deaths) {}
  ~FakeDescription() override { ++*deaths_; }
  int32_t type() const override { return kTypeFifo; }

 private:
  int* deaths_;
};

TEST(FDTable, HighNumbersTakeNoRoomAndGapsStayFree) {
  FDTable table;
  EXPECT_EQ(table.insert(new FileDescriptor{}, 10), 10);
  EXPECT_EQ(table.insert(new FileDescriptor{}, 9), 9);
  EXPECT_EQ(table.insert(new FileDescriptor{}, 9), 11) << "past the run 9, 10";
  EXPECT_EQ(table.insert(new FileDescriptor{}, 0), 3);
  constexpr int32_t kTop = FDTable::kMaxDescriptors - 1;
  EXPECT_EQ(table.dup(3, kTop, true), kTop);
  EXPECT_EQ(table.size(), 8u) << "entries, not numbers, take room";
  for (int fd : {4, 8, 12, kTop - 1}) EXPECT_EQ(table.entry(fd), nullptr) << fd;
  EXPECT_EQ(table.dup(3, kTop, false), FDTable::kNoRoom) << "no free number up to the bound";
  EXPECT_EQ(table.dup(3, kTop + 1, true), FDTable::kBadNumber);
  EXPECT_EQ(table.size(), 8u) << "a refused number changes nothing";
}

TEST(FDTable, DupOntoItselfClearsTheFlagAndReplacingDropsTheOldDescription) {
  int deaths = 0;
  FDTable table;
  Ref<FileDescriptionServer> a = new FakeDescription(&deaths);
  ASSERT_EQ(table.insert(new FileDescriptor{a, true}, 0), 3);
  ASSERT_EQ(table.insert(new FileDescriptor{new FakeDescription(&deaths), false}, 7), 7);
  EXPECT_EQ(table.dup(3, 7, true), 7);
  EXPECT_EQ(deaths, 1) << "7 held its description's last reference";
  EXPECT_EQ(table.dup(3, 3, true), 3);
  EXPECT_FALSE(table.entry(3)->closeOnExec);
  EXPECT_EQ(table.entry(3)->server, a);
}

TEST(FDTable, ACopyKeepsNumbersFlagsAndPlaceholdersSharesDescriptionsAndCountsThem) {
  int deaths = 0;
  Ref<FDTable> parent = new FDTable();
  parent->insert(new FileDescriptor{new FakeDescription(&deaths), true}, 5);
  parent->remove(0);
  Ref<FDTable> child = new FDTable(parent);
  ASSERT_EQ(child->size(), 3u);
  EXPECT_EQ(child->entry(0), nullptr);
  ASSERT_NE(child->entry(1), nullptr);
  EXPECT_FALSE(child->entry(1)->server) << "placeholders stay placeholders";
  ASSERT_NE(child->entry(5), nullptr);
  EXPECT_TRUE(child->entry(5)->closeOnExec);
  EXPECT_EQ(child->entry(5)->server, parent->entry(5)->server);
  EXPECT_TRUE(child->remove(5));
  EXPECT_EQ(deaths, 0) << "the parent's descriptor still holds the description";
  parent.reset();
  EXPECT_EQ(deaths, 1);
  for (uint32_t i = child->size(); i < FDTable::kMaxOpen; ++i)
    ASSERT_GE(child->insert(new FileDescriptor{}, 0), 0);
  auto* e = new FileDescriptor{};
  EXPECT_EQ(child->insert(e, 0), FDTable::kNoRoom) << "inherited entries count";
  delete e;
}

}  // namespace
