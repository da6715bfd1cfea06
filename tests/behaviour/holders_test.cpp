// A description serves its holders only: a process binds to the services of a pipe end, an
// opened file or a socket only while its descriptor table holds the description (its own
// descriptors, or those it was started with), and gets a pipe's shared page or a file's host
// open file only then; the ends of a pipe of the process service serve only the process that
// made them; and a link kept to a closed write end neither writes nor holds off end-of-file.
#include <errno.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "posix/fs_item.h"
#include "posix/pipe_page.h"
#include "posix/posix_service.h"
#include "posix/wire.h"
#include "server_fixture.h"

namespace {

class HoldersTest : public ServerFixture {
 protected:
  // Binds to every entry from a forked child that made itself known on a link of its own: a
  // process with a table of its own that holds none of them. Answers how many binds were
  // accepted, or -1 when the child did not get that far.
  int strangerBinds(const std::vector<px_node_entry>& entries) {
    pid_t child = fork();
    if (child == 0) {
      RawLink posix(path("chn/posix.service"));
      RawReply reply;
      if (!posix.roundTrip(PX_CMD_GET_PARENT_ID, 1, {}, &reply)) _exit(100);
      int accepted = 0;
      for (const px_node_entry& e : entries) accepted += bindEntry(e) != nullptr;
      _exit(accepted);
    }
    int status = waitExit(child, 20000);
    return WIFEXITED(status) && WEXITSTATUS(status) != 100 ? WEXITSTATUS(status) : -1;
  }

  // The entries of the nodes of `fds`.
  std::vector<px_node_entry> entriesOf(std::initializer_list<int> fds) {
    std::vector<px_node_entry> all;
    for (int fd : fds) {
      px_fd_record rec{};
      EXPECT_TRUE(tableRecord(fd, &rec)) << fd;
      all.insert(all.end(), rec.entries, rec.entries + std::min<uint32_t>(rec.entry_count, PX_FD_MAX_ENTRIES));
    }
    return all;
  }
};

TEST_F(HoldersTest, AStrangerReachesNoServiceOfWhatOthersHold) {
  int fds[2];
  ASSERT_EQ(px_pipe(fds), 0) << strerror(errno);
  ASSERT_EQ(px_write(fds[1], "secret", 6), 6);
  std::string p = hostFile("private", "data");
  int file = px_open(p.c_str(), O_RDWR | O_APPEND, 0);
  ASSERT_GE(file, 0) << strerror(errno);
  int sock = px_socket();
  ASSERT_GE(sock, 0) << strerror(errno);
  std::vector<px_node_entry> all = entriesOf({fds[0], fds[1], file, sock});
  ASSERT_EQ(all.size(), 10u);  // two per pipe end, five for the file, one for the socket
  EXPECT_EQ(strangerBinds(all), 0);
  // The holder binds to each of them; a child it started holds them too, and reads the pipe
  // through its page and appends to the file through the host open file.
  for (const px_node_entry& e : all) EXPECT_TRUE(bindEntry(e)) << std::hex << e.type;
  OutputPipe out;
  int64_t child = spawnProbe(
      {"readn", std::to_string(fds[0]), "6", "write", std::to_string(file), "more"}, &out);
  ASSERT_GT(child, 0) << strerror(errno);
  EXPECT_EQ(out.expect("got "), "got secret");
  EXPECT_EQ(out.expect("wrote "), "wrote 4");
  EXPECT_EQ(collect(child), 0);
  EXPECT_EQ(hostRead(p), "datamore");
}

TEST_F(HoldersTest, AProcessThatClosedItsLastDescriptorBindsNoMore) {
  int fds[2];
  ASSERT_EQ(px_pipe(fds), 0) << strerror(errno);
  int file = px_open(hostFile("kept", "x").c_str(), O_RDWR, 0);
  ASSERT_GE(file, 0) << strerror(errno);
  std::vector<px_node_entry> entries = entriesOf({fds[0], file});
  std::unique_ptr<RawLink> status = bindService(fds[0], PX_IFACE_FIFO_STATUS);
  std::unique_ptr<RawLink> item = bindService(file, PX_IFACE_FS_ITEM);
  ASSERT_TRUE(status && item);
  // A child keeps both descriptions alive after this process has closed its descriptors.
  OutputPipe out;
  int64_t child = spawnProbe({"print", "holding", "sleep", "60000"}, &out);
  ASSERT_GT(child, 0) << strerror(errno);
  ASSERT_EQ(out.expect("holding"), "holding");
  ASSERT_EQ(px_close(fds[0]), 0);
  ASSERT_EQ(px_close(file), 0);
  EXPECT_EQ(px_fd_table(nullptr, 0), 1) << "the closes are served; the write end is left";
  for (const px_node_entry& e : entries) EXPECT_FALSE(bindEntry(e)) << std::hex << e.type;
  // Links bound before the close get neither the page nor the host open file any more.
  RawReply reply;
  ASSERT_TRUE(status->roundTrip(PX_FIFO_CMD_SHARED_PAGE, 1, {}, &reply));
  EXPECT_EQ(reply.code, PX_RESULT_NOT_HOLDER);
  ASSERT_TRUE(item->roundTrip(PX_ITEM_CMD_HOST_FILE, 2, {}, &reply));
  EXPECT_EQ(reply.code, PX_RESULT_NOT_HOLDER);
  ASSERT_EQ(kill(static_cast<pid_t>(child), SIGKILL), 0);
  EXPECT_EQ(collect(child), 128 + SIGKILL);
}

TEST_F(HoldersTest, PipesOfTheProcessServiceServeOnlyTheirMaker) {
  RawLink posix(path("chn/posix.service"));
  RawReply reply;
  ASSERT_TRUE(posix.roundTrip(PX_CMD_CREATE_PIPE, 1, {}, &reply));
  ASSERT_EQ(reply.code, PX_RESULT_DONE);
  std::vector<px_node_entry> ends;
  size_t at = 0;
  ASSERT_TRUE(takeNode(reply.data, &at, &ends) && takeNode(reply.data, &at, &ends));
  ASSERT_EQ(ends.size(), 4u);  // stream and status of the read end, then of the write end
  EXPECT_EQ(strangerBinds(ends), 0);
  // The stranger's refused binds claimed nothing: the maker binds and moves bytes.
  std::unique_ptr<RawLink> reader = bindEntry(ends[0]), writer = bindEntry(ends[2]);
  ASSERT_TRUE(reader && writer);
  ASSERT_TRUE(writer->roundTrip(PX_STREAM_WRITE, 2, streamWrite(1000, "hi"), &reply));
  ASSERT_TRUE(reader->roundTrip(PX_STREAM_READ, 3, streamRead(16, 1000), &reply));
  EXPECT_EQ(std::string(reply.data.begin(), reply.data.end()), "hi");
}

TEST_F(HoldersTest, ALinkKeptToAClosedWriteEndHoldsOffNoEndOfFile) {
  int fds[2];
  ASSERT_EQ(px_pipe(fds), 0) << strerror(errno);
  std::unique_ptr<RawLink> stream = bindService(fds[1], PX_IFACE_STREAM);
  std::unique_ptr<RawLink> status = bindService(fds[1], PX_IFACE_FIFO_STATUS);
  ASSERT_TRUE(stream && status);
  ASSERT_EQ(px_write(fds[1], "x", 1), 1);
  ASSERT_EQ(px_close(fds[1]), 0);
  EXPECT_EQ(px_fd_table(nullptr, 0), 1) << "the close is served";
  // The end's channel closes shortly after; until then a closed end takes nothing.
  RawReply reply;
  if (stream->roundTrip(PX_STREAM_WRITE, 1, streamWrite(0, "y"), &reply)) {
    EXPECT_EQ(reply.data, std::vector<uint8_t>(8, 0)) << "a closed end takes nothing";
  }
  int64_t start = monotonicMs();
  EXPECT_EQ(readUpTo(fds[0]), "x");  // and then end-of-file
  EXPECT_LT(monotonicMs() - start, 3000);
}

}  // namespace
