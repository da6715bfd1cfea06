// The binary service client: memory reads that never fault, and the frame-pointer walker on a
// chain that goes backwards or never ends. (A stack that cannot be walked and frames named by
// module: the forged crash dump tests.)
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <vector>

#include "platform/binary_services.h"
#include "platform/binary.h"

namespace {

using Services::Binary::Client::CoreMemory;
using Services::Binary::Client::StackWalker;
using Context = Definitions::Contexts::X86_64;

uint64_t addressOf(const void* p) { return reinterpret_cast<uint64_t>(p); }

class CoreMemoryTest : public ::testing::TestWithParam<bool> {};

TEST_P(CoreMemoryTest, ReadsMappedBytesAndRefusesUnreadableOnesWithoutFaulting) {
  Ref<CoreMemory> memory = CoreMemory::create(GetParam());
  ASSERT_TRUE(memory);
  std::vector<unsigned char> source(10000);
  for (size_t i = 0; i < source.size(); ++i) source[i] = static_cast<unsigned char>(i * 7);
  std::vector<unsigned char> copy(source.size());
  ASSERT_TRUE(memory->read(addressOf(source.data()), copy.data(), copy.size()));  // several chunks
  EXPECT_EQ(copy, source);

  size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  auto* pages = static_cast<char*>(
      mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(pages, MAP_FAILED);
  std::memset(pages, 0x33, page);
  ASSERT_EQ(mprotect(pages + page, page, PROT_NONE), 0);
  uint64_t value = 0;
  EXPECT_TRUE(memory->read64(addressOf(pages + page - 8), &value));
  EXPECT_EQ(value, 0x3333333333333333ull);
  EXPECT_FALSE(memory->read64(addressOf(pages + page - 4), &value));  // runs into the hole
  EXPECT_FALSE(memory->readable(addressOf(pages + page), 1));
  EXPECT_TRUE(memory->readable(addressOf(pages), page));
  munmap(pages, 2 * page);
  EXPECT_FALSE(memory->readable(addressOf(pages), 1));
  EXPECT_FALSE(memory->read64(0, &value));
  EXPECT_FALSE(memory->read64(UINT64_MAX - 3, &value));  // wraps around
}

INSTANTIATE_TEST_SUITE_P(BothWays, CoreMemoryTest, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "ViaPipe" : "ViaVmRead"; });

std::vector<StackWalker::Frame> walk(const Context& context) {
  std::vector<StackWalker::Frame> frames;
  Ref<StackWalker> walker = StackWalker::create(&context, CoreMemory::create());
  StackWalker::Frame frame;
  while (walker && walker->next(&frame)) frames.push_back(frame);
  return frames;
}

TEST(StackWalker, FollowsTheChainMarksAFramePointerThatGoesBackwardsAndStopsAtTheBound) {
  alignas(16) uint64_t chain[8] = {};
  chain[2] = addressOf(&chain[4]);  // first record: caller's frame higher up
  chain[3] = 0x2222;
  chain[4] = addressOf(&chain[0]);  // second record: points back down, a broken chain
  chain[5] = 0x3333;
  Context context = {};
  context.rip = 0x1111;
  context.rbp = addressOf(&chain[2]);
  const StackWalker::Frame expected[] = {{0x1111, addressOf(&chain[2]), true},
                                         {0x2222, addressOf(&chain[4]), true},
                                         {0x3333, addressOf(&chain[0]), false}};
  std::vector<StackWalker::Frame> frames = walk(context);
  ASSERT_EQ(frames.size(), std::size(expected));
  for (size_t i = 0; i < frames.size(); ++i)
    EXPECT_TRUE(frames[i].ip == expected[i].ip && frames[i].bp == expected[i].bp &&
                frames[i].bpValid == expected[i].bpValid) << i;
  chain[5] = 0;  // a null return address ends the walk without another frame
  EXPECT_EQ(walk(context).size(), 2u);

  std::vector<uint64_t> endless(2 * 400);
  for (size_t i = 0; i + 2 < endless.size(); i += 2) {
    endless[i] = addressOf(&endless[i + 2]);
    endless[i + 1] = 0x1000 + i;
  }
  context.rbp = addressOf(endless.data());
  EXPECT_EQ(walk(context).size(), StackWalker::kMaxFrames);
}

}  // namespace
