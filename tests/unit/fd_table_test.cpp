// Descriptor tables against a plain set of numbers: the lowest free number, removal and dup
// while runs split and join, and copies that share their runs until either side changes.
#include <gtest/gtest.h>

#include <random>
#include <set>

#include "fd/fd_table.h"

namespace {

using Numbers = std::set<int32_t>;

// The lowest number of `model` that is free and not below `from`.
int32_t lowestFree(const Numbers& model, int32_t from) {
  while (model.count(from) != 0) ++from;
  return from;
}

Numbers numbersOf(const FDTable& table) {
  Numbers seen;
  table.visit([&](int32_t fd, const FileDescriptor&) { seen.insert(fd); });
  return seen;
}

// A random number that `model` holds, or 0.
int32_t held(std::mt19937& random, const Numbers& model) {
  if (model.empty()) return 0;
  return *std::next(model.begin(), static_cast<long>(random() % model.size()));
}

// One random change to `table` and the same to `model`; mostly inserts and dups while
// `growing`, mostly removals otherwise.
void change(std::mt19937& random, FDTable& table, Numbers& model, bool growing) {
  int32_t number = static_cast<int32_t>(random() % 300);
  uint32_t kind = random() % 4;
  if (kind == 0 || (growing && kind == 1)) {
    int32_t expected = lowestFree(model, number);
    ASSERT_EQ(table.insert(new FileDescriptor{}, number), expected);
    model.insert(expected);
  } else if (growing && kind == 2) {
    int32_t old = held(random, model);
    bool known = model.count(old) != 0;
    ASSERT_EQ(table.dup(old, number, true), known ? number : FDTable::kBadNumber);
    if (known) model.insert(number);
  } else {
    if (!growing) number = held(random, model);
    ASSERT_EQ(table.remove(number), model.erase(number) == 1) << number;
  }
}

TEST(FDTableTest, CopiesShareTheirRunsUntilEitherChangesAndMatchAPlainSet) {
  std::mt19937 random(20261125);
  Ref<FDTable> parent = new FDTable();
  Numbers parentModel{0, 1, 2};
  for (int round = 0; round < 20; ++round) {
    Ref<FDTable> child = new FDTable(parent);
    Numbers childModel = parentModel;
    for (int i = 0; i < 400; ++i) {
      change(random, *(i % 2 ? child : parent), i % 2 ? childModel : parentModel, round % 4 < 2);
      if (HasFatalFailure()) return;
    }
    ASSERT_EQ(numbersOf(*parent), parentModel) << round;
    ASSERT_EQ(numbersOf(*child), childModel) << round;
    ASSERT_EQ(child->size(), childModel.size());
    if (round % 2) std::swap(parent, child), std::swap(parentModel, childModel);
  }
}

}  // namespace
