// The crash dump of a real crash: the crash probe links the server's libraries, installs the
// server's handler and faults on purpose; these tests read the dump it leaves on standard error
// and follow its frames back to source functions with addr2line.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <regex>
#include <string>
#include <vector>

#include "platform_chn_support.h"

namespace {

struct ProbeRun {
  int status = -1;                  // the wait status of the probe (killed after 60 s)
  std::vector<std::string> output;  // every line of standard output and error
  std::vector<std::string> dump;    // the text of the dump's log lines, prefix removed
  std::string line(const std::string& start) const {
    for (const std::string& l : dump)
      if (l.rfind(start, 0) == 0) return l.substr(start.size());
    return "";
  }
  // The value that the probe announced before faulting, e.g. "tid" or "threads" (decimal).
  unsigned long long announced(const std::string& key) const {
    std::regex pattern("probe: .*\\b" + key + "=([0-9]+)");
    std::smatch m;
    for (const std::string& l : output)
      if (std::regex_search(l, m, pattern)) return std::stoull(m[1]);
    return ~0ull;
  }
};

std::string hexOf(unsigned long long value) {
  char text[24];
  std::snprintf(text, sizeof text, "%llx", value);
  return text;
}

// Runs the probe in `mode` on a private runtime directory with the variables `env` set.
ProbeRun runProbe(const std::string& mode, const std::map<std::string, std::string>& env = {}) {
  ProbeRun run;
  chntest::RuntimeDirScope rt;
  std::vector<std::unique_ptr<chntest::EnvScope>> scopes;
  for (const auto& [name, value] : env)
    scopes.push_back(std::make_unique<chntest::EnvScope>(name.c_str(), value.c_str()));
#if defined(__SANITIZE_THREAD__)
  // The handler allocates by design; the sanitizer would report every allocation in it.
  const char* tsan = getenv("TSAN_OPTIONS");
  std::string options = std::string(tsan ? tsan : "") + ":report_signal_unsafe=0";
  scopes.push_back(std::make_unique<chntest::EnvScope>("TSAN_OPTIONS", options.c_str()));
#endif
  std::string command = "exec timeout -s KILL 60 " CRASH_PROBE_BINARY " " + mode + " 2>&1";
  FILE* out = popen(command.c_str(), "r");
  if (out == nullptr) return run;
  std::regex dumpLine("^\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3} 3 DEFAULT: (.*)$");
  std::smatch m;
  for (char text[4096]; std::fgets(text, sizeof text, out);) {
    run.output.push_back(std::string(text, strcspn(text, "\n")));
    if (std::regex_match(run.output.back(), m, dumpLine)) run.dump.push_back(m[1]);
  }
  run.status = pclose(out);
  return run;
}

bool diedOf(const ProbeRun& run, int sig) {
  return WIFSIGNALED(run.status) && WTERMSIG(run.status) == sig;
}

// The source function of every frame, in order, from "FRAME IP:" / "Module: ..., Offset:"
// pairs resolved with addr2line.
std::vector<std::string> frameFunctions(const ProbeRun& run) {
  std::vector<std::string> functions;
  std::regex moduleLine("^Module: (.*), Offset: ([0-9a-f]+)$");
  std::smatch m;
  for (size_t i = 0; i + 1 < run.dump.size(); ++i) {
    if (run.dump[i].rfind("FRAME IP: ", 0) != 0) continue;
    if (!std::regex_match(run.dump[i + 1], m, moduleLine)) {
      functions.push_back("?");
      continue;
    }
    std::string command = "addr2line -f -C -e '" + m[1].str() + "' 0x" + m[2].str();
    std::string function;
    if (FILE* pipe = popen(command.c_str(), "r")) {
      char text[4096];
      if (std::fgets(text, sizeof text, pipe)) function = text;
      pclose(pipe);
    }
    while (!function.empty() && function.back() == '\n') function.pop_back();
    functions.push_back(function);
  }
  return functions;
}

std::string probePath() { return std::filesystem::canonical(CRASH_PROBE_BINARY).string(); }

// Written whatever the log level and filters say.
TEST(CrashDump, NullWriteDumpsModulesRegistersAndFramesThatLeadToTheFaultingFunction) {
  ProbeRun run = runProbe("null-write", {{"POSIX_LOG_LEVEL", "9"}, {"POSIX_LOG_OFF", "POSIX SERVER"}});
  ASSERT_TRUE(diedOf(run, SIGSEGV)) << "status " << run.status;
  for (const std::string& l : run.output)
    EXPECT_EQ(l.find("crash probe armed"), std::string::npos) << "level 9 let a level-1 line through";
  ASSERT_FALSE(run.dump.empty());
  // The handler's level and source: the "POSIX SERVER" handle (3) and the name of handle 4.
  EXPECT_EQ(run.dump[0], "*** CRASH DUMP ***");
  EXPECT_EQ(run.dump[1], "* Print ModuleList *");

  std::regex moduleLine("^Module: ([0-9a-f]+) - ([0-9a-f]+): (.*)$");
  std::smatch m;
  bool sawProbe = false, sawLibc = false;
  for (const std::string& l : run.dump) {
    if (!std::regex_match(l, m, moduleLine)) continue;
    EXPECT_LT(std::stoull(m[1], nullptr, 16), std::stoull(m[2], nullptr, 16)) << l;
    sawProbe = sawProbe || m[3] == probePath();
    sawLibc = sawLibc || m[3].str().find("/libc.so") != std::string::npos;
  }
  EXPECT_TRUE(sawProbe);
  EXPECT_TRUE(sawLibc);

  EXPECT_EQ(run.line("Exception in Thread ID "), hexOf(run.announced("tid")));
  EXPECT_EQ(run.line("Process ID: "), hexOf(run.announced("tid")));  // the main thread faulted
  EXPECT_EQ(run.line("Process name: "), "crash_probe");
  EXPECT_EQ(run.line("Exception Nr: 0x"), "e");  // page fault
  EXPECT_EQ(run.line("PFA:          0x"), "0");
  EXPECT_NE(std::stoull(run.line("errorCode: "), nullptr, 16) & 2, 0u);  // a write

  // Every register as the faulting instruction left it, in the dump's rows.
  for (const char* row : {"rax: 0x1a r10: 0x110 rsp: 0x", "rbx: 0x1b r11: 0x111 rbp: 0x",
                          "rcx: 0x1c r12: 0x112 rsi: 0x51 ", "rdx: 0x1d r13: 0x113 rdi: 0xd1 ",
                          "r8: 0x108 r14: 0x114 ", "r9: 0x109 r15: 0x115 "})
    EXPECT_TRUE(std::any_of(run.dump.begin(), run.dump.end(),
                            [&](const std::string& l) { return l.rfind(row, 0) == 0; })) << row;
  // The stack trace starts at the faulting instruction and climbs into main.
  std::string rip = run.line("rip: 0x");
  EXPECT_EQ(run.line("IP: "), rip.substr(0, rip.size() - 1));
  EXPECT_EQ(run.line("FRAME IP: "), run.line("IP: "));
  std::vector<std::string> functions = frameFunctions(run);
  ASSERT_GE(functions.size(), 2u);
  EXPECT_EQ(functions[0], "crashProbeNullWrite()");
  EXPECT_EQ(functions[1], "main");
  EXPECT_EQ(run.dump.back().rfind("Running Threads: ", 0), 0u);
}

TEST(CrashDump, RefusedAllocationFaultsInTheWrapperAndTheDumpNamesTheAllocatingSite) {
  ProbeRun run = runProbe("refused-new");
  ASSERT_TRUE(diedOf(run, SIGFPE)) << "status " << run.status;
  EXPECT_EQ(run.line("Exception Nr: 0x"), "0");  // divide error
  std::vector<std::string> functions = frameFunctions(run);
  ASSERT_GE(functions.size(), 3u);
  EXPECT_NE(functions[0].find("refusedAllocation"), std::string::npos) << functions[0];
  EXPECT_NE(functions[1].find("operator new"), std::string::npos) << functions[1];
  EXPECT_EQ(functions[2], "crashProbeRefusedAllocation()");
  // Everything after the banner needed the heap the probe had switched off.
  EXPECT_FALSE(run.line("Running Threads: ").empty());
}

TEST(CrashDump, FaultOnAPlatformThreadNamesThatThreadAndCountsBothThreads) {
  ProbeRun run = runProbe("thread");
  ASSERT_TRUE(diedOf(run, SIGSEGV)) << "status " << run.status;
  EXPECT_EQ(run.line("Thread name: "), "probe-worker");
  unsigned long long tid = run.announced("tid");
  EXPECT_NE(run.line("Process ID: "), hexOf(tid));
  EXPECT_EQ(run.line("Exception in Thread ID "), hexOf(tid));
  EXPECT_GE(run.announced("threads"), 2u);
  EXPECT_EQ(run.line("Running Threads: "), hexOf(run.announced("threads")));
  std::vector<std::string> functions = frameFunctions(run);
  ASSERT_GE(functions.size(), 2u);
  EXPECT_EQ(functions[0], "crashProbeNullWrite()");
}

TEST(CrashDump, SixteenthNestedCrashEndsTheProcessWithMinusTenAndWritesNothing) {
  ProbeRun run = runProbe("nested");
  EXPECT_TRUE(WIFEXITED(run.status) && WEXITSTATUS(run.status) == 246) << "status " << run.status;
  // Fifteen dumps got as far as their banner; the sixteenth wrote nothing.
  EXPECT_EQ(std::count(run.dump.begin(), run.dump.end(), "*** CRASH DUMP ***"), 15);
  EXPECT_EQ(run.dump.size(), 15u);
}

}  // namespace
