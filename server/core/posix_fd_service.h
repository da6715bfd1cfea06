// The descriptor service, channel "posix.fd.service": the requests with which a process
// manages its own descriptor table. It runs on its own thread ("FD"), one request at a time.
// A link is accepted only from a process that the process service already knows.
//
// The connection table has no lock: connect, disconnect and requests all run on the "FD"
// thread, which runs the channel.
#pragma once

#include "common/tidtable.h"
#include "platform/chn.h"
#include "platform/thread.h"
#include "process/posix_process.h"

class DescriptionBudget;
class FDTable;

class PosixFDService : public Object, public Exec, public ConMan {
 public:
  PosixFDService();

  const Ref<Chn>& channel() const { return channel_; }

  // The request loop; returns only when the channel is closed.
  void run() override;
  bool connect(const Ref<ChnLink>& link) override;
  void disconnect(const Ref<ChnLink>& link) override;

  // Handles one request for the process whose table is `table` and whose new descriptions
  // are charged to `budget`, and answers the result code.
  static uint32_t handle(const Ref<InMsg>& request, const Ref<OutMsg>& reply, FDTable& table,
                         DescriptionBudget& budget);

 private:
  Ref<Chn> channel_;
  Ref<TIdTable<Ref<PosixProcess>>> connections_;
};
