// The status service of one FIFO end: a client asks whether more data may still come (command
// 0) and how the end's last read or write went (command 1). The whole answer is the request's
// status; nothing is read beyond the command code and nothing is written.
//
// It holds the end only weakly: dropping the last descriptor of an end must still close it.
// Once the end is gone every command is answered kAnswerEndGone.
#pragma once

#include "fifo/posix_fifo.h"
#include "platform/chn.h"
#include "platform/service.h"

class PosixFifoSvc : public Object, public Interfaces::Service, public ConMan {
 public:
  enum Command : uint32_t {
    kCommandMoreData = 0,  // 1 while end-of-file is not set, else 0
    kCommandStatus = 1,    // the end's status (PosixFifoBase::Status)
  };
  static constexpr uint32_t kAnswerUnknownCommand = 2;
  static constexpr uint32_t kAnswerEndGone = 3;

  // Null when `end` is null.
  static Ref<PosixFifoSvc> create(const Ref<PosixFifoBase>& end);

  bool handle(const Ref<InMsg>& in, const Ref<OutMsg>& out, uint32_t* ret, uint64_t value,
              Ref<Object>* extra) override;
  // Whether an end was ever given (not whether it still lives).
  bool isBound() override { return end_.get() != nullptr; }
  uint32_t unbind(Ref<Object> /*binding*/) override { return 0; }
  Ref<String> name() override;

  // Every client may ask.
  bool connect(const Ref<ChnLink>& /*link*/) override { return true; }
  void disconnect(const Ref<ChnLink>& /*link*/) override {}

 private:
  explicit PosixFifoSvc(const Ref<PosixFifoBase>& end) : end_(end) {}
  const WeakRef<PosixFifoBase> end_;
};
