#include "fifo/fifo_pairs.h"

#include "fifo/autoclose_multiplex.h"
#include "fifo/fifo_end_node.h"
#include "fifo/fifo_log.h"

using posix::fifoLog;

namespace {

struct FifoEnds {
  Ref<PosixFifoRead> read;
  Ref<PosixFifoWrite> write;
};

// A fresh FIFO: both ends share one buffer. Both null when it could not be made.
FifoEnds makeFifo() {
  FifoEnds ends{PosixFifoRead::create(), PosixFifoWrite::create()};
  Ref<Fifo> fifo = Fifo::create(PosixFifoBase::kFifoCapacity);
  if (!ends.read || !ends.write || !fifo) return {};
  ends.read->setFifo(fifo);
  ends.write->setFifo(fifo);
  return ends;
}

}  // namespace

FifoDescriptionPair createFifoPair() {
  FifoEnds ends = makeFifo();
  if (!ends.read) return {};
  FifoDescriptionPair pair;
  pair.read = FileDescriptionServerFIFO::create(ends.read, String::create("FifoRead"), kFifoReadAccess);
  pair.write = FileDescriptionServerFIFO::create(ends.write, String::create("FifoWrite"), kFifoWriteAccess);
  return pair;
}

PipeProviderPair createPipePair(const ProcIdentity& maker) {
  FifoEnds ends = makeFifo();
  if (!ends.read) return {};
  PipeProviderPair pair;
  pair.read = publishFifoEnd(ends.read, String::create("PipeRead"), kFifoReadAccess, maker, &pair.readCloser);
  pair.write = publishFifoEnd(ends.write, String::create("PipeWrite"), kFifoWriteAccess, maker, &pair.writeCloser);
  return pair;
}

Ref<Services::Nodes::Provider> publishFifoEnd(const Ref<PosixFifoBase>& end, Ref<String> name,
                                              uint64_t access, const ProcIdentity& maker,
                                              Ref<AutocloseSvcMultiplex>* closerOut) {
  if (!end || !name) return nullptr;
  Ref<AutocloseSvcMultiplex> closer = AutocloseSvcMultiplex::create(maker);
  Ref<Libraries::Service::Multiplex> multiplex = Libraries::Service::Multiplex::create(name);
  if (!multiplex) {
    POSIX_LOG(fifoLog.handle, 3, "Could not serve FIFO end " << name->c_str());
    return nullptr;
  }
  closer->setMultiplex(multiplex);
  Ref<DeviceNode> node = serveFifoEnd(multiplex, end, access, closer, nullptr);
  if (!node) {
    // Nobody can reach the end: break the cycle between the multiplex and its manager.
    POSIX_LOG(fifoLog.handle, 3, "Could not serve FIFO end " << name->c_str());
    closer->setMultiplex(nullptr);
    multiplex->close();
    return nullptr;
  }
  if (closerOut != nullptr) *closerOut = closer;
  return Services::Nodes::Provider::create(node, 0);
}
