#include "adapters/posix_resizable_service.h"

#include <posix/wire.h>

#include "adapters/adapter_frame.h"
#include "common/request_reader.h"

namespace {

constexpr const char* kHandler = "PosixResizableServiceObj::handle";

class PosixResizableServiceObj : public AdapterServiceObj<PosixResizableService> {
 public:
  explicit PosixResizableServiceObj(Ref<Interfaces::Resizable> resize) : resize_(std::move(resize)) {}

  bool handle(const Ref<InMsg>& in, const Ref<OutMsg>& out, uint32_t* ret, uint64_t /*value*/,
              Ref<Object>* /*extra*/) override {
    if (posix::checkAdapterRequest(in, out, ret, kHandler)) *ret = serve(in, out);
    return true;
  }
  Ref<String> name() override { return String::create("PosixResizableService"); }

 private:
  uint32_t serve(const Ref<InMsg>& in, const Ref<OutMsg>& out) {
    switch (in->code()) {
      case kCommandSize:
        return writeReply<PX_RESIZE_CMD_SIZE>(out, resize_->size()) ? PX_RESULT_DONE
                                                                    : PX_RESULT_REPLY_UNWRITTEN;
      case kCommandResize: {
        uint64_t size = 0;
        if (!readRequest<PX_RESIZE_CMD_RESIZE>(in, &size)) return PX_RESULT_SHORT_REQUEST;
        // The resize has happened: a reply that does not fit changes nothing about that.
        writeReply<PX_RESIZE_CMD_RESIZE>(out, resize_->resize(size));
        return PX_RESULT_DONE;
      }
      default:
        posix::logInvalidCommand(kHandler, in->code());
        return PX_RESULT_FAILED;
    }
  }

  const Ref<Interfaces::Resizable> resize_;
};

}  // namespace

Ref<PosixResizableService> PosixResizableService::create(Ref<Interfaces::Resizable> resize) {
  POSIX_ASSERT(resize != 0, "PosixResizableService::create");
  return posix::createAdapter<PosixResizableServiceObj, PosixResizableService>(std::move(resize));
}
