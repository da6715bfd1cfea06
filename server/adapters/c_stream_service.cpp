#include "adapters/c_stream_service.h"


#include "adapters/adapter_frame.h"

namespace {

class CStreamServiceObj : public AdapterServiceObj<CStreamService> {
 public:
  explicit CStreamServiceObj(Ref<Interfaces::Stream> stream) : stream_(std::move(stream)) {}

  bool handle(const Ref<InMsg>& in, const Ref<OutMsg>& out, uint32_t* ret, uint64_t /*value*/,
              Ref<Object>* /*extra*/) override {
    if (posix::checkAdapterRequest(in, out, ret, "CStreamServiceObj::handle")) *ret = 0;
    return true;
  }
  Ref<String> name() override { return String::create("CStreamService"); }

 private:
  const Ref<Interfaces::Stream> stream_;  // kept alive for as long as the service is served
};

}  // namespace

Ref<CStreamService> CStreamService::create(Ref<Interfaces::Stream> strm) {
  POSIX_ASSERT(strm != 0, "CStreamService::create");
  return posix::createAdapter<CStreamServiceObj, CStreamService>(std::move(strm));
}
