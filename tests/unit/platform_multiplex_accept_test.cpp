// The acceptor all service multiplexes of a process share: idle multiplexes cost no thread
// and leave nothing behind, close() races incoming connects safely, and a process short of
// descriptors is not polled in a tight loop.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <thread>

#include "platform_multiplex_support.h"

using namespace chntest;
using namespace muxtest;

namespace {

class MultiplexAcceptorTest : public MultiplexTest {};

// Entries of a /proc/self directory: the process's threads or open descriptors.
size_t countEntries(const char* dir) {
  size_t count = 0;
  forEachEntry(dir, [&](const std::filesystem::path&) { ++count; });
  return count;
}

// Descriptors watched by all epoll sets of the process: one "tfd:" line each in fdinfo.
size_t epollWatches() {
  size_t count = 0;
  forEachEntry("/proc/self/fd", [&](const std::filesystem::path& fd) {
    std::error_code ignored;
    if (std::filesystem::read_symlink(fd, ignored) != "anon_inode:[eventpoll]") return;
    std::ifstream info("/proc/self/fdinfo/" + fd.filename().string());
    for (std::string line; std::getline(info, line);)
      if (line.rfind("tfd:", 0) == 0) ++count;
  });
  return count;
}

// Many multiplexes share one acceptor: they cost no thread while idle, each still serves its
// own links, and closing or merely dropping one gives back its socket and its watch.
TEST_F(MultiplexAcceptorTest, IdleMultiplexesCostNoThreadAndLeaveNothingBehind) {
  const size_t threads = countEntries("/proc/self/task");
  const size_t fds = countEntries("/proc/self/fd");
  const size_t watches = epollWatches();
  std::vector<Ref<Multiplex>> muxes;
  for (uint32_t i = 0; i < 64; ++i) {
    muxes.push_back(Multiplex::create(String::create(name.c_str())));
    ASSERT_TRUE(muxes.back()) << i;
    ASSERT_EQ(muxes.back()->add(echo(i), new RecordingConMan()), 1u);
  }
  EXPECT_LE(countEntries("/proc/self/task"), threads);
  EXPECT_EQ(epollWatches(), watches + muxes.size());

  for (uint32_t i = 0; i < muxes.size(); i += 7) {
    Client c(chnPath(muxes[i]->channelId()));
    Frame f;
    ASSERT_TRUE(binds(c, 1) && c.send(request(5, 1)) && c.recvFrame(&f)) << i;
    EXPECT_EQ(f.code, i * 1000 + 5) << i;
  }

  std::vector<std::string> paths;
  for (size_t i = 0; i < muxes.size(); ++i) {
    paths.push_back(chnPath(muxes[i]->channelId()));
    if (i % 2) muxes[i]->close();  // the others go with their last reference
  }
  muxes.clear();
  for (const std::string& p : paths) EXPECT_FALSE(std::filesystem::exists(p)) << p;
  EXPECT_EQ(epollWatches(), watches);
  EXPECT_TRUE(eventually([&] { return countEntries("/proc/self/fd") <= fds; }));
  EXPECT_TRUE(eventually([&] { return threadsNamed(name) == 0; }));

  // With no multiplex left the acceptor's thread goes too, and the next multiplex brings it back.
  EXPECT_EQ(threadsNamed("MuxAcceptor"), 1);
  mux->close();
  mux.reset();
  EXPECT_TRUE(eventually([&] { return threadsNamed("MuxAcceptor") == 0; }));
  mux = Multiplex::create(String::create(name.c_str()));
  ASSERT_TRUE(mux);
  ASSERT_EQ(mux->add(echo(9), new RecordingConMan()), 1u);
  Client again(chnPath(mux->channelId()));
  EXPECT_TRUE(binds(again, 1));
  EXPECT_EQ(threadsNamed("MuxAcceptor"), 1);
}

// Clients keep connecting and binding while the multiplex closes. Every link that got in is
// shut down and disconnected, nothing connects once close() has returned, and no thread or
// descriptor stays behind.
TEST_F(MultiplexAcceptorTest, CloseRacingIncomingConnectsEndsEveryLink) {
  const size_t fds = countEntries("/proc/self/fd");
  for (int round = 0; round < 20; ++round) {
    Ref<RecordingConMan> man = new RecordingConMan();
    Ref<Multiplex> racing = Multiplex::create(String::create(name.c_str()));
    ASSERT_TRUE(racing);
    ASSERT_EQ(racing->add(echo(1), man), 1u);
    const std::string where = chnPath(racing->channelId());
    std::atomic<bool> closeReturned{false};
    std::atomic<int> lateConnects{0};
    std::vector<std::vector<std::unique_ptr<Client>>> held(4);
    std::vector<std::thread> connectors;
    for (size_t t = 0; t < held.size(); ++t) {
      connectors.emplace_back([&, t] {
        while (held[t].size() < 40) {
          const bool after = closeReturned.load();
          auto c = std::make_unique<Client>(where);
          if (!c->connected()) {
            if (after) return;
            continue;
          }
          if (after) ++lateConnects;
          binds(*c, 1, 200);  // answered, or ended by the close
          held[t].push_back(std::move(c));
        }
      });
    }
    std::this_thread::sleep_for(std::chrono::microseconds(500 * round));
    racing->close();
    closeReturned = true;
    for (auto& t : connectors) t.join();
    EXPECT_EQ(lateConnects.load(), 0) << round;
    for (auto& clients : held)
      for (auto& c : clients) EXPECT_TRUE(c->closedByPeer()) << round;
    EXPECT_TRUE(racing->wait(5000)) << round;
    EXPECT_EQ(man->disconnectCount(), man->connectCount()) << round;
    racing.reset();
  }
  EXPECT_TRUE(eventually([&] { return threadsNamed(name) == 0; }));
  EXPECT_TRUE(eventually([&] { return countEntries("/proc/self/fd") <= fds; }));
}

// CPU ticks (user and system) the acceptor thread has used, or -1 when it is not running.
long acceptorTicks() {
  long ticks = -1;
  forEachEntry("/proc/self/task", [&](const std::filesystem::path& task) {
    std::ifstream stat(task / "stat");
    std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    if (text.find("(MuxAcceptor)") == std::string::npos) return;
    std::istringstream fields(text.substr(text.rfind(')') + 2));
    std::string skipped;
    for (int field = 3; field < 14; ++field) fields >> skipped;  // state .. cmajflt
    long utime = 0, stime = 0;
    fields >> utime >> stime;
    ticks = utime + stime;
  });
  return ticks;
}

// While the process has no descriptor to spare, a waiting connection is retried now and then,
// not in a tight loop; once descriptors are free again it is served.
TEST_F(MultiplexAcceptorTest, AcceptShortOfDescriptorsBacksOffAndRecovers) {
  ASSERT_EQ(mux->add(echo(4), new RecordingConMan()), 1u);
  long ticks = -1;  // the acceptor names itself once it runs, a moment after the first add
  ASSERT_TRUE(eventually([&] { return (ticks = acceptorTicks()) >= 0; }));
  auto client = connectStarved(path, [] {  // nothing here may open a descriptor
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
  });
  ASSERT_TRUE(client);
  EXPECT_LT(acceptorTicks() - ticks, 10);  // a spinning one burns tens
  EXPECT_TRUE(binds(*client, 1));
}

}  // namespace
