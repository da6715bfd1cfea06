// A service: what a service multiplex hands every request of a bound link to.
#pragma once

#include <cstdint>

#include "platform/error.h"
#include "platform/message.h"
#include "platform/object.h"
#include "platform/string.h"

namespace Interfaces {

class Service : public virtual RefCount {
 public:
  // The error value query() leaves when a service offers nothing of the kind asked for.
  static constexpr uint32_t kErrorNotSupported = 0x10002;

  // Serves one request. Answering true means the reply is ready: the multiplex sends `out`
  // with *ret as its status. Answering false means the service kept `in` and answers it
  // itself later (InMsg::reply, from any thread). `value` and `extra` carry nothing on the
  // hosted platform (0 and null).
  virtual bool handle(const Ref<InMsg>& in, const Ref<OutMsg>& out, uint32_t* ret,
                      uint64_t value, Ref<Object>* extra) = 0;
  // Asks the service for a further object of kind `what`. By default a service has none: the
  // error value becomes kErrorNotSupported and the answer is false.
  virtual bool query(uint64_t /*what*/, Ref<Object>* /*answer*/) {
    Error::set(kErrorNotSupported);
    return false;
  }
  // True while the service still has what it serves.
  virtual bool isBound() = 0;
  // Lets go of a binding made for `binding`'s holder; answers 0 when nothing is left to do.
  virtual uint32_t unbind(Ref<Object> binding) = 0;
  virtual Ref<String> name() = 0;
};

}  // namespace Interfaces
