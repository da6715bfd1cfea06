// The server's shared helpers: the exit-handler list and the log idiom (number formatter,
// assertion lines, lines whose pieces are never built when suppressed).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "common/exit_handlers.h"
#include "common/log.h"

namespace {

std::vector<char>& order() {
  static std::vector<char> seen;
  return seen;
}

TEST(ExitHandlers, RunInReverseOrderOfRegistrationAndOnlyOnce) {
  runExitHandlers();  // an empty list returns at once
  order().clear();
  ASSERT_EQ(registerExitHandler([] { order().push_back('A'); }), 0);
  ASSERT_EQ(registerExitHandler([] { order().push_back('B'); }), 0);
  ASSERT_EQ(registerExitHandler([] { order().push_back('C'); }), 0);
  runExitHandlers();
  EXPECT_EQ(std::string(order().begin(), order().end()), "CBA");
  runExitHandlers();
  EXPECT_EQ(order().size(), 3u) << "handlers are unlinked as they run";
}

TEST(LogIdiom, AssertionLineNamesConditionLineAndFunction) {
  testing::internal::CaptureStderr();
  int* table = nullptr;
  POSIX_ASSERT(table, "table != 0", 44, "FDTable::FDTable");
  POSIX_ASSERT(!table, "never shown", 1, "nobody");
  std::string text = testing::internal::GetCapturedStderr();
  EXPECT_NE(text.find(" 4 DEFAULT: ASSERT CONDITION table != 0 FAILED IN LINE 2ch (44), FUNCTION FDTable::FDTable\n"),
            std::string::npos)
      << text;
  EXPECT_EQ(text.find("never shown"), std::string::npos);
}

}  // namespace
