// A pipe end's shared page mapped into this process (fd_pipe_page.cpp).
#pragma once

#include <cstddef>
#include <cstdint>

#include "posix/pipe_ring.h"

namespace pxc {

class PipePage {
 public:
  // Maps the page that came as `file` (which is closed here) with the token and ring size the
  // server gave; null when it does not check out (size, magic, ring size).
  static PipePage* map(int file, uint32_t token, uint32_t ringSize);
  ~PipePage();
  PipePage(const PipePage&) = delete;
  PipePage& operator=(const PipePage&) = delete;
  posix::PipeRing& ring() { return ring_; }

 private:
  PipePage(void* page, size_t size, uint32_t token, uint32_t ringSize);
  void* const page_;
  const size_t size_;
  posix::PipeRing ring_;
};

}  // namespace pxc
