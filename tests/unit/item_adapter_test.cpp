// The adapter services over a real opened file: requests that are too short or whose reply does
// not fit, the host's refusal passed on as a value, their shared command numbering, the stream
// adapter's placeholder answer, and missing arguments.
#include <gtest/gtest.h>

#include <posix/fs_item.h>
#include <posix/wire.h>

#include "adapters/c_stream_service.h"
#include "adapters/posix_resizable_service.h"
#include "adapters/posix_seekable_service.h"
#include "item_support.h"

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

class ItemAdapterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    item = openItem(tmp.file("data", "0123456789"), O_RDWR);
    ASSERT_TRUE(item);
    seek = PosixSeekableService::create(item->seekable());
    resize = PosixResizableService::create(item->resizable());
    ASSERT_TRUE(seek && resize);
  }
  TempDir tmp;
  Ref<LocalFileDescriptionFSItem> item;
  Ref<PosixSeekableService> seek;
  Ref<PosixResizableService> resize;
};

TEST_F(ItemAdapterTest, RefusalsAreValuesShortRequestsChangeNothingAndUnfitAnswersAreNotSent) {
  EXPECT_EQ(valueOf(ask(*seek, PX_SEEK_CMD_SEEK, u64Bytes(7))), 7u);
  // The host's refusal is the value, not the answer.
  Answer a = ask(*seek, PX_SEEK_CMD_SEEK, u64Bytes(uint64_t{1} << 63));
  EXPECT_EQ(a.ret, PX_ITEM_RESULT_OK);
  EXPECT_EQ(valueOf(a), PX_ITEM_FAILED);
  EXPECT_EQ(valueOf(ask(*resize, PX_RESIZE_CMD_RESIZE, u64Bytes(PX_ITEM_FAILED))), PX_ITEM_FAILED);

  for (const Answer& cut : {ask(*seek, PX_SEEK_CMD_SEEK, Bytes(7)), ask(*resize, PX_RESIZE_CMD_RESIZE, Bytes(3))}) {
    EXPECT_EQ(cut.ret, PX_ITEM_RESULT_SHORT);
    EXPECT_TRUE(cut.data.empty());
  }
  EXPECT_EQ(item->position(), 7u) << "neither a refusal nor a short request moved it";
  EXPECT_EQ(item->size(), 10u);

  EXPECT_EQ(ask(*seek, PX_SEEK_CMD_POSITION, {}, fullReply()).ret, PX_ITEM_RESULT_NO_REPLY);
  EXPECT_EQ(ask(*resize, PX_RESIZE_CMD_SIZE, {}, fullReply()).ret, PX_ITEM_RESULT_NO_REPLY);
  EXPECT_EQ(ask(*seek, PX_SEEK_CMD_SEEK, u64Bytes(3), fullReply()).ret, PX_ITEM_RESULT_OK);
  EXPECT_EQ(item->position(), 3u) << "the seek happened although its answer did not fit";
}

TEST_F(ItemAdapterTest, EachServiceRefusesTheOthersCommandsAndTheStreamAdapterServesNothing) {
  Ref<CStreamService> stream = CStreamService::create(item->stream());
  ASSERT_TRUE(stream);
  testing::internal::CaptureStderr();  // each refusal is logged
  std::vector<Answer> refused;
  for (uint32_t code : {2u, 3u, 9u}) refused.push_back(ask(*seek, code, u64Bytes(1)));
  for (uint32_t code : {0u, 1u}) refused.push_back(ask(*resize, code, u64Bytes(1)));
  for (uint32_t code : {0u, 1u, 2u, 3u}) refused.push_back(ask(*stream, code, u64Bytes(5)));
  testing::internal::GetCapturedStderr();
  for (const Answer& a : refused) {
    EXPECT_EQ(a.ret, 0u);
    EXPECT_TRUE(a.data.empty());
  }
  EXPECT_EQ(item->position(), 0u);
  EXPECT_EQ(item->size(), 10u);
}

TEST_F(ItemAdapterTest, MissingArgumentsAreRefusedWithoutFaults) {
  testing::internal::CaptureStderr();  // each is a logged assertion
  EXPECT_FALSE(CStreamService::create(nullptr));
  EXPECT_FALSE(PosixResizableService::create(nullptr));
  uint32_t ret = 77;
  EXPECT_TRUE(seek->handle(nullptr, OutMsg::create(), &ret, 0, nullptr));
  EXPECT_EQ(ret, 77u) << "nothing is served without a request";
  EXPECT_TRUE(resize->handle(inMessage(2), OutMsg::create(), nullptr, 0, nullptr));
  testing::internal::GetCapturedStderr();
}

}  // namespace
