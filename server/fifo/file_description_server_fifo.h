// The open file description of one pipe or FIFO end, as descriptor tables hold it. It serves
// the end over a multiplex of its own (named "FifoRead" or "FifoWrite") and lists the end's
// stream and status services on its node; both admit only processes that hold the description.
//
// When the last descriptor of the description goes, the end is closed at once (readers see
// end-of-file, writers a broken pipe), even though the end object lives on inside the
// multiplex's services until the close queue has stopped the multiplex.
#pragma once

#include "fd/file_description_server.h"
#include "fifo/posix_fifo.h"

class FileDescriptionServerFIFO : public Object, public virtual FileDescriptionServer {
 public:
  // Null when the multiplex, the services or the node could not be made.
  static Ref<FileDescriptionServerFIFO> create(const Ref<PosixFifoBase>& end, Ref<String> name,
                                               uint64_t access);

  int32_t type() const override { return kTypeFifo; }
  const Ref<PosixFifoBase>& fifoEnd() const { return fifoEnd_; }

  ~FileDescriptionServerFIFO() override;

 private:
  FileDescriptionServerFIFO(const Ref<PosixFifoBase>& end, Ref<String> name, uint64_t access);

  Ref<PosixFifoBase> fifoEnd_;  // set once in the constructor
};
