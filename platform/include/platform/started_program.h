// A program as whoever started it holds it, and the files a starter handed over for it.
#pragma once

#include <cstdint>
#include <utility>

// A program as the one who started it holds it (Binary::create fills it in): its pid, the
// host's start time read around its start, and a pidfd from its start. Proc::identity,
// Proc::awaitEnd and Proc::wait take it, so that whoever started a program, on whatever thread,
// waits for that program and no other. Moves, does not copy; closes its pidfd when it goes.
class StartedProgram {
 public:
  StartedProgram() = default;
  StartedProgram(StartedProgram&& other) noexcept { *this = std::move(other); }
  StartedProgram& operator=(StartedProgram&& other) noexcept;
  StartedProgram(const StartedProgram&) = delete;
  StartedProgram& operator=(const StartedProgram&) = delete;
  ~StartedProgram() { dropPidfd(); }
  // 0 once collected (or before a start).
  uint64_t pid() const { return pid_; }
  // Closes the pidfd: a running program holds no descriptor of its starter's, which needs it
  // only until it has read the program's identity (Proc::identity).
  void dropPidfd();

 private:
  friend class Binary;
  friend class Proc;
  uint64_t pid_ = 0;
  // The start time in /proc's clock ticks when the clock read before and after the start fell
  // in one tick, else 0.
  uint64_t startTick_ = 0;
  int pidfd_ = -1;
};

// The files a starter handed over with its start request, as it holds them: its standard
// input, output and error and its working directory. Each is owned (HostFd) until the
// StartFiles goes, which is after the start has answered; -1 where none came. Moves, does not
// copy.
class StartFiles {
 public:
  static constexpr int kSlots = 4;
  static constexpr int kDirSlot = 3;  // 0, 1 and 2 are the standard numbers

  StartFiles() = default;
  StartFiles(StartFiles&& other) noexcept { *this = std::move(other); }
  StartFiles& operator=(StartFiles&& other) noexcept;
  StartFiles(const StartFiles&) = delete;
  StartFiles& operator=(const StartFiles&) = delete;
  ~StartFiles() { clear(); }

  // Keeps `fd` for `slot` (closing what it held there); a negative one leaves it empty.
  void set(int slot, int fd);
  int get(int slot) const { return slot >= 0 && slot < kSlots ? fds_[slot] : -1; }
  void clear();

 private:
  int fds_[kSlots] = {-1, -1, -1, -1};
};
