// Bounded requests: what one request, or one process's children, may cost the server. A spawn
// decodes in time linear in its frame, a process has a bounded number of children, an ended
// child keeps a bounded text of its program, a child's descriptor table costs what the child
// changes, and a child always starts with its parent's table.
#include <atomic>
#include <thread>

#include "server_fixture.h"

namespace {

class BoundedRequestsTest : public ServerFixture {};

TEST_F(BoundedRequestsTest, ASpawnOf13000NamesDecodesInMillisecondsWhileOthersAreServed) {
  // 13,000 distinct two-byte names with empty values: as many as one frame holds.
  std::vector<std::string> env;
  for (int i = 0; env.size() < 13000; ++i) {
    char name[3] = {static_cast<char>(1 + i / 250), static_cast<char>(1 + i % 250), 0};
    if (name[0] != '=' && name[1] != '=') env.push_back(std::string(name) + "=");
  }
  std::vector<char*> envp;
  for (std::string& e : env) envp.push_back(e.data());
  envp.push_back(nullptr);
  char* argv[] = {const_cast<char*>("true"), nullptr};
  // Four such starts at once, from links of their own: decoded one after the other, they held
  // the service thread for 1.3 s each.
  std::atomic<int> running{4};
  std::vector<std::thread> starters;
  std::vector<int> codes(4, -2);
  for (int k = 0; k < 4; ++k) {
    starters.emplace_back([&, k] {
      int64_t child = px_spawn("/bin/true", argv, envp.data(), 0);
      codes[k] = child > 0 ? collect(child) : -errno;
      --running;
    });
  }
  int64_t slowest = 0;
  int trips = 0;
  for (int64_t start = monotonicMs(); running > 0 && monotonicMs() - start < 60000; ++trips) {
    int64_t before = monotonicMs();
    EXPECT_GE(px_getppid(), 0);
    slowest = std::max(slowest, monotonicMs() - before);
    sleepMs(2);
  }
  for (std::thread& t : starters) t.join();
  for (int code : codes) EXPECT_EQ(code, 0) << strerror(-code);
  EXPECT_LT(slowest, 1000) << "slowest of " << trips << " round trips beside 4 starts (ms)";
}

}  // namespace
