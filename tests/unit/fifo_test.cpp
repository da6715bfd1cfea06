// FIFO ends and their status service: draining to end-of-file, broken pipes, the wrong end,
// foreign buffers, time-outs of the monitor and of the first byte, and what the status service
// answers while its end lives and after it has gone.
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

TEST(FifoEnds, ReadersDrainWhatIsLeftThenSeeEndOfFile) {
  Pipe pipe;
  EXPECT_EQ(pipe.put("hello world"), 11u);
  EXPECT_EQ(pipe.write->status(), PosixFifoBase::kStatusOk);
  EXPECT_EQ(pipe.get(5), "hello") << "a read takes at most its size";
  pipe.write->closeEnd();
  EXPECT_EQ(pipe.get(100, kForever), " world") << "buffered bytes outlive the writer";
  EXPECT_EQ(pipe.read->status(), PosixFifoBase::kStatusOk);
  EXPECT_LT(msTaken([&] { EXPECT_EQ(pipe.get(100, kForever), ""); }), 1000) << "end-of-file ends the wait at once";
  EXPECT_EQ(pipe.read->status(), PosixFifoBase::kStatusEof);
}

TEST(FifoEnds, DestroyingAnEndMarksTheBufferForTheOther) {
  Pipe pipe;
  pipe.write.reset();
  EXPECT_TRUE(pipe.fifo->eof());
  EXPECT_FALSE(pipe.fifo->broken());
  Pipe other;
  other.read.reset();
  EXPECT_TRUE(other.fifo->broken());
  EXPECT_EQ(other.put("x", kForever), 0u) << "nobody reads any more";
  EXPECT_EQ(other.write->status(), PosixFifoBase::kStatusBroken);
}

TEST(FifoEnds, AFullBufferTakesWhatFitsAndATimedOutWriteKeepsStatusZero) {
  Pipe pipe;
  std::string big(PosixFifoBase::kFifoCapacity + 100, 'a');
  EXPECT_EQ(pipe.put(big, 50), PosixFifoBase::kFifoCapacity) << "partial write";
  EXPECT_EQ(pipe.write->status(), PosixFifoBase::kStatusOk);
  EXPECT_GE(msTaken([&] { EXPECT_EQ(pipe.put("b", 60), 0u); }), 50);
  EXPECT_EQ(pipe.write->status(), PosixFifoBase::kStatusOk) << "intact FIFO: no error";
  pipe.read->closeEnd();
  EXPECT_EQ(pipe.put("b", kForever), 0u);
  EXPECT_EQ(pipe.write->status(), PosixFifoBase::kStatusBroken);
}

TEST(FifoEnds, WrongEndsAndForeignBuffersLeaveTheBufferAlone) {
  Pipe pipe;
  char byte = 'z';
  EXPECT_EQ(pipe.write->read(MemDesc::direct(&byte, 1), 1, kForever), 0u);
  EXPECT_EQ(pipe.write->status(), PosixFifoBase::kStatusNotReadable);
  EXPECT_EQ(pipe.read->write(MemDesc::direct(&byte, 1), 1, kForever), 0u);
  EXPECT_EQ(pipe.read->status(), PosixFifoBase::kStatusNotWritable);
  EXPECT_EQ(pipe.fifo->size(), 0u);

  MemDesc foreign = MemDesc::direct(&byte, 1);
  foreign.kind = 1;
  EXPECT_EQ(pipe.write->write(foreign, 1, kForever), 0u);
  EXPECT_EQ(pipe.write->status(), PosixFifoBase::kStatusOk) << "reset, and no error of its own";
  EXPECT_EQ(pipe.fifo->size(), 0u);
  pipe.put("q");
  EXPECT_EQ(pipe.read->read(foreign, 1, kForever), 0u);
  EXPECT_EQ(pipe.read->status(), PosixFifoBase::kStatusOk);
  EXPECT_EQ(pipe.fifo->size(), 1u) << "the byte stays for a proper read";
  EXPECT_EQ(pipe.read->dataKind(), 1u);
  EXPECT_EQ(pipe.read->map(nullptr).kind, 0u);
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

TEST(FifoStatusService, AnswersMoreDataStatusAndUnknownCommands) {
  Pipe pipe;
  Ref<PosixFifoSvc> readSvc = PosixFifoSvc::create(pipe.read);
  Ref<PosixFifoSvc> writeSvc = PosixFifoSvc::create(pipe.write);
  ASSERT_TRUE(readSvc && writeSvc);
  EXPECT_EQ(ask(readSvc, 0), 1u) << "a fresh pipe may still give data";
  EXPECT_EQ(ask(readSvc, 1), 0u);
  EXPECT_EQ(ask(readSvc, 2), 2u);
  EXPECT_EQ(ask(readSvc, 0xFFFFFFFFu), 2u);
  pipe.get(1, 10);
  EXPECT_EQ(ask(readSvc, 1), PosixFifoBase::kStatusTimedOut);
  pipe.write->write(MemDesc::direct("x", 1), 1, 0);
  pipe.write->read(MemDesc::direct(nullptr, 0), 0, 0);
  EXPECT_EQ(ask(writeSvc, 1), PosixFifoBase::kStatusNotReadable) << "each end its own status";

  pipe.write.reset();
  EXPECT_EQ(ask(readSvc, 0), 0u) << "end-of-file once the writer has gone";
  EXPECT_EQ(ask(writeSvc, 0), 3u);
  EXPECT_EQ(ask(writeSvc, 1), 3u);
  EXPECT_EQ(ask(writeSvc, 7), 3u) << "a gone end answers 3 to everything";
  EXPECT_TRUE(writeSvc->isBound()) << "the pointer is tested, not the end's life";
  uint32_t ret = 77;
  EXPECT_TRUE(readSvc->handle(nullptr, OutMsg::create(), &ret, 0, nullptr));
  EXPECT_TRUE(readSvc->handle(itemtest::inMessage(0), nullptr, &ret, 0, nullptr));
  EXPECT_TRUE(readSvc->handle(itemtest::inMessage(0), OutMsg::create(), nullptr, 0, nullptr));
  EXPECT_EQ(ret, 77u) << "nothing answered without all three";
}

TEST(FifoStatusService, NeverKeepsItsEndAlive) {
  Pipe pipe;
  Ref<PosixFifoSvc> svc = PosixFifoSvc::create(pipe.read);
  EXPECT_EQ(pipe.read->strongCount(), 1u);
  pipe.read.reset();
  EXPECT_TRUE(pipe.fifo->broken());
  EXPECT_FALSE(PosixFifoSvc::create(nullptr));
}

}  // namespace
