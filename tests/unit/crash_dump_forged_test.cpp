// The crash dump run in-process on forged contexts: a stack that cannot be walked, and a
// hand-built frame chain whose frames land in no module at all and in libc.
#include <gnu/libc-version.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "crash/crash_dump.h"
#include "platform/binary_services.h"
#include "platform/proc.h"

namespace {

using Context = Definitions::Contexts::X86_64;

std::string hexOf(uint64_t value) {
  char text[24];
  std::snprintf(text, sizeof text, "%llx", static_cast<unsigned long long>(value));
  return text;
}

// The lines a dump wrote to standard error while `dump` ran.
template <class Dump>
std::vector<std::string> linesOf(Dump dump) {
  testing::internal::CaptureStderr();
  dump();
  std::istringstream text(testing::internal::GetCapturedStderr());
  std::vector<std::string> lines;
  for (std::string l; std::getline(text, l);) lines.push_back(l);
  return lines;
}

bool has(const std::vector<std::string>& lines, const std::string& line) {
  return std::find(lines.begin(), lines.end(), line) != lines.end();
}

// (The register rows: the crash dump of a real crash.)
TEST(CrashDumpForged, WithoutAPrinterLinesCarrySeverityLettersAndAGarbageStackOnlyWarns) {
  Context context = {};
  context.rbp = 0x13;  // misaligned and unmapped: no walk is possible
  context.trapNumber = 0xd;

  // The dump without a printer writes to the debug console, standard error.
  std::vector<std::string> lines = linesOf([&] { crashDump(&context, nullptr); });
  ASSERT_GE(lines.size(), 4u);
  EXPECT_EQ(lines[0], "E*** CRASH DUMP ***");
  EXPECT_TRUE(has(lines, "VException Nr: 0xd"));
  EXPECT_TRUE(has(lines, "WFailed to create stack walk instance"));
  for (const std::string& l : lines) EXPECT_EQ(l.find("Stracktrace"), std::string::npos);
  EXPECT_EQ(lines.back().rfind("VRunning Threads: ", 0), 0u);
}

// (Frames in the program's own modules, named by module and offset: the crash dump of a real
// crash, which follows them back to source functions.)
TEST(CrashDumpForged, AnAddressInNoModuleIsAnInvalidIndexAndTheOutermostFrameHasNoValidBp) {
  // A frame record as the walker expects it: saved frame pointer (none: the outermost frame),
  // then return address, here into libc.
  uint64_t libcAddress = reinterpret_cast<uint64_t>(&gnu_get_libc_version);
  alignas(16) uint64_t chain[2] = {0, libcAddress};
  Context context = {};
  context.rip = 0x10;  // in no module
  context.rbp = reinterpret_cast<uint64_t>(&chain[0]);

  std::vector<std::string> lines =
      linesOf([&] { crashDump(&context, CharPrinter::create(CharWriter::forFd(STDERR_FILENO))); });

  // A printer of the caller's: no severity letters.
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines[0], "*** CRASH DUMP ***");
  auto trace = std::find(lines.begin(), lines.end(), "* Print Stracktrace *");
  ASSERT_NE(trace, lines.end());
  const std::vector<std::string> expected = {"IP: 10", "FRAME IP: 10", "Module: invalid index, Offset: 10",
                                             "BP: " + hexOf(context.rbp), "FRAME IP: " + hexOf(libcAddress)};
  std::vector<std::string> seen(trace + 1, lines.end());
  ASSERT_EQ(seen.size(), expected.size() + 3);
  for (size_t i = 0; i < expected.size(); ++i) EXPECT_EQ(seen[i], expected[i]) << i;
  std::string libcLine = seen[expected.size()];
  EXPECT_NE(libcLine.find("/libc.so"), std::string::npos) << libcLine;
  EXPECT_EQ(seen[expected.size() + 1], "BP not valid");
  EXPECT_EQ(seen[expected.size() + 2].rfind("Running Threads: ", 0), 0u);
}

}  // namespace
