#include "platform/chario.h"

#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <mutex>

namespace {
std::mutex g_stdOutMutex;
Ref<CharWriter> g_stdOut;  // guarded by g_stdOutMutex
}  // namespace

Ref<CharWriter> CharWriter::create(const Ref<CharWriter>& target, uint32_t /*flags*/) {
  if (!target) return nullptr;
  return new CharWriter(target->fd_);
}

Ref<CharWriter> CharWriter::forFd(int fd) { return new CharWriter(fd); }

void CharWriter::write(const char* bytes, uint64_t length) {
  while (length > 0) {
    ssize_t n = ::write(fd_, bytes, length);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    bytes += n;
    length -= static_cast<uint64_t>(n);
  }
}

Ref<CharPrinter> CharPrinter::create(Ref<CharWriter> writer) {
  if (!writer) return nullptr;
  return new CharPrinter(std::move(writer));
}

CharPrinter& CharPrinter::operator<<(const char* text) {
  line_ += text ? text : "(null)";
  return *this;
}

CharPrinter& CharPrinter::operator<<(const Ref<String>& text) {
  if (text) line_.append(text->c_str(), text->length());
  return *this;
}

CharPrinter& CharPrinter::operator<<(uint64_t value) {
  char buf[24];
  std::snprintf(buf, sizeof buf, base_ == Base::Hex ? "%" PRIx64 : "%" PRIu64, value);
  line_ += buf;
  return *this;
}

CharPrinter& CharPrinter::operator<<(int64_t value) {
  if (base_ == Base::Hex) return *this << static_cast<uint64_t>(value);
  char buf[24];
  std::snprintf(buf, sizeof buf, "%" PRId64, value);
  line_ += buf;
  return *this;
}

void CharPrinter::endLine() {
  line_.push_back('\n');
  writer_->write(line_.data(), line_.size());
  line_.clear();
}

namespace Debug {
Ref<CharWriter> out() {
  // Never destroyed: threads that outlive the exit-time destructors still log.
  static CharWriter* err = CharWriter::forFd(STDERR_FILENO).detach();
  return err;
}
}  // namespace Debug

namespace StdIO {
void stdOut(const Ref<CharWriter>& writer) {
  std::lock_guard lock(g_stdOutMutex);
  g_stdOut = writer;
}
Ref<CharWriter> stdOut() {
  std::lock_guard lock(g_stdOutMutex);
  if (!g_stdOut) g_stdOut = CharWriter::forFd(STDOUT_FILENO);
  return g_stdOut;
}
}  // namespace StdIO
