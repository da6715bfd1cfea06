// The requests of the descriptions' own services (streams, seek, resize, items, FIFO status,
// sockets), served on the multiplexes' link threads, go to the request log like those of the
// process and descriptor services: counted for top, streamed to monitors.
#pragma once

namespace DescriptionWatch {

// Registers the observer with every multiplex; called once, before the first one is made.
void start();

}  // namespace DescriptionWatch
