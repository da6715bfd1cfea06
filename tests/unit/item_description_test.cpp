// Descriptions of opened items and sockets: how their nodes number their services on the
// description's own channel and which access each entry grants.
#include <gtest/gtest.h>

#include <posix/nodes.h>

#include "fd/file_description_server_fs_item.h"
#include "fd/file_description_server_socket.h"
#include "item_support.h"

using namespace itemtest;

namespace {

TEST(ItemDescription, ServicesAreNumberedOnTheOwnChannelAndOnlyTheStreamIsReadOrWritten) {
  TempDir tmp;  // also the runtime directory of the descriptions' channels
  Ref<FileDescriptionServerFSItem> item =
      FileDescriptionServerFSItem::create(openItem(tmp.file("data", "x"), O_WRONLY));
  ASSERT_TRUE(item);
  std::vector<NodeEntry> entries = item->node()->entries();
  ASSERT_EQ(entries.size(), 5u) << "stream, adapter, seekable, resizable, item";
  for (size_t i = 0; i < entries.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(entries[i].channel, item->multiplex()->channelId());
    EXPECT_EQ(entries[i].service, i + 1);
    EXPECT_EQ(entries[i].access, i == 0 ? uint64_t{PX_ACCESS_READ | PX_ACCESS_WRITE} : PX_ACCESS_SERVICE);
  }
  EXPECT_FALSE(FileDescriptionServerFSItem::create(nullptr));

  Ref<FileDescriptionServerSocket> socket = FileDescriptionServerSocket::create();
  ASSERT_TRUE(socket);
  entries = socket->node()->entries();
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].channel, socket->multiplex()->channelId());
  EXPECT_EQ(entries[0].access, PX_ACCESS_SERVICE);
}

}  // namespace
