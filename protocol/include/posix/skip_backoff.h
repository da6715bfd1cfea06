// How often to skip something that was tried in vain: after each miss the next 16, 32, ... up
// to 4096 tries are skipped, and a try that paid starts again from the first count. A hint
// shared by the threads of one process, so relaxed atomics.
#pragma once

#include <algorithm>
#include <atomic>

namespace posix {

class SkipBackoff {
 public:
  // Whether this try is one to skip (it is counted).
  bool skipping() {
    int left = skip_.load(std::memory_order_relaxed);
    if (left <= 0) return false;
    skip_.store(left - 1, std::memory_order_relaxed);
    return true;
  }
  // The try did not pay: skip the next ones, twice as many as after the last miss.
  void missed() {
    int next = size_.load(std::memory_order_relaxed);
    next = next == 0 ? kFirst : std::min(next * 2, kMost);
    size_.store(next, std::memory_order_relaxed);
    skip_.store(next, std::memory_order_relaxed);
  }
  // The try paid: the next miss skips the first count again.
  void paid() { size_.store(0, std::memory_order_relaxed); }

 private:
  static constexpr int kFirst = 16;
  static constexpr int kMost = 4096;
  std::atomic<int> skip_{0};  // tries still to skip
  std::atomic<int> size_{0};  // how many the last miss made skip
};

}  // namespace posix
