// The descriptor table of one process: descriptor numbers to FileDescriptor entries, each
// referring to a shared open file description. An entry without a description is a
// placeholder that keeps its number taken. A fresh table holds placeholders at 0, 1 and 2.
//
// The table keeps only the numbers that are taken, in ascending order, in runs of at most
// kRunMax entries stored in place, so its memory follows the entries it holds (at most
// kMaxOpen), however high their numbers are. A copy of a table (a child's) shares the runs
// with its original until either changes: a change copies the one run it touches first. So a
// child costs the server what it changes in its table, not the size of its parent's.
//
// `mon_` serialises every operation on the table and is re-entrant (dup removes and inserts
// while holding it). The copy constructor holds the parent table's monitor while it shares its
// runs; a run is shared only that way, so a run that only this table holds (a count of one,
// read under this table's monitor) stays this table's alone and may change in place.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <source_location>
#include <vector>

#include "fd/file_description_server.h"
#include "platform/stream.h"
#include "platform/sync.h"

struct FileDescriptor {
  Ref<FileDescriptionServer> server;  // null for a placeholder
  bool closeOnExec = false;           // travels with the entry; nothing acts on it
};

class FDTable : public Object {
 public:
  // Descriptor numbers stay below this bound.
  static constexpr int32_t kMaxDescriptors = 1 << 20;
  // Entries (placeholders included) one table holds at most.
  static constexpr uint32_t kMaxOpen = 4096;
  // What insert and dup answer when they fail: a bad argument, or no room (the table holds
  // kMaxOpen entries, or every number from the one asked for up to the bound is taken).
  static constexpr int32_t kBadNumber = -1;
  static constexpr int32_t kNoRoom = -2;

  // A fresh table: placeholders at 0, 1 and 2.
  FDTable();
  // A copy of `parent` (numbers, placeholders and flags in the same places, descriptions shared).
  explicit FDTable(const Ref<FDTable>& parent);
  ~FDTable() override;

  // Puts `entry` under the lowest free number not below `minFd` and answers it; kBadNumber
  // when `entry` is null or `minFd` negative or beyond the bound, kNoRoom when the table is
  // full. The table owns `entry` on success.
  int32_t insert(FileDescriptor* entry, int32_t minFd);
  // Closes `fd`: true when an entry (placeholder or not) was there.
  bool remove(int32_t fd);
  // A second descriptor for the description of `oldFd`: the lowest free number not below
  // `newFd`, or exactly `newFd` (closing what was there) when `replace` is set. kBadNumber
  // when `oldFd` is free or a number is bad, kNoRoom as for insert.
  int32_t dup(int32_t oldFd, int32_t newFd, bool replace);

  // Writes the records of the descriptors numbered `first` and above to `out`, in ascending
  // order: per descriptor with a description, i32 type, u64 number and the node provider
  // record of the description's node (placeholders are logged, not written); then the i32 end
  // marker. A record that would take the output past `maxBytes` is not written: a continuation
  // record (i32 kTypeTableMore, u64 its number) ends the output instead, and the reader asks
  // again from that number. Writing stops at the first write `out` does not take whole, and
  // neither marker is written then. Answers the number of entries in the whole table,
  // placeholders included; 0 and nothing written when `out` is null.
  int32_t serialize(const Ref<Interfaces::Stream>& out, uint64_t first = 0,
                    uint64_t maxBytes = UINT64_MAX) const;

  // Calls `visit` with each number and entry in ascending order, under the table's monitor.
  void visit(const std::function<void(int32_t, const FileDescriptor&)>& visit) const;

  // Entries held (placeholders included); the entry at `fd` or null. The entry's address
  // holds until the table next changes.
  uint32_t size() const;
  const FileDescriptor* entry(int32_t fd) const;

 private:
  // Entries a run holds at most; a longer one is split in two.
  static constexpr size_t kRunMax = 64;

  struct Slot {
    int32_t fd;
    FileDescriptor entry;
  };
  // Consecutive entries of the table, in ascending numbers, held through Ref by the tables
  // that share it. Never changed while another table shares it. Counted without an Object's
  // weak references and virtual functions, which a run has no use for.
  struct Run {
    std::vector<Slot> slots;
    mutable std::atomic<uint32_t> holders{0};

    void addRef() const noexcept { holders.fetch_add(1, std::memory_order_relaxed); }
    void release() const noexcept {
      if (holders.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
    }
    // Whether another holder may read it; once false it stays so while the holder that asks
    // keeps its table's monitor.
    bool shared() const noexcept { return holders.load(std::memory_order_acquire) > 1; }
  };
  // A position: slot `at` of run `run`; run == runs_.size() past the last entry.
  struct Place {
    size_t run;
    size_t at;
  };

  // The log-only assertion that the monitor is there, reported at the caller's line.
  void checkMonitor(const char* function,
                    const std::source_location& caller = std::source_location::current()) const;
  // The place of the first entry whose number is not below `fd`.
  Place lowerBound(int64_t fd) const;
  // The slot at `place`, null past the last entry; and the place after it.
  const Slot* slotAt(const Place& place) const;
  void advance(Place* place) const;
  // Run `run`, first copied when another table shares it.
  Run& writable(size_t run);
  // Keeps runs at most kRunMax long after an insert into run `run`, and after a removal drops
  // it when empty or joins it to a neighbour when both together fill at most half a run.
  void splitIfLong(size_t run);
  void joinIfShort(size_t run);

  std::vector<Ref<Run>> runs_;  // guarded by mon_: ascending numbers, none empty
  uint32_t count_ = 0;          // guarded by mon_: entries in all runs
  Ref<Mon> mon_;
};
