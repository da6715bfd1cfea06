// What posixctl ps, fds PID, pipes and monitor tell about a known situation: this process
// with a file read up to offset 3, a pipe, a child blocked reading the pipe, a kept wait for
// that child, and a zombie that exited with 7.
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <thread>

#include "command_runner.h"
#include "server_fixture.h"

namespace {

using DiagTest = ServerFixture;

// What posixctl with `args` wrote, or why it failed.
std::string said(std::vector<std::string> args) {
  CommandResult r = ctl(args);
  return r.exitCode == 0 ? r.out : "failed: " + r.err;
}

TEST_F(DiagTest, PsFdsPipesAndMonitorTellWhatTheServerKeeps) {
  const std::string me = std::to_string(getpid());
  int file = px_open(hostFile("three", "abcdef").c_str(), O_RDONLY, 0), ends[2];
  ASSERT_EQ(readUpTo(file, 3), "abc");
  ASSERT_EQ(px_pipe(ends), 0);
  int64_t zombie = spawnProbe({"exit", "7"});
  int64_t reader = spawnProbe({"readn", std::to_string(ends[0]), "1"});
  ASSERT_GT(zombie, 0);
  ASSERT_GT(reader, 0);
  int status = -1;
  std::thread waiter([&] { px_waitpid(reader, &status, 0); });
  const std::string r = std::to_string(reader), z = std::to_string(zombie);

  std::string ps;
  EXPECT_TRUE(eventually([&] {
    ps = said({"ps", "--json"});
    return ps.find("\"pid\":" + z + ",\"parent\":" + me + ",\"group\":" + me +
                   ",\"state\":\"zombie\",\"exit_code\":7") != std::string::npos &&
           ps.find("\"waits\":1") != std::string::npos;
  })) << ps;
  EXPECT_NE(ps.find("\"pid\":" + me + ",\"parent\":0,\"group\":" + me + ",\"state\":\"connected\""),
            std::string::npos) << ps;
  EXPECT_NE(ps.find("\"program\":\"" + helper("px_probe") + " readn"), std::string::npos) << ps;
  std::string tree = said({"ps"});
  EXPECT_NE(tree.find("\n  " + r + " "), std::string::npos) << "children indented under the parent:\n" << tree;

  std::string fds = said({"fds", "--json", me});
  EXPECT_NE(fds.find("{\"fd\":" + std::to_string(file) + ",\"kind\":\"file\",\"offset\":3,\"path\":\"" +
                     path("three") + "\""),
            std::string::npos) << fds;
  std::string pipes;
  EXPECT_TRUE(eventually([&] {
    pipes = said({"pipes", "--json"});
    return pipes.find("\"reading\":[" + r + "]") != std::string::npos;
  })) << pipes;
  std::string holders = "[" + std::min(me, r) + "," + std::max(me, r) + "]";
  EXPECT_NE(pipes.find("\"buffered\":0,\"state\":\"open\",\"readers\":" + holders + ",\"writers\":" +
                       holders + ",\"reading\":[" + r + "],\"writing\":[]"),
            std::string::npos) << pipes;
  std::string readerFds = said({"fds", "--json", r});
  EXPECT_NE(readerFds.find("\"end\":\"read\",\"other_end\":" + holders), std::string::npos) << readerFds;
  EXPECT_NE(said({"fds", "999999999"}).find("no process 999999999"), std::string::npos);

  // The monitor shows this process's requests as they are served, a description's too.
  auto monitorOne = [&](const char* command, const std::function<bool()>& act, const char* count = "1",
                        bool json = true) {
    std::string out;
    std::atomic<bool> done{false};
    std::thread monitor([&] {
      std::vector<std::string> args = {"monitor", "--pid", me, "--command", command, "--count", count};
      if (json) args.push_back("--json");
      out = said(args);
      done = true;
    });
    EXPECT_TRUE(eventually([&] { return act() && done; }, 10000));
    monitor.join();
    return out;
  };
  std::string monitored = monitorOne("getGroupId", [] { return px_getpgid(0) >= 0; });
  EXPECT_NE(monitored.find("\"pid\":" + me + ",\"service\":\"posix.service\",\"command\":\"getGroupId\","
                           "\"arguments\":\"pid " + me + "\",\"size\":8,\"result\":\"done\""),
            std::string::npos) << monitored;
  // A spawn is kept until the program runs; its late answer shows how it ended.
  monitored = monitorOne("spawn", [] {
    char* argv[] = {const_cast<char*>("true"), nullptr};
    int64_t pid = px_spawn("/bin/true", argv, nullptr, 0);
    int status = -1;
    return pid > 0 && px_waitpid(pid, &status, 0) == pid;
  }, "2");
  EXPECT_NE(monitored.find("\"result\":\"kept\""), std::string::npos) << monitored;
  EXPECT_NE(monitored.find("\"result\":\"kept:done\""), std::string::npos) << monitored;
  // Paths show whole, the event's first bytes or a thousand: as they are in text, escaped in
  // JSON (the quotes, and a byte that is not UTF-8; UTF-8 as it is).
  const std::string shortPath = path("three");
  const std::string longPath = path("say \"h\xc3\xa9\"\xff/") + std::string(1000, 'x');
  auto openBoth = [&] {
    for (const std::string& p : {longPath, shortPath})
      if (int fd = px_open(p.c_str(), O_RDONLY, 0); fd >= 0) px_close(fd);
    return true;
  };
  monitored = monitorOne("openItem", openBoth, "2");
  const std::string escaped = path("say \\\"h\xc3\xa9\\\"\\u00ff/") + std::string(1000, 'x');
  for (const std::string& p : {escaped, shortPath})
    EXPECT_NE(monitored.find("\"arguments\":\"path " + p + "\""), std::string::npos) << p << "\n" << monitored;
  monitored = monitorOne("openItem", openBoth, "2", false);
  for (const std::string& p : {longPath, shortPath})
    EXPECT_NE(monitored.find(" path " + p + " "), std::string::npos) << p << "\n" << monitored;
  // A pipe's bytes pass through its shared page; the first write of a new pipe asks for it.
  monitored = monitorOne("sharedPage", [] {
    int fresh[2];
    bool wrote = px_pipe(fresh) == 0 && px_write(fresh[1], "x", 1) == 1;
    return px_close(fresh[0]) == 0 && px_close(fresh[1]) == 0 && wrote;
  });
  EXPECT_NE(monitored.find("\"service\":\"fifo-status\",\"command\":\"sharedPage\""), std::string::npos)
      << monitored;
  EXPECT_EQ(px_write(ends[1], "x", 1), 1);  // wakes the reader

  waiter.join();
  EXPECT_EQ(status, 0);
  EXPECT_EQ(collect(zombie), 7);
}

}  // namespace
