// The platform's reference-counted, immutable byte string.
#pragma once

#include <cstdint>

#include "platform/object.h"

class InMsg;
class OutMsg;

class String : public Object {
 public:
  // `length` -1 means up to the terminating zero.
  static Ref<String> create(const char* text, int64_t length = -1);
  // Reads one platform string (u32 length, then the bytes) from the message's data stream;
  // a short stream yields an empty string.
  static Ref<String> create(const Ref<InMsg>& message);

  // A new string: this one followed by `tail`.
  Ref<String> append(const char* tail, int64_t length = -1) const;
  Ref<String> append(const Ref<String>& tail) const;

  const char* c_str() const { return data_; }
  uint64_t length() const { return length_; }
  bool equals(const char* text) const;

  // Writes the string as a platform string to the message; answers false when it did not fit.
  bool write(const Ref<OutMsg>& out) const;

  ~String() override;

 private:
  String(char* data, uint64_t length) : data_(data), length_(length) {}
  char* data_;  // zero-terminated copy of the bytes
  uint64_t length_;
};
