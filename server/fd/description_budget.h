// The descriptions one process has made and that are still alive, and the bounds on them.
// Every description costs the server host descriptors (a listening socket for its multiplex,
// and an opened item's or a socket's own), and so do the links clients make to it; a process
// that made descriptions without end would take from the server what every other client needs.
//
// Two bounds hold, both derived from the server's descriptor limit L (HostFiles::limit()):
// - a process holds at most maxLive(L) descriptions it made (pipe ends of either service,
//   opened items, sockets), however many processes share them by now;
// - a new description must leave the server reserve(L) descriptors free: L/8, or L/16 for a
//   process that holds fewer than kSmallHolder descriptions, so that when many processes
//   together have taken what the first reserve leaves, one that holds little can still make
//   pipes, and what is below L/16 stays for links.
//
// A description holds its charge for its life; the budget lives as long as any charge. The
// count is atomic: the descriptor service's thread and the process service's thread charge,
// and whatever thread drops a description releases.
#pragma once

#include <atomic>
#include <cstdint>

#include "platform/object.h"

class DescriptionBudget;

// One description's share of its maker's budget; released when the last reference goes.
class DescriptionCharge : public Object {
 public:
  ~DescriptionCharge() override;

 private:
  friend class DescriptionBudget;
  explicit DescriptionCharge(Ref<DescriptionBudget> budget) : budget_(std::move(budget)) {}
  Ref<DescriptionBudget> budget_;
};

class DescriptionBudget : public Object {
 public:
  static constexpr uint32_t kSmallHolder = 16;

  static Ref<DescriptionBudget> create() { return new DescriptionBudget(); }

  // The share of one new description that costs the server `hostFiles` descriptors of its
  // own; null, and nothing taken, when a bound above refuses it.
  Ref<DescriptionCharge> charge(uint32_t hostFiles);
  // Descriptions made and still alive.
  uint32_t live() const { return live_.load(std::memory_order_relaxed); }

  // The bounds for a descriptor limit of `limit`.
  static uint32_t maxLive(uint64_t limit);
  static uint64_t reserve(uint64_t limit, bool smallHolder);

 private:
  friend class DescriptionCharge;
  DescriptionBudget() = default;

  std::atomic<uint32_t> live_{0};
};
