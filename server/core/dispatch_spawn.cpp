// Starting programs through "posix.service". The counts in a spawn request are checked against
// what the request can still hold (a string takes at least 4 bytes, an environment pair 8)
// before anything is allocated for them: a larger count is a short request, answered 0. A
// string with a zero byte inside (path, argument, environment name or value) is refused too:
// the host would see only the part before it. A process that has as many children as it may
// (PosixProcess::maxChildren) is answered 11, and nothing is started.
//
// The caller's own standard files and working directory may come with the request as
// descriptors, one per start-option bit: they are the caller's to give, so they are used as
// they are. Options with an unknown bit, or that name more descriptors than came, are refused
// (EINVAL, EBADF); descriptors beyond those named are closed with the request.
#include <posix/posix_service.h>
#include <posix/wire.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "core/posix_service.h"
#include "common/request_reader.h"
#include "platform/error.h"

namespace {

bool whole(const Ref<String>& text) { return std::strlen(text->c_str()) == text->length(); }
bool whole(const std::string& text) { return std::memchr(text.data(), 0, text.size()) == nullptr; }

// Reads one wire string (u32 length, then the bytes) into `text`; a short stream yields an
// empty one, as String::create reads it. The environment's pairs go straight into the Env's
// buffer this way, without a String each.
void readText(const Ref<InMsg>& request, std::string* text) {
  text->clear();
  readValue(request, text);
}

// 0 when the request decoded; EINVAL for a string with a zero byte inside; EPROTO for a count
// the request cannot hold. The values follow PX_SPAWN_REQUEST (posix_service.h) by hand: its
// counted lists of strings are more than readRequest's fixed values can say.
uint32_t decodeStart(const Ref<InMsg>& request, ProgramStart* start) {
  start->path = String::create(request);
  if (!whole(start->path)) return EINVAL;
  readValue(request, &start->startFlags);
  uint64_t argc = 0;
  readValue(request, &argc);
  if (argc > request->remaining() / PX_WIRE_STRING_HEADER) return EPROTO;
  start->arguments.reserve(argc);
  for (uint64_t i = 0; i < argc; ++i) {
    start->arguments.push_back(String::create(request));
    if (!whole(start->arguments.back())) return EINVAL;
  }
  uint64_t envc = 0;
  readValue(request, &envc);
  if (envc > request->remaining() / (2 * PX_WIRE_STRING_HEADER)) return EPROTO;
  start->environment = Env::create();
  start->environment->reserve(envc, request->remaining());
  std::string name;
  std::string value;
  for (uint64_t i = 0; i < envc; ++i) {
    readText(request, &name);
    readText(request, &value);
    if (!whole(name) || !whole(value)) return EINVAL;
    start->environment->set(name.data(), name.size(), value.data(), value.size());
  }
  readValue(request, &start->startOptions);
  if ((start->startOptions & ~PX_SPAWN_OPTIONS_ALL) != 0) return EINVAL;
  static_assert(PX_SPAWN_OPTION_STDIN_FD == 1u << 0 && PX_SPAWN_OPTION_STDERR_FD == 1u << 2 &&
                PX_SPAWN_OPTION_CWD_FD == 1u << StartFiles::kDirSlot);
  uint32_t next = 0;
  for (int slot = 0; slot < StartFiles::kSlots; ++slot) {
    if ((start->startOptions & (1u << slot)) == 0) continue;
    start->files.set(slot, request->takeDescriptor(next++));
    if (start->files.get(slot) < 0) return EBADF;
  }
  if (request->code() == PX_CMD_SPAWN_SHARED) {
    readValue(request, &start->sharedMemory.id);
    readValue(request, &start->sharedMemory.size);
  }
  return 0;
}

}  // namespace

bool PosixService::spawn(const Ref<PosixProcess>& caller, const Ref<InMsg>& request,
                         const Ref<OutMsg>& reply, uint32_t* resultCode) {
  ProgramStart start;
  uint32_t refused = decodeStart(request, &start);
  if (refused != 0 && refused != EPROTO) writeValue(reply, refused);
  *resultCode = PX_RESULT_FAILED;
  if (refused != 0) return true;
  // The child's agent answers from here on: the pid once the program runs, or the reason.
  *resultCode = PosixProcess::spawn(caller, std::move(start), request);
  if (*resultCode == PX_RESULT_DONE) return false;
  if (*resultCode == PX_RESULT_FAILED) writeValue(reply, Error::get());
  return true;
}
