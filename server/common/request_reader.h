// Reading request values and writing reply values: each value is read as exactly its size from
// the request's data stream; fewer bytes than asked is a short read. readRequest and
// writeReply name the command's table line (posix/wire_tables.h) and take the values in its
// order and of its types, checked when they compile.
#pragma once

#include <posix/wire_tables.h>

#include <bit>
#include <cstddef>
#include <string>
#include <utility>

#include "platform/message.h"
#include "platform/string.h"

// Values travel in the machine's byte order, which the wire format requires to be little-endian.
static_assert(std::endian::native == std::endian::little);

// A table's "string" is a platform string: u32 length, then the bytes.
namespace px {
template <> inline constexpr std::string_view kTypeWord<Ref<String>>{"string"};
}

template <class T>
bool readValue(const Ref<InMsg>& request, T* value) {
  return request->read(value, sizeof *value, kForever) == sizeof *value;
}

// A string whose bytes are all there; one cut short (its length says more than the request
// holds) is a short read, its bytes left unread.
inline bool readValue(const Ref<InMsg>& request, std::string* text) {
  uint32_t length = 0;
  if (!readValue(request, &length) || length > request->remaining()) return false;
  text->resize(length);
  return request->read(text->data(), length) == length;
}

inline bool readValue(const Ref<InMsg>& request, Ref<String>* value) {
  std::string text;
  if (!readValue(request, &text)) return false;
  *value = String::create(text.data(), static_cast<int64_t>(text.size()));
  return true;
}

template <class T>
bool writeValue(const Ref<OutMsg>& reply, const T& value) {
  return reply->write(&value, sizeof value, kForever) == sizeof value;
}

inline bool writeValue(const Ref<OutMsg>& reply, const Ref<String>& value) { return value->write(reply); }

namespace request_reader_detail {

// Reads one value of a request line. A value that is missing or cut short keeps what it held
// (the decoder's default); the answer is false then, except for an optional value ("[u64
// first]") the request leaves out entirely.
template <bool Optional, class T>
bool readListed(const Ref<InMsg>& request, T* value) {
  if (Optional && request->remaining() == 0) return true;
  T kept = *value;
  if (readValue(request, value)) return true;
  *value = std::move(kept);
  return false;
}

template <auto Code, class... T, size_t... I>
bool readLine(const Ref<InMsg>& request, std::index_sequence<I...>, T*... values) {
  // Every value is read, even after one fell short, so that each missing one keeps its default.
  bool whole = true;
  ((whole &= readListed<px::optionalAt(px::command(Code).request, I)>(request, values)), ...);
  return whole;
}

}  // namespace request_reader_detail

// Reads the values of command `Code`'s request line; false when the request is short (see
// readListed: missing values keep the caller's defaults).
template <auto Code, class... T>
bool readRequest(const Ref<InMsg>& request, T*... values) {
  static_assert(px::layoutIs<T...>(px::command(Code).request), "the values do not follow the request line");
  return request_reader_detail::readLine<Code>(request, std::index_sequence_for<T...>{}, values...);
}

// Writes the values of command `Code`'s reply line; false when one could not be written.
template <auto Code, class... T>
bool writeReply(const Ref<OutMsg>& reply, const T&... values) {
  static_assert(px::layoutIs<T...>(px::command(Code).reply), "the values do not follow the reply line");
  return (writeValue(reply, values) && ...);
}
