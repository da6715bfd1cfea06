// Descriptions shared: duplicates and spawned children move one offset, the description ends
// with its last descriptor, and posixctl cat copies files through the server byte for byte.
#include <errno.h>
#include <fcntl.h>

#include <cstring>

#include "command_runner.h"
#include "server_fixture.h"

namespace {

using FileShareTest = ServerFixture;

TEST_F(FileShareTest, DuplicatesAndChildrenShareTheOffset) {
  std::string p = hostFile("shared", "abcdefghijklmnop");
  // One description opened and closed first: the server's close queue keeps its thread.
  ASSERT_EQ(px_close(px_open(p.c_str(), O_RDONLY, 0)), 0);
  int64_t threads = serverThreads(), fds = serverFds();
  ASSERT_GT(threads, 0);
  int fd = px_open(p.c_str(), O_RDWR, 0);
  ASSERT_EQ(fd, 3) << strerror(errno);
  int dup = px_dup(fd);
  ASSERT_GE(dup, 0) << strerror(errno);
  EXPECT_EQ(readUpTo(fd, 2), "ab");
  EXPECT_EQ(readUpTo(dup, 2), "cd");
  EXPECT_EQ(px_lseek(dup, 0, SEEK_CUR), 4);
  ASSERT_EQ(px_close(dup), 0);

  // The child reads and writes on at the parent's offset; the parent sees where it ended.
  OutputPipe out;
  int64_t child = spawnProbe({"fds", "readn", "3", "2", "write", "3", "XY"}, &out);
  ASSERT_GT(child, 0) << strerror(errno);
  EXPECT_EQ(out.expect("fd "), "fd 3 kind 1");
  EXPECT_EQ(out.expect("got "), "got ef");
  EXPECT_EQ(out.expect("wrote "), "wrote 2");
  EXPECT_EQ(collect(child), 0);
  EXPECT_EQ(px_lseek(fd, 0, SEEK_CUR), 8);
  // The library moves the bytes of a regular file itself; the item's stream service, as a
  // client that never asks for the host file uses it, reads on at the same offset.
  std::unique_ptr<RawLink> stream = bindService(fd, PX_IFACE_STREAM);
  ASSERT_TRUE(stream);
  RawReply got;
  ASSERT_TRUE(stream->roundTrip(PX_STREAM_READ, 1, streamRead(4, 0), &got));
  EXPECT_EQ(std::string(got.data.begin(), got.data.end()), "ijkl");
  EXPECT_EQ(px_lseek(fd, 0, SEEK_CUR), 12);
  EXPECT_EQ(hostRead(p), "abcdefXYijklmnop");
  // The last close ends the description with every service thread and host descriptor it had.
  ASSERT_EQ(px_close(fd), 0);
  EXPECT_LE(awaitThreadsAtMost(threads, 5000), threads);
  EXPECT_TRUE(eventually([&] { return serverFds() <= fds; })) << serverFds() << " > " << fds;
}

TEST_F(FileShareTest, PosixctlCatCopiesBytesExactly) {
  std::string bytes;
  for (int i = 0; i < 200000; ++i) bytes.push_back(static_cast<char>((i * 7 + i / 256) & 0xFF));
  std::string a = hostFile("a.bin", bytes);
  std::string b = hostFile("b.txt", "second\n");
  CommandResult r = runCommand({POSIXCTL_BINARY, "cat", a, b});
  EXPECT_EQ(r.exitCode, 0) << r.err;
  EXPECT_TRUE(r.out == bytes + "second\n") << "output differs, " << r.out.size() << " bytes";
  // A missing file is reported; the others are still copied.
  std::string missing = path("missing");
  r = runCommand({POSIXCTL_BINARY, "cat", b, missing, b});
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_EQ(r.out, "second\nsecond\n");
  EXPECT_NE(r.err.find(missing + ": " + strerror(ENOENT)), std::string::npos) << r.err;
}

}  // namespace
