// The stream adapter of an opened item. It holds the item's stream and answers every request
// with 0, reading and writing nothing: the item's bytes are served by the stream resolver
// entry of the same node, and this service only marks that the item has a stream.
#pragma once

#include "platform/chn.h"
#include "platform/service.h"
#include "platform/stream.h"

class CStreamService : public virtual Interfaces::Service, public virtual ConMan {
 public:
  // Null (and an assertion logged) when `strm` is null.
  static Ref<CStreamService> create(Ref<Interfaces::Stream> strm);
};
