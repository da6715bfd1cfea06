/*
 * The command and result tables of every service, for C++: a command's name and values by its
 * code, and layouts checked when a decoder or an encoder compiles.
 *
 * Each service's header holds its table as one X-macro list; the lists are the only place a
 * code, a name or a layout is written. A layout is the table's text, "type name" values
 * separated by ", ". A decoder or encoder names the command whose layout it follows, and the
 * types it reads or writes are checked against that text when it compiles: code that reads a
 * u32 where the table says u64 does not build.
 */
#ifndef POSIX_WIRE_TABLES_H
#define POSIX_WIRE_TABLES_H

#ifndef __cplusplus
#error "wire_tables.h is C++; C code uses the X-macro lists of the service headers"
#endif

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "diag_service.h"
#include "fd_service.h"
#include "fs_item.h"
#include "nodes.h"
#include "pipe_page.h"
#include "posix_service.h"
#include "wire.h"

namespace px {

struct Command {
  uint32_t code;
  const char* name;
  const char* request;  // the request's values in order; "" for none
  const char* reply;    // the reply's data; "" for none
};

struct Result {
  uint32_t code;
  const char* name;
};

#define PX_COMMAND_ENTRY(code, constant, name, request, reply) Command{code, name, request, reply},
#define PX_RESULT_ENTRY(code, constant, name) Result{code, name},
inline constexpr Command kProcessCommands[] = {PX_PROCESS_COMMANDS(PX_COMMAND_ENTRY)};
inline constexpr Command kFdCommands[] = {PX_FD_COMMANDS(PX_COMMAND_ENTRY)};
inline constexpr Command kStreamCommands[] = {PX_STREAM_COMMANDS(PX_COMMAND_ENTRY)};
inline constexpr Command kItemCommands[] = {PX_ITEM_COMMANDS(PX_COMMAND_ENTRY)};
inline constexpr Command kFifoCommands[] = {PX_FIFO_COMMANDS(PX_COMMAND_ENTRY)};
inline constexpr Command kDiagCommands[] = {PX_DIAG_COMMANDS(PX_COMMAND_ENTRY)};
inline constexpr Result kSharedResults[] = {PX_SHARED_RESULTS(PX_RESULT_ENTRY)};
inline constexpr Result kProcessResults[] = {PX_PROCESS_RESULTS(PX_RESULT_ENTRY)};
inline constexpr Result kFdResults[] = {PX_FD_RESULTS(PX_RESULT_ENTRY)};
inline constexpr Result kFifoStatuses[] = {PX_FIFO_STATUSES(PX_RESULT_ENTRY)};
#undef PX_COMMAND_ENTRY
#undef PX_RESULT_ENTRY

// The entry of `code`; null when the table has none.
template <class Entry>
constexpr const Entry* find(std::span<const Entry> table, uint32_t code) {
  for (const Entry& entry : table)
    if (entry.code == code) return &entry;
  return nullptr;
}

constexpr const Command& command(px_process_command code) { return *find<Command>(kProcessCommands, code); }
constexpr const Command& command(px_fd_command code) { return *find<Command>(kFdCommands, code); }
constexpr const Command& command(px_stream_command code) { return *find<Command>(kStreamCommands, code); }
constexpr const Command& command(px_item_command code) { return *find<Command>(kItemCommands, code); }
constexpr const Command& command(px_fifo_command code) { return *find<Command>(kFifoCommands, code); }
constexpr const Command& command(px_diag_command_code code) { return *find<Command>(kDiagCommands, code); }

// The word a layout uses for each value of a fixed size.
template <class T> inline constexpr std::string_view kTypeWord{};
template <> inline constexpr std::string_view kTypeWord<uint8_t>{"u8"};
template <> inline constexpr std::string_view kTypeWord<uint32_t>{"u32"};
template <> inline constexpr std::string_view kTypeWord<int32_t>{"i32"};
template <> inline constexpr std::string_view kTypeWord<uint64_t>{"u64"};
template <> inline constexpr std::string_view kTypeWord<px_status_record>{"record"};

// Walks a layout's values, "type name" each, "[type name]" for one a request may leave out.
class LayoutWalk {
 public:
  constexpr explicit LayoutWalk(std::string_view layout) : rest_(layout) {}
  // The next value's type and name; false after the last.
  constexpr bool next(std::string_view* type, std::string_view* name, bool* optional) {
    if (rest_.empty()) return false;
    size_t end = rest_.find(", ");
    std::string_view item = rest_.substr(0, end);
    rest_ = end == std::string_view::npos ? std::string_view{} : rest_.substr(end + 2);
    *optional = item.size() >= 2 && item.front() == '[' && item.back() == ']';
    if (*optional) item = item.substr(1, item.size() - 2);
    size_t space = item.find(' ');
    *type = item.substr(0, space);
    *name = space == std::string_view::npos ? std::string_view{} : item.substr(space + 1);
    return true;
  }

 private:
  std::string_view rest_;
};

// Whether `layout` lists exactly values of the types T, in order.
template <class... T>
constexpr bool layoutIs(std::string_view layout) {
  LayoutWalk walk(layout);
  std::string_view type, name;
  bool optional = false;
  bool same = ((walk.next(&type, &name, &optional) && type == kTypeWord<T>) && ...);
  return same && !walk.next(&type, &name, &optional);
}

// The checker itself: a wrong type, a missing value or one too many is a mismatch.
static_assert(layoutIs<uint64_t, uint32_t>("u64 pid, u32 signal") && layoutIs<>(""));
static_assert(!layoutIs<uint32_t>("u64 pid") && !layoutIs<uint64_t>("u64 pid, u32 signal") &&
              !layoutIs<uint64_t, uint32_t>("u64 pid"));

// Whether value `index` of `layout` is one a request may leave out. Only the last values may
// be: a layout with a required value after an optional one does not build.
constexpr bool optionalAt(std::string_view layout, size_t index) {
  LayoutWalk walk(layout);
  std::string_view type, name;
  bool optional = false, seen = false, answer = false;
  for (size_t i = 0; walk.next(&type, &name, &optional); ++i) {
    if (seen && !optional) throw "a required value follows an optional one";
    seen = seen || optional;
    if (i == index) answer = optional;
  }
  return answer;
}
static_assert(optionalAt("u64 pid, [u64 first]", 1) && !optionalAt("u64 pid, [u64 first]", 0));

// Whether no two lines of a table share a code.
template <class Entry>
constexpr bool codesUnique(std::span<const Entry> table) {
  for (size_t i = 0; i < table.size(); ++i)
    for (size_t j = i + 1; j < table.size(); ++j)
      if (table[i].code == table[j].code) return false;
  return true;
}
static_assert(codesUnique<Command>(kProcessCommands) && codesUnique<Command>(kFdCommands) &&
              codesUnique<Command>(kStreamCommands) && codesUnique<Command>(kItemCommands) &&
              codesUnique<Command>(kFifoCommands) && codesUnique<Command>(kDiagCommands));
static_assert(codesUnique<Result>(kSharedResults) && codesUnique<Result>(kProcessResults) &&
              codesUnique<Result>(kFdResults) &&
              codesUnique<Result>(kFifoStatuses));

// A "string" value to put: u32 length, then the bytes.
struct Text {
  const char* data;
  size_t size;
};
// A "bytes" value to put: the bytes alone, to the end of the request.
struct Bytes {
  const void* data;
  size_t size;
};
template <> inline constexpr std::string_view kTypeWord<Text>{"string"};
template <> inline constexpr std::string_view kTypeWord<Bytes>{"bytes"};

template <class Writer, class T>
void put(Writer& writer, const T& value) {
  writer.bytes(&value, sizeof value);
}
// A text longer than a length can say does not fit any frame either: the writer refuses its
// bytes whatever the length in front of them says.
template <class Writer>
void put(Writer& writer, const Text& text) {
  const uint32_t length = static_cast<uint32_t>(text.size);
  writer.bytes(&length, sizeof length);
  writer.bytes(text.data, text.size);
}
template <class Writer>
void put(Writer& writer, const Bytes& bytes) {
  writer.bytes(bytes.data, bytes.size);
}

// Puts `values` into a writer that takes bytes, checked to be of the types, and in the order,
// of command `Code`'s request line.
template <auto Code, class Writer, class... T>
void putRequest(Writer& writer, const T&... values) {
  static_assert(layoutIs<T...>(command(Code).request), "the values do not follow the request line");
  (put(writer, values), ...);
}

}  // namespace px

#endif /* POSIX_WIRE_TABLES_H */
