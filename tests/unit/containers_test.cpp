// The server's containers: growth and bounds of TVector, the linked TList, and the identifier
// order of TIdTable that connection tags depend on.
#include <gtest/gtest.h>

#include "common/tidtable.h"
#include "common/tlist.h"
#include "common/tvector.h"

namespace {

// Counts its own destructions so tests can see that containers release what they hold.
class Tracked : public Object {
 public:
  explicit Tracked(int* deaths, uint64_t value = 0) : value(value), deaths_(deaths) {}
  ~Tracked() override { ++*deaths_; }
  uint64_t value;

 private:
  int* deaths_;
};

TEST(TVector, KeepsOrderAsItGrowsAndIgnoresSlotsBeyondTheEnd) {
  auto v = TVector<int>::create(3);
  v->set(0, 10); v->set(1, 11); v->set(2, 12);
  v->set(5, 99);  // beyond the end: ignored
  EXPECT_EQ(v->count(), 3u);
  EXPECT_EQ(v->get(3), 0);
  EXPECT_EQ(v->get(~0ull), 0);
  v->append(13);
  v->resize(20);
  EXPECT_EQ(v->count(), 20u);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(v->get(i), 10 + i);
}

TEST(TVector, RemoveValueShiftsLaterSlotsDownAndReleasesReferences) {
  int deaths = 0;
  auto v = TVector<Ref<Tracked>>::create();
  Ref<Tracked> a = new Tracked(&deaths, 1), b = new Tracked(&deaths, 2), c = new Tracked(&deaths, 3);
  v->append(a); v->append(b); v->append(c); v->append(b);
  EXPECT_TRUE(v->contains(b));
  EXPECT_TRUE(v->removeValue(b));  // only the first slot that holds it
  ASSERT_EQ(v->count(), 3u);
  EXPECT_EQ(v->get(0), a);
  EXPECT_EQ(v->get(1), c);
  EXPECT_EQ(v->get(2), b);
  EXPECT_FALSE(v->removeValue(Ref<Tracked>()));
  c.reset();
  v->removeAt(1);
  EXPECT_EQ(deaths, 1) << "the vacated slot must not keep the removed object alive";
  v.reset();
  a.reset();
  b.reset();
  EXPECT_EQ(deaths, 3);
}

TEST(TIdTable, FreedIdentifierComesBackFirstAndBadRemovesChangeNothing) {
  auto table = TIdTable<int>::create();
  for (int i = 0; i < 10; ++i) table->add(100 + i);
  for (uint64_t id : {7ull, 7ull, 0ull, 16ull, ~0ull}) table->remove(id);
  EXPECT_EQ(table->get(7), 0);
  EXPECT_EQ(table->add(42), 7u);
  EXPECT_EQ(table->get(7), 42);
  EXPECT_EQ(table->add(43), 5u) << "after the freed one, the stack goes on where it was";
  EXPECT_EQ(table->get(0), 0);
}

TEST(TIdTable, FindSkipsSlotZeroAndFreeSlotsAndDestructionReleasesEntries) {
  int deaths = 0;
  {
    auto table = TIdTable<Ref<Tracked>>::create();
    uint64_t a = table->add(new Tracked(&deaths, 5));
    uint64_t b = table->add(new Tracked(&deaths, 6));
    table->add(new Tracked(&deaths, 6));
    table->remove(a);
    EXPECT_EQ(deaths, 1);
    auto byValue = [](uint64_t v) { return [v](const Ref<Tracked>& t) { return t->value == v; }; };
    EXPECT_FALSE(table->find(byValue(5)));
    Ref<Tracked> found = table->find(byValue(6));
    ASSERT_TRUE(found);
    EXPECT_EQ(found, table->get(b - 1)) << "the lowest identifier wins";
  }
  EXPECT_EQ(deaths, 3);
}

}  // namespace
