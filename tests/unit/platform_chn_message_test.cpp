// The frame format as InMsg decodes it and OutMsg encodes it, checked against frames built
// byte by byte.
#include <gtest/gtest.h>

#include "platform/message.h"
#include "platform_chn_support.h"
#include "posix/wire.h"

using namespace chntest;

namespace {

Ref<InMsg> decode(const Bytes& raw) { return InMsg::decode(raw.data(), raw.size(), nullptr); }

TEST(ChnMessage, DecodesHeaderDataAndBlocks) {
  Frame f = request(0xA1B2C3D4u, 0x1122334455667788ull, {1, 2, 3, 4, 5},
                    {{7, {9, 8}}, {0xFFFFFFFFu, {}}, {3, Bytes(300, 0x5A)}});
  Ref<InMsg> msg = decode(encode(f));
  ASSERT_TRUE(msg);
  EXPECT_EQ(msg->kind(), 1u);
  EXPECT_EQ(msg->code(), 0xA1B2C3D4u);
  EXPECT_EQ(msg->id(), 0x1122334455667788ull);
  ASSERT_EQ(msg->blockCount(), 3u);
  for (uint32_t i = 0; i < 3; ++i) {
    InMsg::Block b = msg->block(i);
    EXPECT_EQ((Block{b.kind, Bytes(b.data, b.data + b.length)}), f.blocks[i]) << i;
  }
  EXPECT_EQ(msg->block(3).data, nullptr);

  // The stream moves what is left and tells a short read by its count.
  uint8_t buf[8] = {};
  EXPECT_EQ(msg->read(buf, 2), 2u);
  EXPECT_EQ(msg->remaining(), 3u);
  EXPECT_EQ(msg->read(buf + 2, 8), 3u);
  EXPECT_EQ(Bytes(buf, buf + 5), (Bytes{1, 2, 3, 4, 5}));
  EXPECT_EQ(msg->read(buf, 8), 0u);
}

TEST(ChnMessage, RejectsFramesThatDoNotParseExactly) {
  Bytes good = encode(request(1, 1, {1, 2, 3}, {{5, {1, 2}}}));
  ASSERT_TRUE(decode(good));

  auto edited = [](Bytes raw, size_t at, uint8_t value) {
    if (at == raw.size()) raw.push_back(value); else raw[at] = value;
    return raw;
  };
  Bytes noBlocks = encode(request(1, 1)), oneBlock = encode(request(1, 1, {}, {{1, {}}}));
  std::pair<const char*, Bytes> bad[] = {
      {"shorter than a header", Bytes(good.begin(), good.begin() + 23)},
      {"trailing byte", edited(good, good.size(), 0)},
      {"cut inside a block", Bytes(good.begin(), good.end() - 1)},
      {"data length past the end", edited(good, 16, 200)},
      {"block length past the end", edited(good, 24 + 3 + 4, 3)},  // 2 bytes follow
      {"block count that cannot fit", edited(edited(noBlocks, 23, 0xFF), 22, 0xFF)},
      {"block header missing", edited(oneBlock, 20, 2)},
      {"larger than a frame", encode(request(1, 1, Bytes(PX_WIRE_MAX_FRAME - 24 + 1, 0)))},
  };
  for (auto& [why, raw] : bad) EXPECT_FALSE(decode(raw)) << why;
}

TEST(ChnMessage, OutMsgEncodesTheWireLayout) {
  Ref<OutMsg> out = OutMsg::create();
  out->setCode(0x01020304);
  const uint8_t data[] = {0xAA, 0xBB, 0xCC};
  EXPECT_EQ(out->write(data, 3), 3u);
  EXPECT_TRUE(out->addBlock(0x0A0B0C0D, "xy", 2));
  Bytes raw = out->encode(PX_FRAME_REPLY, 0x0807060504030201ull);

  Bytes expected = {2, 0, 0, 0, 4, 3, 2, 1, 1, 2, 3, 4, 5, 6, 7, 8, 3, 0, 0, 0, 1, 0, 0, 0,
                    0xAA, 0xBB, 0xCC, 0x0D, 0x0C, 0x0B, 0x0A, 2, 0, 0, 0, 'x', 'y'};
  EXPECT_EQ(raw, expected);
  EXPECT_EQ(out->frameSize(), expected.size());
}

TEST(ChnMessage, OutMsgStopsAtTheLargestFrame) {
  Ref<OutMsg> out = OutMsg::create();
  Bytes chunk(PX_WIRE_MAX_FRAME - 24 - 10, 1);
  ASSERT_EQ(out->write(chunk.data(), chunk.size()), chunk.size());
  // 10 bytes left: a larger write writes nothing at all; one that fits exactly still goes in.
  EXPECT_EQ(out->write(chunk.data(), 11), 0u);
  EXPECT_FALSE(out->addBlock(1, chunk.data(), 3));  // 8 + 3 > 10
  EXPECT_TRUE(out->addBlock(1, chunk.data(), 2));
  EXPECT_EQ(out->frameSize(), PX_WIRE_MAX_FRAME);
  EXPECT_EQ(out->write(chunk.data(), 1), 0u);
  EXPECT_FALSE(out->addBlock(1, nullptr, 0));

  // What was accepted survives a round trip through the decoder unchanged.
  Bytes raw = out->encode(PX_FRAME_REQUEST, 5);
  ASSERT_EQ(raw.size(), PX_WIRE_MAX_FRAME);
  Ref<InMsg> back = decode(raw);
  ASSERT_TRUE(back);
  EXPECT_EQ(back->remaining(), chunk.size());
  ASSERT_EQ(back->blockCount(), 1u);
  EXPECT_EQ(back->block(0).length, 2u);
}

}  // namespace
