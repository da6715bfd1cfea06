// posixctl fds: posixctl's own descriptor table as the server serialises it, one line per
// descriptor: number, type code and name, then the node's entries
//   "3 5 fifo 0x10010:<channel>/<service>:2 0x880000:<channel>/<service>:32"
// (interface type, channel id in hex and service id, access flags). Numbers taken without a
// description are not in the serialised table and not listed; an empty table is said in
// words. Mostly for tests and scripts: a program started by `posixctl run` shows what it
// inherited with `fds` of its own library.
#include <errno.h>
#include <inttypes.h>
#include <stdio.h>

#include <vector>

#include "posix_client.h"
#include "posixctl.h"

namespace posixctl {

int cmdFds(const std::vector<std::string>& given) {
  std::vector<std::string> args = given;
  bool json = takeFlag(&args, "--json");
  int64_t pid = 0;
  if (args.size() == 1 && parseInt(args[0].c_str(), &pid) && pid > 0)
    return cmdFdsOf(static_cast<uint64_t>(pid), json);
  if (!args.empty() || json) return usage("fds takes a PID (and --json), or nothing");
  std::vector<px_fd_record> records(16);
  int count = 0;
  for (;;) {
    count = px_fd_table(records.data(), static_cast<int>(records.size()));
    if (count < 0) return callFailure("fds", errno);
    if (static_cast<size_t>(count) <= records.size()) break;
    records.resize(static_cast<size_t>(count));  // the table grew: fetch it again
  }
  if (count == 0) {
    printf("no descriptor has a description (0, 1 and 2 of a process that started on its own "
           "have none)\n");
  }
  for (int i = 0; i < count; ++i) {
    const px_fd_record& r = records[static_cast<size_t>(i)];
    printf("%" PRId64 " %d %s", r.fd, r.type, px_fd_kind_name(r.type));
    for (uint32_t k = 0; k < r.entry_count && k < PX_FD_MAX_ENTRIES; ++k) {
      const px_node_entry& e = r.entries[k];
      printf(" 0x%" PRIx64 ":%016" PRIx64 "/%" PRIu64 ":%" PRIu64, e.type, e.channel, e.service,
             e.access);
    }
    printf("\n");
  }
  return kExitOk;
}

}  // namespace posixctl
