// Reading request values and writing reply values: each value is read as exactly its size from
// the request's data stream; fewer bytes than asked is a short read. readValues and
// writeValues name the command's table line (posix/wire_tables.h) and take the values in its
// order and of its types, checked when they compile.
#pragma once

#include <posix/wire_tables.h>

#include "platform/message.h"

template <class T>
bool readValue(const Ref<InMsg>& request, T* value) {
  return request->read(value, sizeof *value, kForever) == sizeof *value;
}

template <class T>
bool writeValue(const Ref<OutMsg>& reply, const T& value) {
  return reply->write(&value, sizeof value, kForever) == sizeof value;
}

// Reads the values of command `Code`'s request line; false when the request is short.
template <auto Code, class... T>
bool readRequest(const Ref<InMsg>& request, T*... values) {
  static_assert(px::layoutIs<T...>(px::command(Code).request), "the values do not follow the request line");
  return (readValue(request, values) && ...);
}

// Writes the values of command `Code`'s reply line; false when one could not be written.
template <auto Code, class... T>
bool writeReply(const Ref<OutMsg>& reply, const T&... values) {
  static_assert(px::layoutIs<T...>(px::command(Code).reply), "the values do not follow the reply line");
  return (writeValue(reply, values) && ...);
}
