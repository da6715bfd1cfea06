#include "adapters/posix_seekable_service.h"

#include <posix/wire.h>

#include "adapters/adapter_frame.h"
#include "common/request_reader.h"

namespace {

constexpr const char* kHandler = "PosixSeekableServiceObj::handle";

class PosixSeekableServiceObj : public AdapterServiceObj<PosixSeekableService> {
 public:
  explicit PosixSeekableServiceObj(Ref<Interfaces::Seekable> seek) : seek_(std::move(seek)) {}

  bool handle(const Ref<InMsg>& in, const Ref<OutMsg>& out, uint32_t* ret, uint64_t /*value*/,
              Ref<Object>* /*extra*/) override {
    if (posix::checkAdapterRequest(in, out, ret, kHandler)) *ret = serve(in, out);
    return true;
  }
  Ref<String> name() override { return String::create("PosixSeekableService"); }

 private:
  uint32_t serve(const Ref<InMsg>& in, const Ref<OutMsg>& out) {
    switch (in->code()) {
      case kCommandPosition:
        return writeReply<PX_SEEK_CMD_POSITION>(out, seek_->position()) ? PX_RESULT_DONE
                                                                        : PX_RESULT_REPLY_UNWRITTEN;
      case kCommandSeek: {
        uint64_t position = 0;
        if (!readRequest<PX_SEEK_CMD_SEEK>(in, &position)) return PX_RESULT_SHORT_REQUEST;
        // The seek has happened: a reply that does not fit changes nothing about that.
        writeReply<PX_SEEK_CMD_SEEK>(out, seek_->seek(position));
        return PX_RESULT_DONE;
      }
      default:
        posix::logInvalidCommand(kHandler, in->code());
        return PX_RESULT_FAILED;
    }
  }

  const Ref<Interfaces::Seekable> seek_;
};

}  // namespace

Ref<PosixSeekableService> PosixSeekableService::create(Ref<Interfaces::Seekable> seek) {
  POSIX_ASSERT(seek != 0, "PosixSeekableService::create");
  return posix::createAdapter<PosixSeekableServiceObj, PosixSeekableService>(std::move(seek));
}
