// Decoding of node records and of the serialised descriptor table (little-endian throughout),
// and fetching the table, which the server hands out in as many replies as it needs.
#include <posix/wire_tables.h>

#include "descriptors.h"

namespace pxc {

namespace {

// More entries than any node of this system lists: a count beyond it is taken as garbage.
constexpr uint32_t kMaxEntries = 64;

bool take(const std::vector<uint8_t>& data, size_t* at, size_t width, uint64_t* out) {
  if (data.size() < width || *at > data.size() - width) return false;
  uint64_t v = 0;
  for (size_t i = 0; i < width; ++i) v |= static_cast<uint64_t>(data[*at + i]) << (8 * i);
  *at += width;
  *out = v;
  return true;
}

}  // namespace

const px_node_entry* NodeRecord::find(uint64_t type) const {
  for (const px_node_entry& e : entries) {
    if (e.type == type) return &e;
  }
  return nullptr;
}

bool takeI32(const std::vector<uint8_t>& data, size_t* at, int32_t* out) {
  uint64_t v = 0;
  if (!take(data, at, 4, &v)) return false;
  *out = static_cast<int32_t>(static_cast<uint32_t>(v));
  return true;
}

bool parseNode(const std::vector<uint8_t>& data, size_t* at, NodeRecord* out) {
  uint64_t count = 0;
  size_t pos = *at;
  if (!take(data, &pos, PX_NODE_COUNT_SIZE, &count) || count > kMaxEntries) return false;
  out->entries.clear();
  for (uint64_t i = 0; i < count; ++i) {
    px_node_entry e;
    if (!take(data, &pos, 8, &e.type) || !take(data, &pos, 8, &e.channel) ||
        !take(data, &pos, 8, &e.service) || !take(data, &pos, 8, &e.reserved0) ||
        !take(data, &pos, 8, &e.access) || !take(data, &pos, 8, &e.reserved1)) {
      return false;
    }
    out->entries.push_back(e);
  }
  *at = pos;
  return true;
}

namespace {

enum class Page { Bad, More, End };

// Appends the records of one reply to `out`; on More, `*next` is the number to ask for next.
Page parsePage(const std::vector<uint8_t>& data, std::vector<TableRecord>* out, uint64_t* next) {
  size_t at = 0;
  for (;;) {
    TableRecord rec;
    if (!takeI32(data, &at, &rec.type)) return Page::Bad;
    if (rec.type == PX_FD_TABLE_END) return at == data.size() ? Page::End : Page::Bad;
    if (!take(data, &at, 8, &rec.fd)) return Page::Bad;
    if (rec.type == PX_FD_TABLE_MORE) {
      *next = rec.fd;
      return at == data.size() ? Page::More : Page::Bad;
    }
    if (!parseNode(data, &at, &rec.node)) return Page::Bad;
    out->push_back(std::move(rec));
  }
}

}  // namespace

int fetchTable(const std::function<int(FrameWriter&, Reply*)>& call, std::vector<TableRecord>* out) {
  out->clear();
  uint64_t first = 0;
  for (;;) {
    FrameWriter req(PX_FD_CMD_GET_TABLE);
    px::putRequest<PX_FD_CMD_GET_TABLE>(req, first);
    Reply reply;
    int err = call(req, &reply);
    if (err != 0) return err;
    size_t before = out->size();
    uint64_t next = 0;
    Page page = parsePage(reply.data, out, &next);
    if (page == Page::End) return 0;
    // Each continued reply must hold records and go on past the last of them; anything else
    // would never end.
    if (page == Page::Bad || out->size() == before || next <= out->back().fd) return EPROTO;
    first = next;
  }
}

}  // namespace pxc
