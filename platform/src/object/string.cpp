#include "platform/string.h"

#include <cstring>

#include "platform/message.h"

namespace {
char* copyBytes(const char* a, uint64_t aLength, const char* b, uint64_t bLength) {
  auto* data = new char[aLength + bLength + 1];
  if (aLength) std::memcpy(data, a, aLength);
  if (bLength) std::memcpy(data + aLength, b, bLength);
  data[aLength + bLength] = 0;
  return data;
}
}  // namespace

Ref<String> String::create(const char* text, int64_t length) {
  if (!text) text = "";
  uint64_t n = length < 0 ? std::strlen(text) : static_cast<uint64_t>(length);
  char* data = copyBytes(text, n, nullptr, 0);
  if (!data) return nullptr;
  return new String(data, n);
}

Ref<String> String::create(const Ref<InMsg>& message) {
  if (!message) return create("", 0);
  uint32_t length = 0;
  if (message->read(&length, sizeof length) != sizeof length || length > message->remaining())
    return create("", 0);
  char* data = new char[static_cast<uint64_t>(length) + 1];
  message->read(data, length);
  data[length] = 0;
  return new String(data, length);
}

Ref<String> String::append(const char* tail, int64_t length) const {
  if (!tail) tail = "";
  uint64_t n = length < 0 ? std::strlen(tail) : static_cast<uint64_t>(length);
  char* data = copyBytes(data_, length_, tail, n);
  if (!data) return nullptr;
  return new String(data, length_ + n);
}

Ref<String> String::append(const Ref<String>& tail) const {
  return tail ? append(tail->c_str(), static_cast<int64_t>(tail->length())) : append("", 0);
}

bool String::equals(const char* text) const {
  return text && std::strlen(text) == length_ && std::memcmp(text, data_, length_) == 0;
}

bool String::write(const Ref<OutMsg>& out) const {
  if (!out || length_ > 0xFFFFFFFFu) return false;
  uint32_t length = static_cast<uint32_t>(length_);
  if (out->write(&length, sizeof length) != sizeof length) return false;
  return out->write(data_, length_) == length_;
}

String::~String() { delete[] data_; }
