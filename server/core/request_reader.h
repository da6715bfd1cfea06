// Reading request values: each value is read as exactly its size from the request's data
// stream; fewer bytes than asked is a short read.
#pragma once

#include "platform/message.h"

template <class T>
bool readValue(const Ref<InMsg>& request, T* value) {
  return request->read(value, sizeof *value, kForever) == sizeof *value;
}

template <class T>
bool writeValue(const Ref<OutMsg>& reply, const T& value) {
  return reply->write(&value, sizeof value, kForever) == sizeof value;
}
