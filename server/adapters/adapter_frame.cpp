#include "adapters/adapter_frame.h"

#include "platform/message.h"
#include "platform/sync.h"

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

}  // namespace posix
