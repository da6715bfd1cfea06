// Local file descriptions: host files and sockets opened by this process, offered through the
// platform's object interfaces so that services can serve them to clients.
//
// An opened item is one host open file description: every holder of the item (every
// descriptor of every client that shares it) reads and writes at the same offset, the one the
// host keeps for that description. The item offers a seek interface only when the host can
// move its offset, and a resize interface only when it is a regular file opened for writing.
#pragma once

#include <cstdint>

#include "platform/message.h"
#include "platform/object.h"
#include "platform/stream.h"
#include "platform/string.h"

namespace Interfaces {

// What a local file description is. Type codes: 1 regular file, 2 directory, 3 character
// device, 4 block device, 6 socket, 9 anything else (5 and 8 belong to the server's own FIFOs
// and table end marker, and are never answered here).
class FileDescription : public virtual RefCount {
 public:
  virtual int32_t descriptionType() = 0;
};

// A position that can be moved. Both answer all ones when the host refused.
class Seekable : public virtual RefCount {
 public:
  // Moves to the absolute `position`; answers the new position.
  virtual uint64_t seek(uint64_t position) = 0;
  virtual uint64_t position() = 0;
};

// A size that can be changed. Both answer all ones when the host refused.
class Resizable : public virtual RefCount {
 public:
  virtual uint64_t size() = 0;
  // Sets the size to `size` (the position stays); answers the new size.
  virtual uint64_t resize(uint64_t size) = 0;
};

// The file-system object behind a description: the path it was opened by, and its type code.
class FileSystemObject : public virtual RefCount {
 public:
  virtual Ref<String> path() = 0;
  virtual int32_t objectType() = 0;
};

}  // namespace Interfaces

namespace LocalFile {
// The answer of a seek, position, size or resize the host refused.
constexpr uint64_t kFailed = ~0ull;
}  // namespace LocalFile

class LocalFileDescriptionFSItem : public Object,
                                   public virtual Interfaces::Stream,
                                   public virtual Interfaces::FileDescription,
                                   public virtual Interfaces::Seekable,
                                   public virtual Interfaces::Resizable,
                                   public virtual Interfaces::FileSystemObject {
 public:
  // Opens the host path with the Linux O_* `openFlags` and `openMode` (close-on-exec added)
  // for process `forPid`, as ClientPath reads it (/proc/self is that process's; the server's
  // own /proc directory is refused with EACCES). Null with Error set to errno when the host
  // refuses, or to EINVAL for a path that holds a zero byte. Opening never waits: a host FIFO
  // opens at once for reading, and for writing only while it has a reader (ENXIO otherwise); a
  // file under someone's lease fails with EWOULDBLOCK.
  static Ref<LocalFileDescriptionFSItem> open(const Ref<String>& path, uint32_t openFlags,
                                              uint32_t openMode, uint64_t forPid);

  // The interfaces the item offers; the seek and resize interfaces are null when it has none.
  Ref<Interfaces::Stream> stream() { return this; }
  Ref<Interfaces::FileDescription> description() { return this; }
  Ref<Interfaces::Seekable> seekable();
  Ref<Interfaces::Resizable> resizable();
  Ref<Interfaces::FileSystemObject> fileSystemObject() { return this; }
  // The open flags as they were asked for.
  uint32_t openFlags() const { return openFlags_; }

  // Stream: reads and writes at the description's offset. Items that may block (devices,
  // sockets, FIFOs) keep a non-blocking host descriptor: a read waits for readiness up to the
  // time-out, a write fills what room comes within it and answers what went. Regular files,
  // directories and block devices never wait.
  uint32_t dataKind() override { return 1; }
  Interfaces::MemDesc map(Ref<Object> /*client*/) override { return {}; }
  void unmap(Ref<Object> /*client*/) override {}
  uint64_t read(Interfaces::MemDesc buffer, uint64_t size, uint32_t timeoutMs) override;
  uint64_t write(Interfaces::MemDesc buffer, uint64_t size, uint32_t timeoutMs) override;
  uint64_t readable() override;
  uint64_t control(uint32_t /*code*/, uint64_t /*argument*/) override { return 0; }

  int32_t descriptionType() override { return type_; }

  uint64_t seek(uint64_t position) override;
  uint64_t position() override;

  uint64_t size() override;
  uint64_t resize(uint64_t size) override;

  Ref<String> path() override { return path_; }
  int32_t objectType() override { return type_; }

  // Attaches a descriptor of the host open file to the reply `out`, for a regular file only:
  // its receiver reads, writes and seeks the file itself, at the offset and with the flags
  // every other holder of this description shares. False (nothing attached) otherwise.
  bool attachTo(const Ref<OutMsg>& out) const;

  ~LocalFileDescriptionFSItem() override;

 private:
  LocalFileDescriptionFSItem(int fd, Ref<String> path, uint32_t openFlags, int32_t type,
                             bool canSeek, bool canResize)
      : fd_(fd), path_(std::move(path)), openFlags_(openFlags), type_(type),
        canSeek_(canSeek), canResize_(canResize) {}
  // Regular files, directories and block devices answer at once; anything else may wait.
  static bool mayBlock(int32_t type);
  // Waits until the host file is ready for `events`, for items that can block; false when the
  // time-out passed first.
  bool ready(short events, uint32_t timeoutMs) const;

  // All set once at open, then only read.
  const int fd_;
  const Ref<String> path_;
  const uint32_t openFlags_;
  const int32_t type_;
  const bool canSeek_;
  const bool canResize_;
};

class LocalFileDescriptionNetSocket : public Object, public virtual Interfaces::FileDescription {
 public:
  // A new TCP/IPv4 socket (close-on-exec); null with Error set to errno when the host refuses.
  static Ref<LocalFileDescriptionNetSocket> create();

  Ref<Interfaces::FileDescription> description() { return this; }
  int32_t descriptionType() override { return kType; }

  ~LocalFileDescriptionNetSocket() override;

  static constexpr int32_t kType = 6;

 private:
  explicit LocalFileDescriptionNetSocket(int fd) : fd_(fd) {}
  const int fd_;
};
