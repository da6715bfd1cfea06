// The server's shared helpers: the exit-handler list and the log idiom (number formatter,
// assertion lines, lines whose pieces are never built when suppressed).
#include <gtest/gtest.h>

#include <sstream>
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

// A helper that checks for its caller, as FDTable::checkMonitor does.
void checkFor(const int* table, const char* function,
              const std::source_location& caller = std::source_location::current()) {
  POSIX_ASSERT_AT(table != 0, caller, function);
}

// "2ch (44)": the line as every log line prints a number.
std::string logged(unsigned line) {
  return (std::ostringstream() << std::hex << line << "h (" << std::dec << line << ")").str();
}

TEST(LogIdiom, AssertionLineShowsTheConditionAsWrittenItsLineAndTheFunction) {
  testing::internal::CaptureStderr();
  int* table = nullptr;
  POSIX_ASSERT(table != 0, "FDTable::FDTable"); const unsigned line = __LINE__;
  POSIX_ASSERT(!table, "nobody");
  checkFor(table, "FDTable::dup"); const unsigned callerLine = __LINE__;
  std::string text = testing::internal::GetCapturedStderr();
  EXPECT_NE(text.find(" 4 DEFAULT: ASSERT CONDITION table != 0 FAILED IN LINE " + logged(line) +
                      ", FUNCTION FDTable::FDTable\n"),
            std::string::npos)
      << text;
  EXPECT_NE(text.find("FAILED IN LINE " + logged(callerLine) + ", FUNCTION FDTable::dup\n"),
            std::string::npos)
      << "a helper reports its caller's line: " << text;
  EXPECT_EQ(text.find("nobody"), std::string::npos);
}

}  // namespace
