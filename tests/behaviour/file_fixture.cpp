// The file tests' fixture.
#include "file_fixture.h"

#include <errno.h>
#include <inttypes.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>

#include "posix/wire.h"

std::string FileFixture::hostFile(const std::string& name, const std::string& bytes) {
  std::string p = path(name);
  std::ofstream(p, std::ios::binary | std::ios::trunc) << bytes;
  return p;
}

std::string FileFixture::hostRead(const std::string& p) {
  std::ifstream in(p, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

bool FileFixture::tableRecord(int fd, px_fd_record* out) {
  std::vector<px_fd_record> records(64);
  int n = px_fd_table(records.data(), static_cast<int>(records.size()));
  EXPECT_GE(n, 0) << strerror(errno);
  for (int i = 0; i < n && i < static_cast<int>(records.size()); ++i) {
    if (records[static_cast<size_t>(i)].fd == fd) {
      *out = records[static_cast<size_t>(i)];
      return true;
    }
  }
  return false;
}

std::vector<uint64_t> FileFixture::interfaceTypes(const px_fd_record& record) {
  std::vector<uint64_t> types;
  for (uint32_t i = 0; i < record.entry_count && i < PX_FD_MAX_ENTRIES; ++i) {
    types.push_back(record.entries[i].type);
  }
  return types;
}

std::unique_ptr<RawLink> FileFixture::bindService(int fd, uint64_t type) {
  px_fd_record record;
  if (!tableRecord(fd, &record)) {
    ADD_FAILURE() << "no table record for " << fd;
    return nullptr;
  }
  for (uint32_t i = 0; i < record.entry_count && i < PX_FD_MAX_ENTRIES; ++i) {
    const px_node_entry& e = record.entries[i];
    if (e.type != type) continue;
    char channel[17];
    std::snprintf(channel, sizeof channel, "%016" PRIx64, e.channel);
    auto link = std::make_unique<RawLink>(path(std::string("chn/") + channel));
    // The bind: kind 3, code 0, id = the service; accepted with a reply of status 1.
    std::vector<uint8_t> bind;
    putU32(bind, PX_FRAME_BIND);
    putU32(bind, 0);
    putU64(bind, e.service);
    putU32(bind, 0);
    putU32(bind, 0);
    RawReply reply;
    if (!link->connected() || !link->send(bind) || link->receive(&reply, 5000) != 1 ||
        reply.code != PX_RESULT_DONE) {
      ADD_FAILURE() << "bind to 0x" << std::hex << type << " refused";
      return nullptr;
    }
    return link;
  }
  ADD_FAILURE() << "fd " << fd << " lists no 0x" << std::hex << type;
  return nullptr;
}

std::string readN(int fd, size_t n) {
  std::string data;
  char buf[8192];
  while (data.size() < n) {
    ssize_t got = px_read(fd, buf, std::min(sizeof buf, n - data.size()));
    EXPECT_GE(got, 0) << strerror(errno);
    if (got <= 0) break;
    data.append(buf, static_cast<size_t>(got));
  }
  return data;
}
