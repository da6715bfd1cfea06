// posixctl's side of "posix.diag.service": one link, its requests, and the answers decoded
// into plain records. The only place that knows the service's reply layouts on this side.
#pragma once

#include <posix/diag_service.h>
#include <posix/wire_tables.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "host/service_socket.h"

namespace posixctl {

class Reader;

struct ProcessView {
  px_diag_process record;
  std::string program;
};

struct DescriptorView {
  px_diag_descriptor record;
  std::string path;
};

struct PipeView {
  px_diag_pipe record;
  std::vector<uint64_t> readers, writers;    // holding each end
  std::vector<uint64_t> reading, writing;    // inside a read or write now
};

struct FiguresView {
  px_diag_figures figures;
  std::vector<px_diag_command> commands;
};

struct EventBatch {
  uint64_t lost = 0;
  std::vector<px_diag_event> events;
  // Per event, in the same order: its request's leading string (a path), as the server sends
  // it whole (up to PX_DIAG_EVENT_TEXT bytes); empty for a command without one.
  std::vector<std::string> texts;
};

class DiagLink {
 public:
  // Connects to the service of the instance's runtime directory, after the checks the library
  // makes (a directory of our own, a server of our own user). 0 or an errno value.
  int open();

  // Each: 0, or an errno value (ESRCH for a pid the server does not know, EPROTO for an
  // answer that does not decode, ETIMEDOUT, ECONNRESET). A list comes whole: every page of it.
  int processes(std::vector<ProcessView>* out);
  int descriptors(uint64_t pid, std::vector<DescriptorView>* out);
  int pipes(std::vector<PipeView>* out);
  int figures(FiguresView* out);
  // Starts a monitor of `pid` (0: every process); then next() waits for each batch.
  int monitor(uint64_t pid);
  int next(EventBatch* out, int timeoutMs);

 private:
  // Sends a request; its id in *id.
  int send(uint32_t code, const std::vector<uint8_t>& data, uint64_t* id);
  // Sends a request and waits for the reply with its id: its result code and data.
  int call(uint32_t code, const std::vector<uint8_t>& data, uint32_t* result, std::vector<uint8_t>* reply);
  int receive(uint64_t id, uint32_t* result, std::vector<uint8_t>* reply, int timeoutMs);
  // Asks for a paged list (`ask`, then where the page starts) page by page, handing each
  // page's count and records to `page`, until the list is complete or a result is not 1
  // (then in *result).
  int pages(uint32_t code, const std::vector<uint8_t>& ask,
            const std::function<void(Reader&, uint32_t)>& page, uint32_t* result);

  posix::host::ServiceSocket socket_;
  uint64_t nextId_ = 1;
  uint64_t monitorId_ = 0;
};

// A command's table line (posix/wire_tables.h) by the service and code an event or a figure
// names; null for a code without one.
const px::Command* commandEntry(uint32_t service, uint32_t code);
// The command's name, for display ("spawn", "getTable"...); the number as text for a code
// without a name.
std::string commandName(uint32_t service, uint32_t code);

}  // namespace posixctl
