// The descriptor table of one process: descriptor numbers (the index) to FileDescriptor
// entries, each referring to a shared open file description. A null slot is a free number; an
// entry without a description is a placeholder that keeps its number taken. A fresh table holds
// placeholders at 0, 1 and 2.
//
// `mon_` serialises every operation on the table and is re-entrant (dup removes and inserts
// while holding it). The copy constructor holds the parent table's monitor while it copies.
#pragma once

#include <cstdint>

#include "common/tvector.h"
#include "fd/file_description_server.h"
#include "platform/stream.h"
#include "platform/sync.h"

struct FileDescriptor {
  Ref<FileDescriptionServer> server;  // null for a placeholder
  bool closeOnExec = false;           // travels with the entry; nothing acts on it
};

class FDTable : public Object {
 public:
  // Descriptor numbers stay below this bound: a request for a number beyond it fails instead
  // of asking the heap for a table of billions of slots.
  static constexpr int32_t kMaxDescriptors = 1 << 20;
  // Entries (placeholders included) one table holds at most. Every open description costs the
  // server host descriptors (its listening socket, an opened item's file), so a single process
  // must not be able to take them all from the others.
  static constexpr uint32_t kMaxOpen = 4096;

  // A fresh table: placeholders at 0, 1 and 2.
  FDTable();
  // A copy of `parent` (numbers, placeholders and flags in the same places, descriptions shared).
  explicit FDTable(const Ref<FDTable>& parent);
  ~FDTable() override;

  // Puts `entry` under the lowest free number not below `minFd` and answers it; -1 when `entry`
  // is null, `minFd` negative or the table full (kMaxOpen). The table owns `entry` on success.
  int32_t insert(FileDescriptor* entry, int32_t minFd);
  // Closes `fd`: true when an entry (placeholder or not) was there.
  bool remove(int32_t fd);
  // A second descriptor for the description of `oldFd`: the lowest free number not below
  // `newFd`, or exactly `newFd` (closing what was there) when `replace` is set. -1 on failure.
  int32_t dup(int32_t oldFd, int32_t newFd, bool replace);

  // Writes the whole table to `out` in its serialised form and answers the number of entries
  // present, placeholders included (they are counted and logged but not written). Per
  // descriptor with a description, in ascending order: i32 type, u64 descriptor number, the
  // node provider record of the description's node; then the i32 end marker 8. Writing stops at
  // the first write `out` does not take whole, and the end marker is then left out, so a reader
  // never mistakes a cut table for a whole one. Nothing is written when `out` is null (answer 0).
  int32_t serialize(const Ref<Interfaces::Stream>& out) const;

  // Slots in the table (free numbers included); the entry at `fd` or null. Tests and the
  // descriptor service's listing use them.
  uint64_t slotCount() const;
  const FileDescriptor* entry(int32_t fd) const;

 private:
  void checkInvariants(uint64_t monLine, uint64_t tableLine, const char* function) const;

  Ref<TVector<FileDescriptor*>> table_;  // guarded by mon_
  uint32_t open_ = 0;                     // guarded by mon_: slots that hold an entry
  Ref<Mon> mon_;
};
