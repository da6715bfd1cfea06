// Reading request values and writing reply values: each value is read as exactly its size from
// the request's data stream; fewer bytes than asked is a short read. readValues and
// writeValues name the command's table line (posix/wire_tables.h) and take the values in its
// order and of its types, checked when they compile.
#pragma once

#include <posix/wire_tables.h>

#include <type_traits>

#include "platform/message.h"

template <class T>
bool readValue(const Ref<InMsg>& request, T* value) {
  return request->read(value, sizeof *value, kForever) == sizeof *value;
}

template <class T>
bool writeValue(const Ref<OutMsg>& reply, const T& value) {
  return reply->write(&value, sizeof value, kForever) == sizeof value;
}

template <class... T>
bool readValues(const Ref<InMsg>& request, px::Values<std::type_identity_t<T>...> /*layout*/, T*... values) {
  return (readValue(request, values) && ...);
}

template <class... T>
bool writeValues(const Ref<OutMsg>& reply, px::Values<std::type_identity_t<T>...> /*layout*/,
                 const T&... values) {
  return (writeValue(reply, values) && ...);
}
