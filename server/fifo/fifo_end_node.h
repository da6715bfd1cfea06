// Serving one FIFO end over a multiplex: the end's stream (through the platform's stream
// resolver) and its status service are added to the multiplex, and a fresh device node lists
// both so that a client can reach them.
#pragma once

#include <cstdint>

#include "fd/file_description_server.h"
#include "fifo/autoclose_multiplex.h"
#include "fifo/posix_fifo.h"
#include "platform/chn.h"
#include "platform/devnode.h"
#include "platform/multiplex.h"

// Access flags of a FIFO end's stream entry, and of its status entry.
constexpr uint64_t kFifoReadAccess = 2;
constexpr uint64_t kFifoWriteAccess = 4;
constexpr uint64_t kFifoStatusAccess = 32;
// Interface types of the two entries.
constexpr uint64_t kFifoStreamInterface = 0x10010;
constexpr uint64_t kFifoStatusInterface = 0x880000;
// What the end's stream resolver is made with.
constexpr uint64_t kFifoResolverValue = 512;

// Adds the end's two services to `multiplex` and answers the node that lists them: the stream
// entry with `access`, then the status entry. An end of a description (`description` set)
// serves the holders of that description only: each service is its own connection manager
// behind a HolderGate, and the status service hands the shared page only to a holder. An end
// of the process service (`closer` set) has `closer` hear of the connections of both services
// (it admits only the end's maker) and pass them on to the status service (which frees what a
// departed holder of the shared page held). Null when a service or the node could not be
// made, or the multiplex refused a service.
Ref<DeviceNode> serveFifoEnd(const Ref<Libraries::Service::Multiplex>& multiplex,
                             const Ref<PosixFifoBase>& end, uint64_t access,
                             const Ref<AutocloseSvcMultiplex>& closer,
                             FileDescriptionServer* description);
