// Files in one process: open, read and write at the server's offset, seeks from each origin,
// truncation, the description of an item (and what is none: pipes and sockets), and the host's
// errors.
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <thread>

#include "server_fixture.h"

namespace {

using FileTest = ServerFixture;

TEST_F(FileTest, ReadsAndWritesAtTheOffsetWithTheGivenFlags) {
  std::string p = hostFile("a.txt", "hello world");
  int fd = px_open(p.c_str(), O_RDWR, 0);
  ASSERT_EQ(fd, 3) << strerror(errno);  // 0, 1 and 2 are taken in a fresh process
  EXPECT_EQ(readUpTo(fd, 100), "hello world");
  char c;
  EXPECT_EQ(px_read(fd, &c, 1), 0) << "end of file";
  // More than one write request's worth, written at the offset the read left.
  std::string big(150000, 'b');
  EXPECT_EQ(px_write(fd, big.data(), big.size()), static_cast<ssize_t>(big.size()));
  EXPECT_EQ(hostRead(p), "hello world" + big);
  EXPECT_EQ(px_close(fd), 0);

  // Flags and mode reach the host: a new file with its mode, truncation, appending.
  mode_t mask = umask(0);
  umask(mask);
  std::string q = path("new.txt");
  int created = px_open(q.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0640);
  ASSERT_GE(created, 0) << strerror(errno);
  struct stat st;
  ASSERT_EQ(stat(q.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0640u & ~mask);
  EXPECT_ERRNO(px_read(created, &c, 1), EBADF);  // a write-only item is not read
  int truncated = px_open(p.c_str(), O_WRONLY | O_TRUNC | O_APPEND, 0);
  ASSERT_GE(truncated, 0) << strerror(errno);
  EXPECT_EQ(px_write(truncated, "x", 1), 1);
  EXPECT_EQ(px_lseek(truncated, 0, SEEK_SET), 0);
  EXPECT_EQ(px_write(truncated, "y", 1), 1);  // appended whatever the offset
  EXPECT_EQ(hostRead(p), "xy");
  int readOnly = px_open(p.c_str(), O_RDONLY, 0);
  EXPECT_ERRNO(px_write(readOnly, "z", 1), EBADF);  // nor a read-only one written
  EXPECT_EQ(hostRead(p), "xy");
}

TEST_F(FileTest, RelativePathsAreTheCallersAndFailuresCarryTheHostsError) {
  hostFile("rel.txt", "relative");
  char cwd[PATH_MAX];
  ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
  ASSERT_EQ(chdir(rt_.c_str()), 0);
  int fd = px_open("rel.txt", O_RDONLY, 0);
  int openErr = errno;
  ASSERT_EQ(chdir(cwd), 0);
  ASSERT_GE(fd, 0) << strerror(openErr);
  px_item_info info;
  ASSERT_EQ(px_describe(fd, &info), 0) << strerror(errno);
  EXPECT_STREQ(info.path, path("rel.txt").c_str());
  EXPECT_EQ(readUpTo(fd, 100), "relative");

  int before = px_fd_table(nullptr, 0);
  int64_t hostFds = serverFds();
  // The host's error, whatever it is (which one for which path: the client path unit tests).
  EXPECT_ERRNO(px_open(path("missing").c_str(), O_RDONLY, 0), ENOENT);
  EXPECT_ERRNO(px_open(path("rel.txt").c_str(), O_RDONLY | O_CREAT | O_EXCL, 0600), EEXIST);
  EXPECT_ERRNO(px_open(rt_.c_str(), O_RDWR, 0), EISDIR);  // also for root
  EXPECT_ERRNO(px_open("", O_RDONLY, 0), ENOENT);
  EXPECT_LE(serverFds(), hostFds) << "a failed open left a host descriptor open";
  // A path with a zero byte in it (which the library cannot send) is refused, not cut short.
  RawLink fdService(path("chn/posix.fd.service"));
  std::vector<uint8_t> open, err;
  putString(open, path("rel.txt") + std::string("\0.x", 3));
  putU32(open, O_RDONLY);
  putU32(err, EINVAL);
  RawReply reply;
  ASSERT_TRUE(fdService.roundTrip(4, 1, open, &reply));
  EXPECT_EQ(reply.code, 7u);
  EXPECT_EQ(reply.data, err);
  EXPECT_EQ(px_fd_table(nullptr, 0), before) << "a failed open took a number";
}

TEST_F(FileTest, SeeksFromEachOrigin) {
  std::string p = hostFile("digits", "0123456789");
  int fd = px_open(p.c_str(), O_RDWR, 0);
  ASSERT_GE(fd, 0) << strerror(errno);
  EXPECT_EQ(px_lseek(fd, 3, SEEK_SET), 3);
  EXPECT_EQ(readUpTo(fd, 2), "34");
  EXPECT_EQ(px_lseek(fd, -1, SEEK_CUR), 4);
  EXPECT_EQ(readUpTo(fd, 1), "4");
  EXPECT_EQ(px_lseek(fd, 0, SEEK_CUR), 5);
  EXPECT_EQ(px_lseek(fd, -2, SEEK_END), 8);
  EXPECT_EQ(readUpTo(fd, 5), "89");
  // Refused seeks leave the offset where it was.
  for (auto [offset, whence] : {std::pair<int64_t, int>{-1, SEEK_SET}, {-11, SEEK_CUR},
                                {-11, SEEK_END}, {0, 7}, {INT64_MAX, SEEK_CUR}}) {
    EXPECT_EQ(px_lseek(fd, offset, whence), -1) << offset << " from " << whence;
    EXPECT_TRUE(errno == EINVAL || errno == EOVERFLOW) << strerror(errno);
  }
  EXPECT_EQ(px_lseek(fd, 0, SEEK_CUR), 10);
  // Beyond the end: the write leaves a hole of zeros.
  EXPECT_EQ(px_lseek(fd, 12, SEEK_SET), 12);
  EXPECT_EQ(px_write(fd, "x", 1), 1);
  EXPECT_EQ(hostRead(p), std::string("0123456789\0\0x", 13));
  // A reader learns the end from the item on the host.
  int reader = px_open(p.c_str(), O_RDONLY, 0);
  EXPECT_EQ(px_lseek(reader, -3, SEEK_END), 10);
  EXPECT_EQ(readUpTo(reader, 10), std::string("\0\0x", 3));

  int fds[2];
  ASSERT_EQ(px_pipe(fds), 0);
  EXPECT_ERRNO(px_lseek(fds[0], 0, SEEK_SET), ESPIPE);
  EXPECT_ERRNO(px_lseek(42, 0, SEEK_SET), EBADF);
}

TEST_F(FileTest, TruncateAndDescribeFollowTheOpenMode) {
  std::string p = hostFile("t.txt", "hello world");
  int rw = px_open(p.c_str(), O_RDWR, 0);
  int ro = px_open(p.c_str(), O_RDONLY, 0);
  ASSERT_GE(rw, 0) << strerror(errno);
  ASSERT_GE(ro, 0) << strerror(errno);
  px_item_info info;
  ASSERT_EQ(px_describe(rw, &info), 0) << strerror(errno);
  EXPECT_STREQ(info.path, p.c_str());
  EXPECT_EQ(info.type, PX_FD_KIND_FILE);
  EXPECT_EQ(info.open_flags & O_ACCMODE, static_cast<uint32_t>(O_RDWR));
  EXPECT_EQ(info.has_size, 1);
  EXPECT_EQ(info.size, 11);
  EXPECT_EQ(px_lseek(rw, 7, SEEK_SET), 7);
  ASSERT_EQ(px_ftruncate(rw, 5), 0) << strerror(errno);
  ASSERT_EQ(px_describe(rw, &info), 0);
  EXPECT_EQ(info.size, 5);
  ASSERT_EQ(px_ftruncate(rw, 8), 0);
  EXPECT_EQ(hostRead(p), std::string("hello\0\0\0", 8));
  EXPECT_EQ(px_lseek(rw, 0, SEEK_CUR), 7) << "resizing moved the offset";
  EXPECT_ERRNO(px_ftruncate(rw, -1), EINVAL);

  // Read-only: no resize service on the node (the library asks the node), so no size and no
  // truncation.
  ASSERT_EQ(px_describe(ro, &info), 0);
  EXPECT_EQ(info.open_flags & O_ACCMODE, static_cast<uint32_t>(O_RDONLY));
  EXPECT_EQ(info.has_size, 0);
  EXPECT_ERRNO(px_ftruncate(ro, 0), EINVAL);
  px_fd_record rec;
  ASSERT_TRUE(tableRecord(rw, &rec));
  EXPECT_EQ(rec.type, PX_FD_KIND_FILE);
  EXPECT_EQ(interfaceTypes(rec),
            (std::vector<uint64_t>{PX_IFACE_STREAM, PX_IFACE_STREAM_ADAPTER, PX_IFACE_SEEKABLE,
                                   PX_IFACE_RESIZABLE, PX_IFACE_FS_ITEM}));
  // Only the bytes are read and written; every entry is on the description's one channel.
  for (uint32_t i = 0; i < rec.entry_count; ++i) {
    EXPECT_EQ(rec.entries[i].access, i == 0 ? PX_ACCESS_READ | PX_ACCESS_WRITE : PX_ACCESS_SERVICE);
    EXPECT_EQ(rec.entries[i].channel, rec.entries[0].channel);
  }

  // A device seeks but is not resized; the flags are kept as they were asked for.
  int dev = px_open("/dev/null", O_RDWR | O_APPEND, 0);
  ASSERT_EQ(px_describe(dev, &info), 0) << strerror(errno);
  EXPECT_EQ(info.type, PX_FD_KIND_CHAR_DEVICE);
  EXPECT_EQ(info.open_flags, static_cast<uint32_t>(O_RDWR | O_APPEND));
  ASSERT_TRUE(tableRecord(dev, &rec));
  EXPECT_EQ(interfaceTypes(rec), (std::vector<uint64_t>{PX_IFACE_STREAM, PX_IFACE_STREAM_ADAPTER,
                                                        PX_IFACE_SEEKABLE, PX_IFACE_FS_ITEM}));
  // A directory is an item of its own type that is not read as bytes.
  int dir = px_open(rt_.c_str(), O_RDONLY | O_DIRECTORY, 0);
  ASSERT_GE(dir, 0) << strerror(errno);
  ASSERT_EQ(px_describe(dir, &info), 0);
  EXPECT_EQ(info.type, PX_FD_KIND_DIRECTORY);
  char c;
  EXPECT_ERRNO(px_read(dir, &c, 1), EISDIR);
  // A pipe is no item, nor is a socket, which is numbered but neither read nor seeked.
  int fds[2];
  ASSERT_EQ(px_pipe(fds), 0);
  EXPECT_ERRNO(px_describe(fds[0], &info), EINVAL);
  EXPECT_ERRNO(px_ftruncate(fds[1], 0), EINVAL);
  int s = px_socket();
  ASSERT_TRUE(tableRecord(s, &rec)) << strerror(errno);
  EXPECT_EQ(rec.type, PX_FD_KIND_SOCKET);
  EXPECT_EQ(interfaceTypes(rec), std::vector<uint64_t>{PX_IFACE_SOCKET});
  EXPECT_ERRNO(px_describe(s, &info), EINVAL);
  EXPECT_ERRNO(px_read(s, &c, 1), EINVAL);
  EXPECT_ERRNO(px_lseek(s, 0, SEEK_SET), ESPIPE);
}

TEST_F(FileTest, ReadOfAHostFifoWaitsBeyondOneSliceForData) {
  std::string p = path("fifo");
  ASSERT_EQ(mkfifo(p.c_str(), 0600), 0);
  // (Opening never waits, not even for a writer: the isolation tests.) The server holds both
  // ends, so no end of file comes: the read waits for the writer.
  int fd = px_open(p.c_str(), O_RDWR, 0);
  ASSERT_GE(fd, 0) << strerror(errno);
  std::thread writer([&] {
    sleepMs(1500);
    int w = open(p.c_str(), O_WRONLY | O_CLOEXEC);
    EXPECT_EQ(write(w, "late", 4), 4);
    close(w);
  });
  char buf[16];
  int64_t start = monotonicMs();
  ssize_t n = px_read(fd, buf, sizeof buf);
  int64_t took = monotonicMs() - start;
  writer.join();
  ASSERT_EQ(n, 4) << strerror(errno);
  EXPECT_EQ(std::string(buf, 4), "late");
  EXPECT_GE(took, 1400);
  EXPECT_ERRNO(px_lseek(fd, 0, SEEK_CUR), ESPIPE);
  px_fd_record rec;
  ASSERT_TRUE(tableRecord(fd, &rec));
  EXPECT_EQ(rec.type, PX_FD_KIND_OTHER);
  EXPECT_EQ(interfaceTypes(rec), (std::vector<uint64_t>{PX_IFACE_STREAM, PX_IFACE_STREAM_ADAPTER,
                                                        PX_IFACE_FS_ITEM}));
}

}  // namespace
