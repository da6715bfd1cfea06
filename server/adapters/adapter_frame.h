// What the adapter services share. Each adapter serves one object of an opened item (its
// stream, seekable or resizable object) as a service of the item's multiplex: an interface
// class that a multiplex can take, and an implementation object that holds the wrapped object
// and answers the requests.
//
// Every adapter accepts every link, is never bound to a client, keeps nothing per link and
// answers every request it is handed (its handler always answers true).
#pragma once

#include <cstdint>
#include <new>

#include "adapters/adapter_log.h"
#include "common/log.h"
#include "platform/chn.h"
#include "platform/service.h"

namespace posix {

// The log-only assertions of a request's three arguments, written for `function` at the
// caller's line. Answers whether all three are there; a handler serves nothing without them.
bool checkAdapterRequest(const Ref<InMsg>& in, const Ref<OutMsg>& out, const uint32_t* ret,
                         const char* function,
                         const std::source_location& caller = std::source_location::current());

// Logs "<function> : Invalid command <code>" at level 1.
void logInvalidCommand(const char* function, uint32_t code);

}  // namespace posix

// The operations every adapter implementation answers alike. `Interface` is the adapter's
// interface class.
template <class Interface>
class AdapterServiceObj : public Object, public Interface {
 public:
  // An adapter serves an object, never a client of its own.
  bool isBound() override { return false; }
  uint32_t unbind(Ref<Object> /*binding*/) override { return 0; }
  bool connect(const Ref<ChnLink>& /*link*/) override { return true; }
  void disconnect(const Ref<ChnLink>& /*link*/) override {}
};

namespace posix {

// The `create` of every adapter, after the caller's assertion that the object is there: a null
// object gives a null service; so does a failed allocation, logged as "Out of memory".
template <class Obj, class Interface, class Wrapped>
Ref<Interface> createAdapter(Ref<Wrapped> wrapped) {
  if (!wrapped) return nullptr;
  auto* service = new (std::nothrow) Obj(std::move(wrapped));
  if (!service) {
    POSIX_LOG(adapterLog.handle, 4, "Out of memory");
    return nullptr;
  }
  return service;
}

}  // namespace posix
