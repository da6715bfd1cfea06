// The status service of one FIFO end: a client asks whether more data may still come (command
// 0) and how the end's last read or write went (command 1); for those the whole answer is the
// request's status. Command 2 hands the client the FIFO's shared page (with a token of its
// own for the page's locks), so that it reads or writes the buffer without requests. The end of
// a description hands the page only to a process whose table holds the description at that
// moment (else PX_RESULT_NOT_HOLDER): a mapping, once made, cannot be taken back.
//
// Command 3 is what a holder sends when a lock of the page stays with another holder: the
// buffer frees it when its holder has no right to it or is stopped (Fifo::recover).
//
// It holds the end only weakly: dropping the last descriptor of an end must still close it.
// Once the end is gone every command is answered kAnswerEndGone. The buffer itself it holds
// strongly, for the links that were given its page: when such a link disconnects (its process
// has gone, perhaps in the middle of a copy), the locks its token still holds are freed.
#pragma once

#include <mutex>
#include <utility>
#include <vector>

#include "fd/file_description_server.h"
#include "fifo/posix_fifo.h"
#include "platform/chn.h"
#include "platform/service.h"
#include "posix/pipe_page.h"

class PosixFifoSvc : public Object, public Interfaces::Service, public ConMan {
 public:
  enum Command : uint32_t {
    kCommandMoreData = PX_FIFO_CMD_MORE_DATA,  // 1 while end-of-file is not set, else 0
    kCommandStatus = PX_FIFO_CMD_STATUS,       // the end's status (PosixFifoBase::Status)
    kCommandSharedPage = PX_FIFO_CMD_SHARED_PAGE,  // 1, token and ring size, page attached
    kCommandRecoverLock = PX_FIFO_CMD_RECOVER_LOCK,  // u32 which lock: 1 when it was freed
  };
  static constexpr uint32_t kAnswerUnknownCommand = 2;
  static constexpr uint32_t kAnswerEndGone = 3;

  // Null when `end` is null. With `description`, the page goes to its holders only.
  static Ref<PosixFifoSvc> create(const Ref<PosixFifoBase>& end,
                                  FileDescriptionServer* description = nullptr);

  bool handle(const Ref<InMsg>& in, const Ref<OutMsg>& out, uint32_t* ret, uint64_t value,
              Ref<Object>* extra) override;
  // Whether an end was ever given (not whether it still lives).
  bool isBound() override { return end_.get() != nullptr; }
  uint32_t unbind(Ref<Object> /*binding*/) override { return 0; }
  Ref<String> name() override;

  // Every client the multiplex admits may ask.
  bool connect(const Ref<ChnLink>& /*link*/) override { return true; }
  // Frees what the link's token still holds of the page.
  void disconnect(const Ref<ChnLink>& link) override;

 private:
  PosixFifoSvc(const Ref<PosixFifoBase>& end, FileDescriptionServer* description)
      : end_(end), fifo_(end->fifo()), description_(description) {}
  // Command 2 on the link being served: the page and the link's token (one per link).
  void sharePage(const Ref<OutMsg>& out, uint32_t* ret);

  const WeakRef<PosixFifoBase> end_;
  const Ref<Fifo> fifo_;  // the end's buffer (null when the end had none)
  const WeakRef<FileDescriptionServer> description_;  // null for an end of no description
  std::mutex holdersMutex_;
  std::vector<std::pair<const ChnLink*, uint32_t>> holders_;  // guarded by holdersMutex_
};
