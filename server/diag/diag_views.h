// The introspection service's answers: what the server keeps, read without changing it and
// written into a reply in the layouts of the service's protocol header.
#pragma once

#include <cstdint>

#include "platform/message.h"

namespace DiagViews {

// Each answers the reply's result code.
uint32_t processes(const Ref<OutMsg>& reply);
uint32_t descriptors(uint64_t pid, const Ref<OutMsg>& reply);
uint32_t pipes(const Ref<OutMsg>& reply);
uint32_t figures(const Ref<OutMsg>& reply);

}  // namespace DiagViews
