// The process service, channel "posix.service": the object behind the channel, its connection
// table and the dispatcher of its requests. Every connection is bound to the PosixProcess of
// the client's identity (pid and serial, made on first connect), and every request finds
// its caller through the connection's tag.
//
// Everything here runs on the main thread: the channel's connects and disconnects, every
// request, one at a time, and the slices of broadcasts between passes over the links, so the
// connection table and the broadcast queue need no lock.
#pragma once

#include <cstdint>

#include "common/tidtable.h"
#include "core/broadcast.h"
#include "platform/chn.h"
#include "process/posix_process.h"

class PosixService : public Object, public ConMan {
 public:
  using ProcessTable = TIdTable<Ref<PosixProcess>>;

  PosixService();

  bool connect(const Ref<ChnLink>& link) override;
  void disconnect(const Ref<ChnLink>& link) override;

  // Handles one request. True: answer it now with `reply` and `*resultCode`. False: the request
  // was kept and will be answered by whoever completes it. The last two parameters carry nothing.
  bool dispatch(Ref<InMsg> request, Ref<OutMsg> reply, uint32_t* resultCode, uint64_t unused,
                Ref<Object>* slot);

  // Receives, dispatches and answers requests for ever (returns only if the channel closes).
  void mainLoop();

  const Ref<Chn>& chn() const { return chn_; }
  const Ref<ProcessTable>& processes() const { return processes_; }
  // The connected process of `identity`, or null: a look-up in the registry's index.
  Ref<PosixProcess> findConnected(const ProcIdentity& identity) const;

 private:
  uint32_t kill(const Ref<PosixProcess>& caller, const Ref<InMsg>& request);
  // True: answered now with *result. False: kept as a broadcast, answered when done.
  bool killGroup(const Ref<PosixProcess>& caller, const Ref<InMsg>& request, uint32_t* result);
  uint32_t getGroupId(const Ref<InMsg>& request, const Ref<OutMsg>& reply);
  // True: answered now with *result (a request that could not be taken). False: the child's
  // agent answers it.
  bool spawn(const Ref<PosixProcess>& caller, const Ref<InMsg>& request, const Ref<OutMsg>& reply,
             uint32_t* result);
  uint32_t getSharedMemory(const Ref<PosixProcess>& caller, const Ref<OutMsg>& reply);

  Ref<Chn> chn_;
  Ref<ProcessTable> processes_;
  BroadcastQueue broadcasts_;
};
