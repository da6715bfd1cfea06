// The status service of a FIFO end, in-process: what it answers while its end lives and after
// the end has gone, that it never keeps the end alive, and that it answers nothing without a
// request, a reply and a result. (The ends themselves, their time-outs and monitors: the pipe
// behaviour tests.)
#include <gtest/gtest.h>

#include "fifo/posix_fifo.h"
#include "fifo/posix_fifo_svc.h"
#include "platform_chn_support.h"

using Interfaces::MemDesc;

namespace {

Ref<InMsg> request(uint32_t code) {
  chntest::Bytes frame = chntest::encode(chntest::request(code, 1));
  return InMsg::decode(frame.data(), frame.size(), nullptr);
}

// The status the service answers to `code`; the answer is the status alone.
uint32_t ask(const Ref<PosixFifoSvc>& svc, uint32_t code) {
  Ref<OutMsg> out = OutMsg::create();
  uint32_t ret = 0xDEAD;
  EXPECT_TRUE(svc->handle(request(code), out, &ret, 0, nullptr));
  EXPECT_TRUE(out->data().empty());
  return ret;
}

TEST(FifoStatusService, AnswersForItsEndWhileItLivesAndThreeOnceItHasGone) {
  Ref<Fifo> fifo = new Fifo(PosixFifoBase::kFifoCapacity);
  Ref<PosixFifoRead> read = PosixFifoRead::create();
  Ref<PosixFifoWrite> write = PosixFifoWrite::create();
  read->setFifo(fifo);
  write->setFifo(fifo);
  Ref<PosixFifoSvc> readSvc = PosixFifoSvc::create(read);
  Ref<PosixFifoSvc> writeSvc = PosixFifoSvc::create(write);
  ASSERT_TRUE(readSvc && writeSvc);
  EXPECT_FALSE(PosixFifoSvc::create(nullptr));
  EXPECT_EQ(write->strongCount(), 1u) << "the service never keeps its end alive";
  EXPECT_EQ(ask(readSvc, 0), 1u) << "a fresh pipe may still give data";
  char byte;
  EXPECT_EQ(read->read(MemDesc::direct(&byte, 1), 1, 10), 0u);
  EXPECT_EQ(ask(readSvc, 1), PosixFifoBase::kStatusTimedOut);
  write->read(MemDesc::direct(nullptr, 0), 0, 0);
  EXPECT_EQ(ask(writeSvc, 1), PosixFifoBase::kStatusNotReadable) << "each end its own status";

  write.reset();
  EXPECT_EQ(ask(readSvc, 0), 0u) << "end-of-file once the writer has gone";
  for (uint32_t code : {0u, 1u, 7u}) EXPECT_EQ(ask(writeSvc, code), 3u) << code;
  uint32_t ret = 77;
  EXPECT_TRUE(readSvc->handle(nullptr, OutMsg::create(), &ret, 0, nullptr));
  EXPECT_TRUE(readSvc->handle(request(0), nullptr, &ret, 0, nullptr));
  EXPECT_TRUE(readSvc->handle(request(0), OutMsg::create(), nullptr, 0, nullptr));
  EXPECT_EQ(ret, 77u) << "nothing answered without all three";
}

}  // namespace
