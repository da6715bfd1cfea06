// FIFO ends and their status service where only a unit test reaches: time-outs of the monitor
// and of the first byte, a read of nothing, and what the status service answers while its end
// lives and after it has gone. (Bytes, end-of-file, broken pipes and full buffers: the pipe
// behaviour tests.)
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <string>
#include <thread>

#include "fifo/posix_fifo.h"
#include "fifo/posix_fifo_svc.h"
#include "item_support.h"
#include "platform_chn_support.h"
#include "posix/wire.h"

using namespace chntest;
using Clock = std::chrono::steady_clock;
using Interfaces::MemDesc;

namespace {

struct Pipe {
  Ref<PosixFifoRead> read = PosixFifoRead::create();
  Ref<PosixFifoWrite> write = PosixFifoWrite::create();
  Ref<Fifo> fifo = new Fifo(PosixFifoBase::kFifoCapacity);
  Pipe() {
    read->setFifo(fifo);
    write->setFifo(fifo);
  }
  uint64_t put(const std::string& text, uint32_t timeoutMs = 0) {
    return write->write(MemDesc::direct(text.data(), text.size()), text.size(), timeoutMs);
  }
  std::string get(uint64_t size, uint32_t timeoutMs = 0) {
    std::string out(size, '\0');
    out.resize(read->read(MemDesc::direct(out.data(), size), size, timeoutMs));
    return out;
  }
};

// How long `step` took, in milliseconds.
template <class Step>
int64_t msTaken(Step step) {
  auto start = Clock::now();
  step();
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

// The status the service answers to `code`; the answer is the status alone.
uint32_t ask(const Ref<PosixFifoSvc>& svc, uint32_t code) {
  itemtest::Answer a = itemtest::ask(*svc, code);
  EXPECT_TRUE(a.data.empty());
  return a.ret;
}

TEST(FifoEnds, ReadsTimeOutOnTheFirstByteAndOnTheMonitor) {
  Pipe pipe;
  EXPECT_GE(msTaken([&] { EXPECT_EQ(pipe.get(10, 60), ""); }), 50);
  EXPECT_EQ(pipe.read->status(), PosixFifoBase::kStatusTimedOut);

  // A first reader holds the monitor while it waits; a second one gives up after its own time.
  std::string first;
  std::thread reader([&] { first = pipe.get(10, 5000); });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_GE(msTaken([&] { EXPECT_EQ(pipe.get(10, 60), ""); }), 50);
  EXPECT_EQ(pipe.read->status(), PosixFifoBase::kStatusTimedOut);
  pipe.put("late");
  reader.join();
  EXPECT_EQ(first, "late");
}

TEST(FifoEnds, AReadOfNothingStillWaitsForAByte) {
  Pipe pipe;
  std::atomic<bool> done{false};
  std::thread reader([&] {
    char byte;
    EXPECT_EQ(pipe.read->read(MemDesc::direct(&byte, 0), 0, 5000), 0u);
    done = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(80));
  EXPECT_FALSE(done.load());
  pipe.put("x");
  reader.join();
  EXPECT_EQ(pipe.read->status(), PosixFifoBase::kStatusOk);
  EXPECT_EQ(pipe.fifo->size(), 1u);
}

TEST(FifoStatusService, AnswersForItsEndWhileItLivesAndThreeOnceItHasGone) {
  Pipe pipe;
  Ref<PosixFifoSvc> readSvc = PosixFifoSvc::create(pipe.read);
  Ref<PosixFifoSvc> writeSvc = PosixFifoSvc::create(pipe.write);
  ASSERT_TRUE(readSvc && writeSvc);
  EXPECT_FALSE(PosixFifoSvc::create(nullptr));
  EXPECT_EQ(pipe.write->strongCount(), 1u) << "the service never keeps its end alive";
  EXPECT_EQ(ask(readSvc, 0), 1u) << "a fresh pipe may still give data";
  pipe.get(1, 10);
  EXPECT_EQ(ask(readSvc, 1), PosixFifoBase::kStatusTimedOut);
  pipe.write->read(MemDesc::direct(nullptr, 0), 0, 0);
  EXPECT_EQ(ask(writeSvc, 1), PosixFifoBase::kStatusNotReadable) << "each end its own status";

  pipe.write.reset();
  EXPECT_EQ(ask(readSvc, 0), 0u) << "end-of-file once the writer has gone";
  for (uint32_t code : {0u, 1u, 7u}) EXPECT_EQ(ask(writeSvc, code), 3u) << code;
  uint32_t ret = 77;
  EXPECT_TRUE(readSvc->handle(nullptr, OutMsg::create(), &ret, 0, nullptr));
  EXPECT_TRUE(readSvc->handle(itemtest::inMessage(0), nullptr, &ret, 0, nullptr));
  EXPECT_TRUE(readSvc->handle(itemtest::inMessage(0), OutMsg::create(), nullptr, 0, nullptr));
  EXPECT_EQ(ret, 77u) << "nothing answered without all three";
}

}  // namespace
