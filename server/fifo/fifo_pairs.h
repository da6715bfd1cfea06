// Making pipes. Both kinds make one Fifo of kFifoCapacity bytes with a read end and a write end
// in front of it, and serve each end over a multiplex of its own:
// - createFifoPair wraps the ends in open file descriptions for descriptor tables; an end
//   closes when its description's last descriptor goes.
// - createPipePair publishes the ends as node providers for the process service; an end
//   serves only the process that made it, and closes when its last connection goes
//   (AutocloseSvcMultiplex).
#pragma once

#include <cstdint>

#include "fifo/autoclose_multiplex.h"
#include "fifo/file_description_server_fifo.h"
#include "platform/nodes.h"

struct FifoDescriptionPair {
  Ref<FileDescriptionServerFIFO> read;   // multiplex "FifoRead"
  Ref<FileDescriptionServerFIFO> write;  // multiplex "FifoWrite"
};

struct PipeProviderPair {
  Ref<Services::Nodes::Provider> read;   // multiplex "PipeRead"
  Ref<Services::Nodes::Provider> write;  // multiplex "PipeWrite"
  // The managers that close each end with its last connection (or when it is withdrawn).
  Ref<AutocloseSvcMultiplex> readCloser;
  Ref<AutocloseSvcMultiplex> writeCloser;
};

// Either member is null when it could not be made; both when the FIFO could not be made.
FifoDescriptionPair createFifoPair();
PipeProviderPair createPipePair(const ProcIdentity& maker);

// Serves `end` to the process `maker` over a new multiplex named `name` that closes with its
// last connection, and answers a provider of the node listing the end's stream (with
// `access`) and status services; `closer` (may be null) receives the multiplex's manager. Null
// when anything could not be made.
Ref<Services::Nodes::Provider> publishFifoEnd(const Ref<PosixFifoBase>& end, Ref<String> name,
                                              uint64_t access, const ProcIdentity& maker,
                                              Ref<AutocloseSvcMultiplex>* closer = nullptr);
