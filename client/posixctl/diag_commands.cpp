// posixctl ps, fds PID, pipes, top and monitor: what "posix.diag.service" tells, as text for
// a person or, with --json, as JSON for scripts (the same data in both forms).
#include <errno.h>
#include <inttypes.h>
#include <stdio.h>

#include <algorithm>
#include <string>

#include "diag_client.h"
#include "diag_text.h"
#include "posix_client.h"
#include "posixctl.h"

namespace posixctl {

namespace {

std::string quoted(const std::string& s) {
  std::string out = "\"";
  out.append(jsonText(s));
  return out.append("\"");
}

std::string pidList(const std::vector<uint64_t>& pids, bool json) {
  std::string out = json ? "[" : "";
  for (size_t i = 0; i < pids.size(); ++i) {
    if (i) out += ',';
    out += std::to_string(pids[i]);
  }
  if (json) return out + "]";
  return out.empty() ? "-" : out;
}

const char* stateName(uint32_t state) {
  switch (state) {
    case PX_DIAG_RUNNING: return "running";
    case PX_DIAG_CONNECTED: return "connected";
    case PX_DIAG_ZOMBIE: return "zombie";
    default: return "?";
  }
}

int linkOrFail(DiagLink& link, const char* what) {
  int err = link.open();
  return err != 0 ? callFailure(what, err == ENOENT || err == ECONNREFUSED ? ENOENT : err) : kExitOk;
}

// Prints `p` and, indented below it, its children (those whose parent is p).
void printTree(const std::vector<ProcessView>& all, const ProcessView& p, int depth) {
  const px_diag_process& r = p.record;
  std::string state = stateName(r.state);
  if (r.state == PX_DIAG_ZOMBIE) state.append("(").append(std::to_string(r.exit_code)).append(")");
  std::string pid = std::string(static_cast<size_t>(depth) * 2, ' ') + std::to_string(r.pid);
  printf("%-12s %-8" PRIu64 " %-8" PRIu64 " %-12s %4u %5u %-8s %-6s %s\n", pid.c_str(), r.parent,
         r.group, state.c_str(), r.descriptors, r.waits, signalList(r.pending).c_str(),
         r.signal_waiter ? "yes" : "-",
         p.program.c_str());
  for (const ProcessView& c : all)
    if (c.record.parent == r.pid && c.record.pid != r.pid) printTree(all, c, depth + 1);
}

}  // namespace

int cmdPs(const std::vector<std::string>& given) {
  std::vector<std::string> args = given;
  bool json = takeFlag(&args, "--json");
  if (!args.empty()) return usage("ps takes only --json");
  DiagLink link;
  std::vector<ProcessView> all;
  if (int rc = linkOrFail(link, "ps")) return rc;
  if (int err = link.processes(&all)) return callFailure("ps", err);
  if (json) {
    printf("[");
    for (size_t i = 0; i < all.size(); ++i) {
      const px_diag_process& r = all[i].record;
      printf("%s{\"pid\":%" PRIu64 ",\"parent\":%" PRIu64 ",\"group\":%" PRIu64
             ",\"state\":\"%s\",\"exit_code\":%u,\"descriptors\":%u,\"children\":%u,\"waits\":%u,"
             "\"pending\":%u,\"signal_waiter\":%s,\"program\":%s}",
             i ? "," : "", r.pid, r.parent, r.group, stateName(r.state), r.exit_code, r.descriptors,
             r.children, r.waits, r.pending, r.signal_waiter ? "true" : "false",
             quoted(all[i].program).c_str());
    }
    printf("]\n");
    return kExitOk;
  }
  printf("%-12s %-8s %-8s %-12s %4s %5s %-8s %-6s %s\n", "PID", "PPID", "PGID", "STATE", "FDS",
         "WAITS", "PENDING", "SIGWT", "PROGRAM");
  for (const ProcessView& p : all) {
    bool parentListed = std::any_of(all.begin(), all.end(), [&](const ProcessView& q) {
      return q.record.pid == p.record.parent && q.record.pid != p.record.pid;
    });
    if (!parentListed) printTree(all, p, 0);
  }
  return kExitOk;
}

int cmdFdsOf(uint64_t pid, bool json) {
  DiagLink link;
  std::vector<DescriptorView> fds;
  std::vector<PipeView> pipes;
  if (int rc = linkOrFail(link, "fds")) return rc;
  int err = link.descriptors(pid, &fds);
  if (err == 0) err = link.pipes(&pipes);
  if (err == ESRCH) return noProcess("fds", static_cast<int64_t>(pid));
  if (err != 0) return callFailure("fds", err);
  auto otherEnd = [&](const px_diag_descriptor& d) {
    for (const PipeView& p : pipes)
      if (p.record.pipe == d.pipe) return d.end == 1 ? p.writers : p.readers;
    return std::vector<uint64_t>{};
  };
  if (json) printf("[");
  else printf("%-5s %-10s %-10s %s\n", "FD", "KIND", "OFFSET", "WHAT");
  for (size_t i = 0; i < fds.size(); ++i) {
    const px_diag_descriptor& d = fds[i].record;
    const char* kind = d.type == 0 ? "reserved" : px_fd_kind_name(d.type);
    std::string offset = d.offset == ~uint64_t{0} ? "-" : std::to_string(d.offset);
    if (json) {
      printf("%s{\"fd\":%d,\"kind\":\"%s\",\"offset\":%s,\"path\":%s,\"pipe\":%" PRIu64
             ",\"end\":\"%s\",\"other_end\":%s}",
             i ? "," : "", d.fd, kind, d.offset == ~uint64_t{0} ? "null" : offset.c_str(),
             quoted(fds[i].path).c_str(), d.pipe, d.end == 1 ? "read" : d.end == 2 ? "write" : "",
             pidList(otherEnd(d), true).c_str());
    } else if (d.pipe != 0) {
      printf("%-5d %-10s %-10s pipe %" PRIu64 ", %s end; other end held by %s\n", d.fd, kind,
             offset.c_str(), d.pipe, d.end == 1 ? "read" : "write", pidList(otherEnd(d), false).c_str());
    } else {
      printf("%-5d %-10s %-10s %s\n", d.fd, kind, offset.c_str(), fds[i].path.c_str());
    }
  }
  if (json) printf("]\n");
  return kExitOk;
}

int cmdPipes(const std::vector<std::string>& given) {
  std::vector<std::string> args = given;
  bool json = takeFlag(&args, "--json");
  if (!args.empty()) return usage("pipes takes only --json");
  DiagLink link;
  std::vector<PipeView> pipes;
  if (int rc = linkOrFail(link, "pipes")) return rc;
  if (int err = link.pipes(&pipes)) return callFailure("pipes", err);
  if (json) printf("[");
  else printf("%-6s %-9s %-7s %-16s %-16s %-16s %s\n", "PIPE", "BUFFERED", "STATE", "READ END",
              "WRITE END", "READING NOW", "WRITING NOW");
  for (size_t i = 0; i < pipes.size(); ++i) {
    const PipeView& p = pipes[i];
    const char* state = (p.record.flags & 2) ? "broken" : (p.record.flags & 1) ? "eof" : "open";
    if (json) {
      printf("%s{\"pipe\":%" PRIu64 ",\"buffered\":%" PRIu64
             ",\"state\":\"%s\",\"readers\":%s,\"writers\":%s,\"reading\":%s,\"writing\":%s}",
             i ? "," : "", p.record.pipe, p.record.buffered, state, pidList(p.readers, true).c_str(),
             pidList(p.writers, true).c_str(), pidList(p.reading, true).c_str(),
             pidList(p.writing, true).c_str());
    } else {
      printf("%-6" PRIu64 " %-9" PRIu64 " %-7s %-16s %-16s %-16s %s\n", p.record.pipe,
             p.record.buffered, state, pidList(p.readers, false).c_str(),
             pidList(p.writers, false).c_str(), pidList(p.reading, false).c_str(),
             pidList(p.writing, false).c_str());
    }
  }
  if (json) printf("]\n");
  return kExitOk;
}

}  // namespace posixctl
