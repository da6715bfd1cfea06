// Descriptions of opened items and sockets: the services their nodes list and in which order,
// bytes and the offset through real links to an item's services, the item service's answer
// while the description lives and after, and the descriptor service's open and socket
// requests with the socket's stub service.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <posix/fd_service.h>
#include <posix/fs_item.h>
#include <posix/nodes.h>

#include "fd/fd_table.h"
#include "fd/file_description_server_fs_item.h"
#include "fd/posix_fd_service.h"
#include "fd/posix_fs_item_service.h"
#include "item_support.h"

using namespace itemtest;
using namespace chntest;

namespace {

std::vector<uint64_t> typesOf(const Ref<DeviceNode>& node) {
  std::vector<uint64_t> types;
  for (const NodeEntry& e : node->entries()) types.push_back(e.type);
  return types;
}

// A client bound to the first entry of `node` with interface type `type`.
std::unique_ptr<Client> bindTo(const Ref<DeviceNode>& node, uint64_t type) {
  for (const NodeEntry& e : node->entries()) {
    if (e.type != type) continue;
    auto client = std::make_unique<Client>(chnPath(e.channel));
    Frame reply;
    EXPECT_TRUE(client->send(Frame{PX_FRAME_BIND, 0, e.service, {}, {}}) && client->recvFrame(&reply) &&
                reply.code == 1);
    return client;
  }
  ADD_FAILURE() << "no entry of type " << type;
  return std::make_unique<Client>("");
}

Frame call(Client& c, uint32_t code, const Bytes& data = {}) {
  Frame reply;
  EXPECT_TRUE(c.send(request(code, 5, data)) && c.recvFrame(&reply));
  return reply;
}

Bytes withNode(int32_t fd, const FileDescriptor* entry) {
  Bytes out;
  putU32(out, static_cast<uint32_t>(fd));
  Bytes node = entry->server->node()->record();
  out.insert(out.end(), node.begin(), node.end());
  return out;
}

class ItemDescriptionTest : public ::testing::Test {
 protected:
  TempDir tmp;  // also the runtime directory of the descriptions' channels
};

TEST_F(ItemDescriptionTest, TheNodeListsOnlyTheServicesTheItemOffersInTheirFixedOrder) {
  std::string path = tmp.file("data", "x");
  ASSERT_EQ(::mkfifo(tmp.path("fifo").c_str(), 0600), 0);
  struct Case {
    std::string path;
    uint32_t flags;
    std::vector<uint64_t> types;
  } cases[] = {
      {tmp.path("fifo"), O_RDWR, {PX_IFACE_STREAM, PX_IFACE_STREAM_ADAPTER, PX_IFACE_FS_ITEM}},
      {path, O_RDONLY, {PX_IFACE_STREAM, PX_IFACE_STREAM_ADAPTER, PX_IFACE_SEEKABLE, PX_IFACE_FS_ITEM}},
      {path, O_WRONLY,
       {PX_IFACE_STREAM, PX_IFACE_STREAM_ADAPTER, PX_IFACE_SEEKABLE, PX_IFACE_RESIZABLE, PX_IFACE_FS_ITEM}},
  };
  for (const Case& c : cases) {
    Ref<FileDescriptionServerFSItem> server = FileDescriptionServerFSItem::create(openItem(c.path, c.flags));
    ASSERT_TRUE(server);
    EXPECT_EQ(typesOf(server->node()), c.types) << c.path << " flags " << c.flags;
    std::vector<NodeEntry> entries = server->node()->entries();
    for (size_t i = 0; i < entries.size(); ++i) {
      EXPECT_EQ(entries[i].channel, server->multiplex()->channelId());
      EXPECT_EQ(entries[i].service, i + 1);
      EXPECT_EQ(entries[i].access, i == 0 ? uint64_t{PX_ACCESS_READ | PX_ACCESS_WRITE} : PX_ACCESS_SERVICE);
    }
  }
  EXPECT_FALSE(FileDescriptionServerFSItem::create(nullptr));
}

TEST_F(ItemDescriptionTest, ClientsOfOneDescriptionShareItsOffsetAndGetWholeReads) {
  std::string content(100000, '\0');
  for (size_t i = 0; i < content.size(); ++i) content[i] = static_cast<char>(i * 7 % 251);
  Ref<FileDescriptionServerFSItem> server =
      FileDescriptionServerFSItem::create(openItem(tmp.file("big", content), O_RDWR));
  ASSERT_TRUE(server);
  auto reader = bindTo(server->node(), PX_IFACE_STREAM);
  auto other = bindTo(server->node(), PX_IFACE_STREAM);
  auto seek = bindTo(server->node(), PX_IFACE_SEEKABLE);
  Bytes read;
  putU64(read, 1 << 20);
  putU32(read, PX_WAIT_FOREVER);
  Frame f = call(*reader, PX_STREAM_READ, read);
  EXPECT_EQ(f.code, 1u);
  EXPECT_EQ(std::string(f.data.begin(), f.data.end()), content.substr(0, PX_STREAM_MAX_READ));
  f = call(*other, PX_STREAM_READ, read);
  EXPECT_EQ(std::string(f.data.begin(), f.data.end()), content.substr(PX_STREAM_MAX_READ))
      << "the second client reads on where the first stopped";
  EXPECT_TRUE(call(*reader, PX_STREAM_READ, read).data.empty()) << "end of file";

  EXPECT_EQ(call(*seek, PX_SEEK_CMD_SEEK, u64Bytes(10)).code, PX_ITEM_RESULT_OK);
  Bytes write{0, 0, 0, 0, 'h', 'i'};
  EXPECT_EQ(call(*other, PX_STREAM_WRITE, write).data, u64Bytes(2));
  EXPECT_EQ(contentOf(tmp.path("big")).substr(10, 2), "hi");
  EXPECT_EQ(call(*seek, PX_SEEK_CMD_POSITION).data, u64Bytes(12));
}

TEST_F(ItemDescriptionTest, TheItemServiceDescribesTheItemOnlyWhileTheDescriptionLives) {
  std::string path = tmp.file("data", "x");
  Ref<FileDescriptionServerFSItem> server = FileDescriptionServerFSItem::create(openItem(path, O_RDONLY | O_NOFOLLOW));
  ASSERT_TRUE(server);
  Ref<PosixFSItemService> service = PosixFSItemService::create(server.get());
  Answer a = ask(*service, PX_ITEM_CMD_DESCRIBE);
  EXPECT_EQ(a.ret, PX_ITEM_RESULT_OK);
  Bytes expected;
  putU32(expected, static_cast<uint32_t>(path.size()));
  expected.insert(expected.end(), path.begin(), path.end());
  putU32(expected, 1);
  putU32(expected, O_RDONLY | O_NOFOLLOW);
  EXPECT_EQ(a.data, expected);
  a = ask(*service, PX_SEEK_CMD_SEEK, u64Bytes(0));
  EXPECT_EQ(a.ret, 0u);
  EXPECT_TRUE(a.data.empty());
  // Holding the service does not hold the description: once its last holder lets go, the
  // service answers 0 and writes nothing.
  server.reset();
  a = ask(*service, PX_ITEM_CMD_DESCRIBE);
  EXPECT_EQ(a.ret, 0u);
  EXPECT_TRUE(a.data.empty());
}

TEST_F(ItemDescriptionTest, TheDescriptorServiceOpensItemsAndMakesSockets) {
  FDTable table;
  std::string path = tmp.file("data", "abc");
  auto open = [&](const std::string& p, uint32_t flags, const Ref<OutMsg>& reply) {
    Bytes data;
    putU32(data, static_cast<uint32_t>(p.size()));
    data.insert(data.end(), p.begin(), p.end());
    putU32(data, flags);
    putU32(data, 0600);
    return PosixFDService::handle(inMessage(PX_FD_CMD_OPEN, data), reply, table);
  };
  Ref<OutMsg> reply = OutMsg::create();
  EXPECT_EQ(open(tmp.path("none"), O_RDONLY, reply), PX_FD_RESULT_OPEN_FAILED);
  EXPECT_EQ(reply->data(), (Bytes{ENOENT, 0, 0, 0}));
  EXPECT_EQ(table.entry(3), nullptr) << "no number is taken for a refused open";

  reply = OutMsg::create();
  ASSERT_EQ(open(path, O_RDWR, reply), 1u);
  const FileDescriptor* item = table.entry(3);
  ASSERT_TRUE(item && item->server);
  EXPECT_EQ(item->server->type(), 1);
  EXPECT_EQ(reply->data(), withNode(3, item));

  reply = OutMsg::create();
  ASSERT_EQ(PosixFDService::handle(inMessage(PX_FD_CMD_CREATE_SOCKET), reply, table), 1u);
  const FileDescriptor* socket = table.entry(4);
  ASSERT_TRUE(socket && socket->server);
  EXPECT_EQ(socket->server->type(), 6);
  EXPECT_EQ(reply->data(), withNode(4, socket));
  ASSERT_EQ(typesOf(socket->server->node()), std::vector<uint64_t>{PX_IFACE_SOCKET});
  EXPECT_EQ(socket->server->node()->entries()[0].access, PX_ACCESS_SERVICE);
  auto client = bindTo(socket->server->node(), PX_IFACE_SOCKET);
  for (uint32_t code : {0u, 4u, 8u, 0xFFFFFFFFu}) {
    Frame f = call(*client, code, u64Bytes(3));
    EXPECT_EQ(f.code, 0u) << code;
    EXPECT_TRUE(f.data.empty());
  }
}

}  // namespace
