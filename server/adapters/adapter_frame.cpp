#include "adapters/adapter_frame.h"

#include <bit>

#include "platform/message.h"
#include "platform/sync.h"

// Values travel in the machine's byte order, which the wire format requires to be little-endian.
static_assert(std::endian::native == std::endian::little);

namespace posix {

LogModule adapterLog;

bool checkAdapterRequest(const Ref<InMsg>& in, const Ref<OutMsg>& out, const uint32_t* ret,
                         const char* function, const std::source_location& caller) {
  POSIX_ASSERT_AT(in != 0, caller, function);
  POSIX_ASSERT_AT(out != 0, caller, function);
  POSIX_ASSERT_AT(ret != 0, caller, function);
  return in && out && ret;
}

void logInvalidCommand(const char* function, uint32_t code) {
  POSIX_LOG(adapterLog.handle, 1,
            function << " : " << "Invalid command " << dec << static_cast<int32_t>(code));
}

bool readValue(const Ref<InMsg>& in, uint64_t* value) {
  uint64_t v = 0;
  if (in->read(Interfaces::MemDesc::direct(&v, sizeof v), sizeof v, kForever) != sizeof v)
    return false;
  *value = v;
  return true;
}

bool writeValue(const Ref<OutMsg>& out, uint64_t value) {
  return out->write(Interfaces::MemDesc::direct(&value, sizeof value), sizeof value, kForever) ==
         sizeof value;
}

}  // namespace posix
