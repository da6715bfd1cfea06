// The fixture's input and output: a spawned program's lines through a pipe named by /proc,
// host files in RT, reads through the library, and the descriptor table's view of a number.
#include <errno.h>
#include <fcntl.h>
#include <inttypes.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>

#include "posix/wire.h"
#include "server_fixture.h"

OutputPipe::OutputPipe() {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) == 0) {
    read_ = fds[0];
    write_ = fds[1];
  }
}

OutputPipe::~OutputPipe() {
  if (read_ >= 0) close(read_);
  if (write_ >= 0) close(write_);
}

std::string OutputPipe::writePath() const {
  return "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(write_);
}

bool OutputPipe::readLine(std::string* line, int timeoutMs) {
  int64_t deadline = monotonicMs() + timeoutMs;
  for (;;) {
    size_t nl = pending_.find('\n');
    if (nl != std::string::npos) {
      *line = pending_.substr(0, nl);
      pending_.erase(0, nl + 1);
      return true;
    }
    int64_t left = deadline - monotonicMs();
    if (left <= 0) return false;
    struct pollfd pfd = {read_, POLLIN, 0};
    if (poll(&pfd, 1, static_cast<int>(left)) <= 0) continue;
    char buf[1024];
    ssize_t n = read(read_, buf, sizeof buf);
    if (n <= 0) return false;
    pending_.append(buf, static_cast<size_t>(n));
  }
}

std::string OutputPipe::expect(const std::string& prefix, int timeoutMs) {
  int64_t deadline = monotonicMs() + timeoutMs;
  std::string line;
  while (readLine(&line, static_cast<int>(std::max<int64_t>(deadline - monotonicMs(), 0)))) {
    if (line.compare(0, prefix.size(), prefix) == 0) return line;
  }
  return "";
}

std::string hostRead(const std::string& p) {
  std::ifstream in(p, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

std::string ServerFixture::hostFile(const std::string& name, const std::string& bytes) {
  std::string p = path(name);
  std::ofstream(p, std::ios::binary | std::ios::trunc) << bytes;
  return p;
}

std::string readUpTo(int fd, size_t limit) {
  std::string data;
  char buf[8192];
  while (data.size() < limit) {
    ssize_t got = px_read(fd, buf, std::min(sizeof buf, limit - data.size()));
    EXPECT_GE(got, 0) << strerror(errno);
    if (got <= 0) break;
    data.append(buf, static_cast<size_t>(got));
  }
  return data;
}

bool ServerFixture::tableRecord(int fd, px_fd_record* out) {
  std::vector<px_fd_record> records(64);
  int n = px_fd_table(records.data(), static_cast<int>(records.size()));
  EXPECT_GE(n, 0) << strerror(errno);
  records.resize(static_cast<size_t>(std::clamp(n, 0, 64)));
  auto found = std::find_if(records.begin(), records.end(), [&](auto& r) { return r.fd == fd; });
  if (found != records.end()) *out = *found;
  return found != records.end();
}

std::vector<uint64_t> ServerFixture::interfaceTypes(const px_fd_record& record) {
  std::vector<uint64_t> types;
  for (uint32_t i = 0; i < record.entry_count && i < PX_FD_MAX_ENTRIES; ++i) {
    types.push_back(record.entries[i].type);
  }
  return types;
}

std::unique_ptr<RawLink> ServerFixture::bindEntry(const px_node_entry& e) const {
  char channel[17];
  std::snprintf(channel, sizeof channel, "%016" PRIx64, e.channel);
  auto link = std::make_unique<RawLink>(path(std::string("chn/") + channel));
  // A bind frame names the service; it is accepted with a reply of status "done".
  RawReply reply;
  if (!link->connected() || !link->send(frameHeader(PX_FRAME_BIND, 0, e.service)) ||
      link->receive(&reply, 5000) != 1 || reply.code != PX_RESULT_DONE) {
    return nullptr;
  }
  return link;
}

std::unique_ptr<RawLink> ServerFixture::bindService(int fd, uint64_t type) {
  px_fd_record record;
  if (!tableRecord(fd, &record)) {
    ADD_FAILURE() << "no table record for " << fd;
    return nullptr;
  }
  for (uint32_t i = 0; i < record.entry_count && i < PX_FD_MAX_ENTRIES; ++i) {
    if (record.entries[i].type != type) continue;
    std::unique_ptr<RawLink> link = bindEntry(record.entries[i]);
    if (!link) ADD_FAILURE() << "bind to 0x" << std::hex << type << " refused";
    return link;
  }
  ADD_FAILURE() << "fd " << fd << " lists no 0x" << std::hex << type;
  return nullptr;
}
