// The file tests' fixture: host files in the private runtime directory, the table's view of
// a descriptor, and raw links to the services a description's node lists.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "pipe_fixture.h"
#include "raw_link.h"

class FileFixture : public PipeFixture {
 protected:
  // Writes `bytes` to the host file RT/<name>; its path.
  std::string hostFile(const std::string& name, const std::string& bytes);
  // The whole content of a host file ("" when it cannot be read).
  static std::string hostRead(const std::string& path);
  // The serialised table's record of `fd`; false when the table has none.
  static bool tableRecord(int fd, px_fd_record* out);
  // The interface types of a record's node entries, in order.
  static std::vector<uint64_t> interfaceTypes(const px_fd_record& record);
  // A link to the first entry of `type` in fd's node, bound to its service; null (and a test
  // failure) when there is none or the bind is refused.
  std::unique_ptr<RawLink> bindService(int fd, uint64_t type);
};

// Reads through px_read until `n` bytes or end-of-file.
std::string readN(int fd, size_t n);
