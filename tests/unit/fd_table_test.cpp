// Descriptor tables: numbering, duplication, copying into a child and what stays shared.
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

FileDescriptor* entryFor(const Ref<FileDescriptionServer>& server) { return new FileDescriptor{server, false}; }

TEST(FDTable, FreshTableHasPlaceholdersAndFillsTheLowestFreeNumber) {
  FDTable table;
  ASSERT_EQ(table.slotCount(), 3u);
  for (int fd = 0; fd < 3; ++fd) {
    ASSERT_NE(table.entry(fd), nullptr);
    EXPECT_FALSE(table.entry(fd)->server);
  }
  EXPECT_EQ(table.insert(new FileDescriptor{}, 0), 3);
  EXPECT_TRUE(table.remove(1));
  EXPECT_EQ(table.insert(new FileDescriptor{}, 0), 1);
  EXPECT_EQ(table.insert(nullptr, 0), -1);
  auto* e = new FileDescriptor{};
  EXPECT_EQ(table.insert(e, -1), -1);
  delete e;  // not taken on failure
}

TEST(FDTable, InsertBeyondTheEndLeavesTheGapFree) {
  FDTable table;
  table.insert(new FileDescriptor{}, 0);  // 4 slots
  EXPECT_EQ(table.insert(new FileDescriptor{}, 10), 10);
  EXPECT_EQ(table.slotCount(), 11u);
  for (int fd = 4; fd < 10; ++fd) EXPECT_EQ(table.entry(fd), nullptr) << fd;
  EXPECT_EQ(table.insert(new FileDescriptor{}, 5), 5);
  EXPECT_EQ(table.insert(new FileDescriptor{}, 11), 11) << "appending right at the end";
}

TEST(FDTable, DescriptorNumbersAreBounded) {
  FDTable table;
  auto* e = new FileDescriptor{};
  EXPECT_EQ(table.insert(e, FDTable::kMaxDescriptors), -1);
  delete e;
  EXPECT_EQ(table.dup(0, 0x7FFFFFF0, true), -1);
  EXPECT_EQ(table.slotCount(), 3u) << "a refused number must not grow the table";
}

TEST(FDTable, OpenEntriesAreBoundedAndCopiesCountTheirs) {
  FDTable table;
  for (uint32_t i = 3; i < FDTable::kMaxOpen; ++i) ASSERT_GE(table.insert(new FileDescriptor{}, 0), 0);
  auto* e = new FileDescriptor{};
  EXPECT_EQ(table.insert(e, 0), -1) << "full";
  EXPECT_EQ(table.dup(0, 0, false), -1);
  EXPECT_EQ(table.dup(0, 5, true), 5) << "replacing a number takes no more room";
  Ref<FDTable> parent = new FDTable();
  ASSERT_TRUE(parent->remove(1));
  FDTable child(parent);
  for (uint32_t i = 2; i < FDTable::kMaxOpen; ++i) ASSERT_GE(child.insert(new FileDescriptor{}, 0), 0);
  EXPECT_EQ(child.insert(e, 0), -1) << "the copy counts what it inherited";
  EXPECT_TRUE(table.remove(100));
  EXPECT_EQ(table.insert(e, 0), 100) << "a closed number makes room again";
}

TEST(FDTable, RemoveRejectsFreeNegativeAndOutOfRangeNumbers) {
  FDTable table;
  for (int fd : {-1, 3, 1000}) EXPECT_FALSE(table.remove(fd)) << fd;
  EXPECT_TRUE(table.remove(2));
  EXPECT_FALSE(table.remove(2));
}

TEST(FDTable, DupToLowestOntoANumberAndOntoItself) {
  int deaths = 0;
  FDTable table;
  Ref<FileDescriptionServer> a = new FakeDescription(&deaths);
  Ref<FileDescriptionServer> b = new FakeDescription(&deaths);
  ASSERT_EQ(table.insert(entryFor(a), 0), 3);
  ASSERT_EQ(table.insert(new FileDescriptor{b, true}, 7), 7);
  table.remove(1);
  EXPECT_EQ(table.dup(3, 0, false), 1) << "lowest free number";
  EXPECT_EQ(table.entry(1)->server, a);
  b.reset();
  EXPECT_EQ(table.dup(3, 7, true), 7) << "onto a number, closing what it held";
  EXPECT_EQ(deaths, 1) << "the description that 7 held was its last reference";
  EXPECT_EQ(table.entry(7)->server, a);
  const_cast<FileDescriptor*>(table.entry(3))->closeOnExec = true;
  EXPECT_EQ(table.dup(3, 3, true), 3);
  EXPECT_FALSE(table.entry(3)->closeOnExec) << "duplicating onto itself clears close-on-exec";
  EXPECT_EQ(table.entry(3)->server, a);
  for (auto [from, to] : {std::pair{4, 0}, {-1, 0}, {99, 0}, {3, -1}})
    EXPECT_EQ(table.dup(from, to, false), -1) << from << " to " << to << ": free or out of range";
}

TEST(FDTable, CopySharesDescriptionsAndKeepsNumbering) {
  int deaths = 0;
  Ref<FDTable> parent = new FDTable();
  Ref<FileDescriptionServer> d = new FakeDescription(&deaths);
  parent->insert(new FileDescriptor{d, true}, 5);
  parent->remove(0);
  d.reset();
  Ref<FDTable> child = new FDTable(parent);
  ASSERT_EQ(child->slotCount(), parent->slotCount());
  EXPECT_EQ(child->entry(0), nullptr);
  ASSERT_NE(child->entry(1), nullptr);
  EXPECT_FALSE(child->entry(1)->server) << "placeholders stay placeholders";
  EXPECT_EQ(child->entry(3), nullptr);
  ASSERT_NE(child->entry(5), nullptr);
  EXPECT_TRUE(child->entry(5)->closeOnExec);
  EXPECT_EQ(child->entry(5)->server, parent->entry(5)->server);
  EXPECT_TRUE(child->remove(5));
  EXPECT_EQ(deaths, 0) << "the parent's descriptor still holds the description";
  ASSERT_NE(parent->entry(5), nullptr);
  parent.reset();
  EXPECT_EQ(deaths, 1);
  Ref<FDTable> orphan = new FDTable(Ref<FDTable>());
  EXPECT_EQ(orphan->slotCount(), 0u);
}

}  // namespace
