// The children this process started and has not collected yet. The server answers a
// non-blocking wait with "nothing to collect" both when no matching child exists and when
// matching children still run; this record tells the two apart.
#include <mutex>
#include <set>

#include "internal.h"

namespace pxc {

namespace {

constexpr size_t kMaxCollectedEarly = 256;

struct Children {
  std::set<uint64_t> running;
  // Children collected before the spawning call recorded them (a wait in another thread can
  // answer between the spawn's reply and its bookkeeping).
  std::set<uint64_t> collectedEarly;
};

std::mutex childMutex;

// Guarded by childMutex. Made once and never destroyed, so that a call still running while
// the process exits never meets destroyed sets.
Children& children() {
  static Children* record = new Children;
  return *record;
}

}  // namespace

void childStarted(uint64_t pid) {
  std::lock_guard<std::mutex> lock(childMutex);
  Children& c = children();
  if (c.collectedEarly.erase(pid) == 0) c.running.insert(pid);
}

void childCollected(uint64_t pid) {
  std::lock_guard<std::mutex> lock(childMutex);
  Children& c = children();
  if (c.running.erase(pid) != 0) return;
  // Children started with raw requests never show up; keep the set small all the same.
  if (c.collectedEarly.size() >= kMaxCollectedEarly) {
    c.collectedEarly.erase(c.collectedEarly.begin());
  }
  c.collectedEarly.insert(pid);
}

void childForget(uint64_t pid) {
  std::lock_guard<std::mutex> lock(childMutex);
  children().running.erase(pid);
}

bool childKnown(uint64_t pid) {
  std::lock_guard<std::mutex> lock(childMutex);
  return children().running.count(pid) != 0;
}

bool anyChildKnown() {
  std::lock_guard<std::mutex> lock(childMutex);
  return !children().running.empty();
}

void resetChildren() {
  std::lock_guard<std::mutex> lock(childMutex);
  children().running.clear();
  children().collectedEarly.clear();
}

}  // namespace pxc
