// Character output: a writer puts bytes on a host file descriptor, a printer formats text and
// numbers into whole lines for a writer. Debug::out() is standard error.
#pragma once

#include <cstdint>
#include <string>

#include "platform/object.h"
#include "platform/string.h"

class CharWriter : public Object {
 public:
  // A writer over an existing one (`flags` reserved, pass 0).
  static Ref<CharWriter> create(const Ref<CharWriter>& target, uint32_t flags);
  // A writer over a host file descriptor; it does not own the descriptor.
  static Ref<CharWriter> forFd(int fd);
  // Writes all bytes in one call where the host allows it, so lines of several threads do
  // not interleave.
  virtual void write(const char* bytes, uint64_t length);

 protected:
  explicit CharWriter(int fd) : fd_(fd) {}
  int fd_;
};

// Number bases, applied to every integer printed after them.
enum class Base { Dec, Hex };
constexpr Base hex = Base::Hex;
constexpr Base dec = Base::Dec;

class CharPrinter : public Object {
 public:
  static Ref<CharPrinter> create(Ref<CharWriter> writer);

  void put(char c) { line_.push_back(c); }
  void setBase(Base base) { base_ = base; }

  CharPrinter& operator<<(const char* text);
  CharPrinter& operator<<(const Ref<String>& text);
  CharPrinter& operator<<(const std::string& text) { line_ += text; return *this; }
  CharPrinter& operator<<(char c) { put(c); return *this; }
  CharPrinter& operator<<(Base base) { setBase(base); return *this; }
  CharPrinter& operator<<(uint64_t value);
  CharPrinter& operator<<(int64_t value);
  CharPrinter& operator<<(uint32_t value) { return *this << static_cast<uint64_t>(value); }
  CharPrinter& operator<<(int32_t value) { return *this << static_cast<int64_t>(value); }
  CharPrinter& operator<<(unsigned long long value) { return *this << static_cast<uint64_t>(value); }
  CharPrinter& operator<<(long long value) { return *this << static_cast<int64_t>(value); }

  // Ends the line and hands it to the writer in one piece.
  virtual void endLine();

 protected:
  explicit CharPrinter(Ref<CharWriter> writer) : writer_(std::move(writer)) {}
  Ref<CharWriter> writer_;
  std::string line_;
  Base base_ = Base::Dec;
};

namespace Debug {
// The debug console: standard error.
Ref<CharWriter> out();
}  // namespace Debug

namespace StdIO {
// Routes the program's standard output to `writer` (the server binds it to the debug console).
void stdOut(const Ref<CharWriter>& writer);
Ref<CharWriter> stdOut();
}  // namespace StdIO
