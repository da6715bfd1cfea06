// Nobody can take the introspection service over: long lists come whole, page by page; a
// process that floods it with walks over large tables leaves other clients their answers; and
// one process cannot take every monitor, nor make the server hold its paths without bound.
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <memory>

#include "command_runner.h"
#include "diag_query.h"
#include "posix/diag_service.h"
#include "server_fixture.h"

namespace {

class DiagFairnessTest : public ServerFixture {
 protected:
  std::string diag() const { return path("chn/" PX_DIAG_SERVICE_NAME); }
};

// The pids of every process a raw client finds, asking from 0 and then from each reply's `next`.
bool listProcesses(RawLink& link, std::vector<uint64_t>* pids, int* pages, int timeoutMs) {
  std::vector<px_diag_process> records;
  if (!diagProcesses(link, &records, pages, timeoutMs)) return false;
  for (const px_diag_process& record : records) {
    uint64_t pid = record.pid;  // a copy: the record is packed
    pids->push_back(pid);
  }
  return true;
}

// 150 children, each with a copy of a table of 4000 descriptors (all ends of one pipe) and an
// argument of 1 KB, registered after two with 70 KB arguments.
TEST_F(DiagFairnessTest, LongListsComeWholeAndAPipesFloodLeavesPsAnsweredWithinASecond) {
  constexpr int kChildren = 150;
  int ends[2];
  ASSERT_EQ(px_pipe(ends), 0);
  while (px_dup(ends[0]) < 4000) {
  }
  std::vector<uint64_t> started;
  for (size_t zeros : {70000, 70000}) started.push_back(spawnProbe({"sleep", std::string(zeros, '0') + "60000"}));
  for (int k = 0; k < kChildren; ++k) started.push_back(spawnProbe({"sleep", std::string(1000, '0') + "60000"}));
  ASSERT_TRUE(std::all_of(started.begin(), started.end(), [](uint64_t pid) { return pid > 0; }));

  // posixctl ps and a raw client list every one of them.
  CommandResult ps = runCommand({POSIXCTL_BINARY, "ps", "--json"});
  ASSERT_EQ(ps.exitCode, 0) << ps.err;
  for (uint64_t pid : started)
    ASSERT_NE(ps.out.find("{\"pid\":" + std::to_string(pid) + ","), std::string::npos) << pid << " missing";
  EXPECT_NE(ps.out.find("0...\"}"), std::string::npos) << "a program's text cut to 1024 bytes";
  RawLink link(diag());
  std::vector<uint64_t> listed;
  int pages = 0;
  ASSERT_TRUE(listProcesses(link, &listed, &pages, 5000));
  EXPECT_GE(pages, 2);
  std::sort(listed.begin(), listed.end());
  EXPECT_EQ(std::adjacent_find(listed.begin(), listed.end()), listed.end()) << "a process listed twice";
  for (uint64_t pid : started) EXPECT_TRUE(std::binary_search(listed.begin(), listed.end(), pid)) << pid;

  // posixctl pipes gathers the pipe's holders from every page of the walk.
  std::vector<uint64_t> holders = started;
  holders.push_back(static_cast<uint64_t>(getpid()));
  std::sort(holders.begin(), holders.end());
  std::string readers = "\"readers\":[";
  for (uint64_t pid : holders) readers += std::to_string(pid) + (pid == holders.back() ? "]" : ",");
  CommandResult pipes = runCommand({POSIXCTL_BINARY, "pipes", "--json"});
  EXPECT_NE(pipes.out.find(readers), std::string::npos) << pipes.out.substr(0, 300) << pipes.err;

  // Another process keeps 100 pipes requests in flight, each a walk over every table.
  pid_t flooder = flood(diag(), 100, 1, requestFrame(PX_DIAG_CMD_PIPES, 1));
  ASSERT_GT(flooder, 0);
  std::vector<int64_t> trips = timeCalls("ps during the pipes flood", 20, 20, [&] {
    listed.clear();
    return listProcesses(link, &listed, &pages, 5000) && listed.size() >= started.size();
  });
  kill(flooder, SIGKILL);
  waitExit(flooder, 5000);
  EXPECT_EQ(trips.size(), 20u);
  EXPECT_LT(trips.back(), 1000);
}

TEST_F(DiagFairnessTest, OneProcessTakesAtMostTwoMonitorsAndOneLinkOne) {
  // A monitor is kept (no answer until events come); a refusal is answered at once with 11.
  std::vector<uint8_t> quiet;
  putU64(quiet, 1);  // a process that never asks the server anything
  auto kept = [&](RawLink& link, uint64_t id) {
    RawReply reply;
    return !link.roundTrip(PX_DIAG_CMD_MONITOR, id, quiet, &reply, 500) || reply.code != PX_RESULT_LIMIT;
  };
  Links mine;
  for (int k = 0; k < 3; ++k) mine.push_back(std::make_unique<RawLink>(diag()));
  EXPECT_TRUE(kept(*mine[0], 1));
  EXPECT_FALSE(kept(*mine[0], 2)) << "a second monitor on one link";
  EXPECT_TRUE(kept(*mine[1], 1));
  EXPECT_FALSE(kept(*mine[2], 1)) << "a third monitor of one process";

  // Three more processes take the rest of the eight; then nobody gets one.
  int report[2], hold[2];
  ASSERT_EQ(pipe(report), 0);
  ASSERT_EQ(pipe(hold), 0);
  std::vector<pid_t> others;
  for (int p = 0; p < 3; ++p) {
    others.push_back(inChild([&] {
      close(hold[1]);
      Links links;
      int taken = 0;
      for (int k = 0; k < 3; ++k) {
        links.push_back(std::make_unique<RawLink>(diag()));
        taken += kept(*links.back(), 1) ? 1 : 0;
      }
      sendNumber(report[1], taken);
      takeNumber(hold[0]);
    }));
  }
  for (size_t p = 0; p < others.size(); ++p) EXPECT_EQ(takeNumber(report[0]), 2);
  CommandResult refused = runCommand({POSIXCTL_BINARY, "monitor", "--pid", "1", "--count", "1"});
  EXPECT_NE(refused.exitCode, 0);
  EXPECT_NE(refused.err.find("takes no more"), std::string::npos) << refused.err;
  close(hold[1]);
  for (pid_t pid : others) EXPECT_EQ(waitExit(pid, 5000), 0);
  // A monitor's place comes free when its link closes.
  mine[0].reset();
  EXPECT_TRUE(eventually([&] { return kept(*mine[2], 2); }));
}

// A monitor that stops reading while its process opens 3000 paths of 4000 bytes: the server
// holds a bounded part of the 12 MB of paths (without a bound it holds them all), and the
// monitor, once it reads again, gets the paths whole and a count of the events it lost.
TEST_F(DiagFairnessTest, AMonitorThatStopsReadingHoldsBoundedBytesOfPaths) {
  RawLink monitor(diag()), ask(diag());
  std::vector<uint8_t> mine;
  putU64(mine, static_cast<uint64_t>(getpid()));
  ASSERT_TRUE(monitor.send(requestFrame(PX_DIAG_CMD_MONITOR, 1, mine)));
  RawReply reply;
  ASSERT_TRUE(eventually([&] { return px_getpgid(0) >= 0 && monitor.receive(&reply, 50) == 1; }));
  auto heap = [&] {
    RawReply figures;
    px_diag_figures f = {};
    if (ask.roundTrip(PX_DIAG_CMD_FIGURES, 1, {}, &figures) && figures.data.size() >= sizeof f)
      std::memcpy(&f, figures.data.data(), sizeof f);
    return f.heap_bytes;
  };
  const uint64_t before = heap();
  const std::string longPath = path(std::string(4000, 'x'));
  for (int k = 0; k < 3000; ++k) EXPECT_LT(px_open(longPath.c_str(), O_RDONLY, 0), 0);
  const uint64_t after = heap();
  EXPECT_LT(after, before + 3 * 1024 * 1024) << before << " bytes, then " << after;

  uint64_t lost = 0, whole = 0;
  while (monitor.receive(&reply, 500) == 1) {
    ASSERT_EQ(reply.code, PX_RESULT_DONE);
    uint64_t lostNow = 0;
    uint32_t count = 0, length = 0;
    ASSERT_GE(reply.data.size(), 12u);
    std::memcpy(&lostNow, reply.data.data(), sizeof lostNow);
    std::memcpy(&count, reply.data.data() + 8, sizeof count);
    lost += lostNow;
    size_t at = 12 + count * sizeof(px_diag_event);
    for (uint32_t k = 0; k < count && at + sizeof length <= reply.data.size(); ++k) {
      std::memcpy(&length, reply.data.data() + at, sizeof length);
      at += sizeof length;
      whole += std::string(reinterpret_cast<const char*>(reply.data.data() + at), length) == longPath;
      at += length;
    }
    EXPECT_EQ(at, reply.data.size()) << "a string for each event, and nothing after";
  }
  EXPECT_GT(lost, 0u);
  EXPECT_GT(whole, 50u);
  EXPECT_EQ(lost + whole, 3000u);
}

}  // namespace
