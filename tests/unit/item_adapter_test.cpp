// The adapter services over a real opened file: the values the seekable and resizable services
// pass through, requests that are too short or whose reply does not fit, their shared command
// numbering, the stream adapter's placeholder answer, and the exact log lines they write.
#include <gtest/gtest.h>

#include <posix/fs_item.h>
#include <posix/wire.h>

#include "adapters/c_stream_service.h"
#include "adapters/posix_resizable_service.h"
#include "adapters/posix_seekable_service.h"
#include "item_support.h"
#include "platform/log.h"

using namespace itemtest;

namespace {

// The 64-bit value of a reply, or 0xBAD when it holds anything else.
uint64_t valueOf(const Answer& a) { return a.data.size() == 8 ? chntest::getU64(a.data.data()) : 0xBAD; }

// A reply with room for less than one more 64-bit value.
Ref<OutMsg> fullReply() {
  Ref<OutMsg> out = OutMsg::create();
  Bytes filler(PX_WIRE_MAX_FRAME - PX_FRAME_HEADER_SIZE - 4);
  out->write(filler.data(), filler.size());
  return out;
}

void expectLogged(const std::string& log, std::initializer_list<const char*> lines) {
  for (const char* line : lines) EXPECT_NE(log.find(line), std::string::npos) << line << " in\n" << log;
}

class ItemAdapterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    path = tmp.file("data", "0123456789");
    item = openItem(path, O_RDWR);
    ASSERT_TRUE(item);
    seek = PosixSeekableService::create(item->seekable());
    resize = PosixResizableService::create(item->resizable());
    ASSERT_TRUE(seek && resize);
  }
  TempDir tmp;
  std::string path;
  Ref<LocalFileDescriptionFSItem> item;
  Ref<PosixSeekableService> seek;
  Ref<PosixResizableService> resize;
};

TEST_F(ItemAdapterTest, ValuesPassThroughAndShortRequestsChangeNothing) {
  EXPECT_EQ(valueOf(ask(*seek, PX_SEEK_CMD_SEEK, u64Bytes(7))), 7u);
  Answer a = ask(*seek, PX_SEEK_CMD_POSITION);
  EXPECT_EQ(a.ret, PX_ITEM_RESULT_OK);
  EXPECT_EQ(valueOf(a), 7u);
  a = ask(*resize, PX_RESIZE_CMD_RESIZE, u64Bytes(4));
  EXPECT_EQ(a.ret, PX_ITEM_RESULT_OK);
  EXPECT_EQ(valueOf(a), 4u);
  EXPECT_EQ(contentOf(path), "0123");
  EXPECT_EQ(valueOf(ask(*resize, PX_RESIZE_CMD_SIZE)), 4u);
  // The host's refusal is the value, not the answer.
  a = ask(*seek, PX_SEEK_CMD_SEEK, u64Bytes(uint64_t{1} << 63));
  EXPECT_EQ(a.ret, PX_ITEM_RESULT_OK);
  EXPECT_EQ(valueOf(a), PX_ITEM_FAILED);
  EXPECT_EQ(valueOf(ask(*resize, PX_RESIZE_CMD_RESIZE, u64Bytes(PX_ITEM_FAILED))), PX_ITEM_FAILED);

  for (const Answer& cut : {ask(*seek, PX_SEEK_CMD_SEEK, Bytes(7)), ask(*resize, PX_RESIZE_CMD_RESIZE, Bytes(3))}) {
    EXPECT_EQ(cut.ret, PX_ITEM_RESULT_SHORT);
    EXPECT_TRUE(cut.data.empty());
  }
  EXPECT_EQ(item->position(), 7u) << "neither a short request nor a resize moved it";
  EXPECT_EQ(item->size(), 4u);

  EXPECT_EQ(ask(*seek, PX_SEEK_CMD_POSITION, {}, fullReply()).ret, PX_ITEM_RESULT_NO_REPLY);
  EXPECT_EQ(ask(*resize, PX_RESIZE_CMD_SIZE, {}, fullReply()).ret, PX_ITEM_RESULT_NO_REPLY);
  EXPECT_EQ(ask(*seek, PX_SEEK_CMD_SEEK, u64Bytes(3), fullReply()).ret, PX_ITEM_RESULT_OK);
  EXPECT_EQ(item->position(), 3u) << "the seek happened although its answer did not fit";
}

TEST_F(ItemAdapterTest, EachServiceRefusesTheOthersCommandsAndSaysSo) {
  Ref<CStreamService> stream = CStreamService::create(item->stream());
  ASSERT_TRUE(stream);
  testing::internal::CaptureStderr();
  std::vector<Answer> refused;
  for (uint32_t code : {2u, 3u, 9u}) refused.push_back(ask(*seek, code, u64Bytes(1)));
  for (uint32_t code : {0u, 1u}) refused.push_back(ask(*resize, code, u64Bytes(1)));
  // The stream adapter answers everything with 0 and leaves the item alone.
  for (uint32_t code : {0u, 1u, 2u, 3u}) refused.push_back(ask(*stream, code, u64Bytes(5)));
  std::string log = testing::internal::GetCapturedStderr();
  for (const Answer& a : refused) {
    EXPECT_EQ(a.ret, 0u);
    EXPECT_TRUE(a.data.empty());
  }
  EXPECT_EQ(item->position(), 0u);
  EXPECT_EQ(item->size(), 10u);
  if (SysLogFilter::level() <= 1)
    expectLogged(log, {"PosixSeekableServiceObj::handle : Invalid command 2",
                       "PosixSeekableServiceObj::handle : Invalid command 9",
                       "PosixResizableServiceObj::handle : Invalid command 1"});
}

TEST_F(ItemAdapterTest, MissingArgumentsAreLoggedAssertionsNotFaults) {
  testing::internal::CaptureStderr();
  EXPECT_FALSE(CStreamService::create(nullptr));
  EXPECT_FALSE(PosixResizableService::create(nullptr));
  uint32_t ret = 77;
  EXPECT_TRUE(seek->handle(nullptr, OutMsg::create(), &ret, 0, nullptr));
  EXPECT_EQ(ret, 77u) << "nothing is served without a request";
  EXPECT_TRUE(resize->handle(inMessage(2), OutMsg::create(), nullptr, 0, nullptr));
  std::string log = testing::internal::GetCapturedStderr();
  if (SysLogFilter::level() > 4) GTEST_SKIP() << "assertions are not logged at this level";
  expectLogged(log, {
      "ASSERT CONDITION strm != 0 FAILED IN LINE 17h (23), FUNCTION CStreamService::create",
      "ASSERT CONDITION resize != 0 FAILED IN LINE 17h (23), FUNCTION PosixResizableService::create",
      "ASSERT CONDITION in != 0 FAILED IN LINE 26h (38), FUNCTION PosixSeekableServiceObj::handle",
      "ASSERT CONDITION ret != 0 FAILED IN LINE 28h (40), FUNCTION PosixResizableServiceObj::handle"});
}

}  // namespace
