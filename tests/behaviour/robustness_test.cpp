// Robustness of the server against bad and greedy clients: malformed and oversize frames,
// wrong requests and absurd counts on every kind of channel, a client that never reads, a
// client killed with requests kept, and a full descriptor table.
#include <errno.h>
#include <fcntl.h>
#include <inttypes.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "posix/diag_service.h"
#include "posix/fd_service.h"
#include "posix/fs_item.h"
#include "posix/nodes.h"
#include "posix/wire.h"
#include "posix_client.h"
#include "raw_link.h"
#include "server_fixture.h"

namespace {

class RobustnessTest : public ServerFixture {
 protected:
  std::string socketPath() const { return path("chn/posix.service"); }

  // A getParentId round trip on a fresh link.
  bool serverAnswers() {
    RawLink link(socketPath());
    RawReply reply;
    return link.connected() && link.roundTrip(PX_CMD_GET_PARENT_ID, 1, {}, &reply) &&
           reply.code == PX_RESULT_DONE;
  }
};

TEST_F(RobustnessTest, MalformedAndOversizeFramesCloseOnlyTheirLink) {
  RawLink good(socketPath());
  ASSERT_TRUE(good.connected());
  RawReply reply;
  // The largest frame is fine (a getParentId ignores its data).
  std::vector<uint8_t> largest(PX_WIRE_MAX_FRAME - PX_FRAME_HEADER_SIZE, 0);
  ASSERT_TRUE(good.roundTrip(PX_CMD_GET_PARENT_ID, 1, largest, &reply));
  EXPECT_EQ(reply.code, PX_RESULT_DONE);

  constexpr uint32_t kAsk = PX_CMD_GET_PARENT_ID;
  std::vector<uint8_t> trailing = frameHeader(PX_FRAME_REQUEST, kAsk, 1);
  trailing.resize(trailing.size() + 4);
  std::vector<uint8_t> blockPastEnd = frameHeader(PX_FRAME_REQUEST, kAsk, 1, 0, 1);
  putU32(blockPastEnd, 2);
  putU32(blockPastEnd, 64);
  largest.push_back(0);
  const std::vector<std::vector<uint8_t>> bad = {
      std::vector<uint8_t>(10, 1),                   // shorter than a header
      frameHeader(PX_FRAME_REQUEST, kAsk, 1, 100),   // data past the end
      trailing,                                      // bytes after the frame
      frameHeader(PX_FRAME_REQUEST, kAsk, 1, 0, 1),  // a block that is not there
      blockPastEnd,                                  // a block past the end
      frameHeader(PX_FRAME_REQUEST, kAsk, 1, 0, ~0u),  // a block count that cannot fit
      frameHeader(PX_FRAME_REPLY, 1, 1),             // not a request
      frameHeader(PX_FRAME_BIND, 0, 1),              // a bind on a plain channel
      frameHeader(7, 1, 1),                          // no such kind
      requestFrame(kAsk, 1, largest),                // one byte over the largest
  };
  for (size_t k = 0; k < bad.size(); ++k) {
    RawLink link(socketPath());
    ASSERT_TRUE(link.connected());
    ASSERT_TRUE(link.send(bad[k])) << k << ": " << strerror(errno);
    EXPECT_TRUE(link.closedByServer(3000)) << "frame " << k << " did not close its link";
    EXPECT_TRUE(good.roundTrip(kAsk, 10 + k, {}, &reply)) << k;
  }
  EXPECT_TRUE(serverAnswers());
}

// Absurd counts in a spawn (arguments, environment entries, a path length) are refused
// without trying to make room for them, and so are strings with a zero byte inside.
TEST_F(RobustnessTest, WellFormedButWrongRequestsAreAnsweredQuicklyOnAnOpenLink) {
  // A spawn of `path` with `args` that claims `argc` arguments and `envc` environment pairs.
  auto spawnOf = [](const std::string& path, const std::vector<std::string>& args, uint64_t argc,
                    uint64_t envc) {
    std::vector<uint8_t> data;
    putString(data, path);
    putU32(data, 0);
    putU64(data, argc);
    for (const std::string& a : args) putString(data, a);
    putU64(data, envc);
    putU32(data, 0);
    return data;
  };
  std::vector<uint8_t> halfPid{5, 0, 0, 0}, hugeString{0xF0, 0xFF, 0xFF, 0xFF};  // past the frame
  std::vector<uint8_t> manyArgs = spawnOf("/bin/true", {}, uint64_t{1} << 40, 0),
                       manyEnv = spawnOf("/bin/true", {}, 0, uint64_t{1} << 40);
  // Strings with a zero byte inside are refused, not cut: neither "/bin/true" nor "exit 3" runs.
  using namespace std::string_literals;
  std::vector<uint8_t> zeroInPath = spawnOf("/bin/true\0junk"s, {"true"}, 1, 0),
                       zeroInArgument = spawnOf("/bin/sh", {"sh", "-c", "exit 3\0 junk"s}, 3, 0);
  const struct {
    uint32_t command;
    std::vector<uint8_t> data;
    uint32_t result;
  } cases[] = {
      {0, {}, PX_RESULT_FAILED},  // no such command
      {12, {}, PX_RESULT_FAILED},
      {PX_CMD_KILL, halfPid, PX_RESULT_SHORT_REQUEST},
      {PX_CMD_GET_GROUP_ID, {}, PX_RESULT_SHORT_REQUEST},
      {PX_CMD_WAIT, {}, PX_RESULT_SHORT_REQUEST},
      {PX_CMD_SPAWN, manyArgs, PX_RESULT_FAILED},
      {PX_CMD_SPAWN, manyEnv, PX_RESULT_FAILED},
      {PX_CMD_SPAWN, hugeString, PX_RESULT_FAILED},
      {PX_CMD_SPAWN, zeroInPath, PX_RESULT_FAILED},
      {PX_CMD_SPAWN, zeroInArgument, PX_RESULT_FAILED},
      {PX_CMD_GET_PARENT_ID, {}, PX_RESULT_DONE},  // the link stays open
  };
  RawLink link(socketPath());
  uint64_t id = 1;
  for (const auto& c : cases) {
    SCOPED_TRACE(id);
    int64_t start = monotonicMs();
    RawReply reply;
    ASSERT_TRUE(link.roundTrip(c.command, id++, c.data, &reply));
    EXPECT_EQ(reply.code, c.result);
    EXPECT_LT(monotonicMs() - start, 3000);
  }
  // The server still spawns.
  int64_t child = spawnProbe({"exit", "1"});
  ASSERT_GT(child, 0);
  EXPECT_EQ(collect(child), 1);
  // A process the server does not know gets no link to the descriptor service.
  pid_t stranger = fork();
  if (stranger == 0) {
    RawLink fds(path("chn/posix.fd.service"));
    _exit(fds.connected() && fds.closedByServer(3000) ? 0 : 1);
  }
  int status = waitExit(stranger, 5000);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

// The multiplexed services of descriptions: a broken or misplaced frame closes only its link, a
// bind to no such service is answered 0 and closed, and short, unknown or misdirected requests
// are refused without touching the item.
TEST_F(RobustnessTest, ServicesOfDescriptionsRefuseBadFramesAndRequests) {
  std::string p = hostFile("data", std::string(70000, 'd'));
  int fd = px_open(p.c_str(), O_RDWR, 0), fds[2];
  ASSERT_GE(fd, 0) << strerror(errno);
  ASSERT_EQ(px_pipe(fds), 0);
  std::unique_ptr<RawLink> stream = bindService(fd, PX_IFACE_STREAM);
  ASSERT_TRUE(stream);
  px_fd_record rec;
  ASSERT_TRUE(tableRecord(fd, &rec));
  char channel[17];
  snprintf(channel, sizeof channel, "%016" PRIx64, rec.entries[0].channel);
  std::vector<uint8_t> lying = requestFrame(PX_STREAM_READ, 1, {1, 2, 3}), bindData = frameHeader(PX_FRAME_BIND, 0, 1, 1);
  lying[16] = 200;  // data length beyond the datagram
  bindData.push_back(0);
  const std::pair<bool, std::vector<uint8_t>> frames[] = {
      {false, requestFrame(PX_STREAM_READ, 1)},        // a request before any bind
      {false, frameHeader(PX_FRAME_BIND, 4, 1)},       // a bind with a code
      {false, bindData},                               // a bind with data
      {false, frameHeader(PX_FRAME_BIND, 0, 99)},      // a bind to no such service
      {true, frameHeader(PX_FRAME_REPLY, 0, 1)},       // a reply from the client
      {true, frameHeader(PX_FRAME_BIND, 0, 1)},        // a second bind
      {true, lying},
      {true, std::vector<uint8_t>(PX_WIRE_MAX_FRAME + 1, 0)},
  };
  RawReply reply;
  uint64_t id = 1;
  for (const auto& [bindFirst, bytes] : frames) {
    SCOPED_TRACE(id);
    auto link = bindFirst ? bindService(fd, PX_IFACE_STREAM)
                          : std::make_unique<RawLink>(path(std::string("chn/") + channel));
    ASSERT_TRUE(link && link->send(bytes));
    EXPECT_TRUE(link->closedByServer(3000));
    // The healthy link goes on; a read never answers more than 64 KiB, whatever it asks for.
    ASSERT_TRUE(stream->roundTrip(PX_STREAM_READ, id++, streamRead(~uint64_t{0}, 0), &reply));
    EXPECT_EQ(reply.code, PX_RESULT_DONE);
    EXPECT_EQ(reply.data.size(), PX_STREAM_MAX_READ);
    ASSERT_EQ(px_lseek(fd, 0, SEEK_SET), 0);
  }

  auto seek = bindService(fd, PX_IFACE_SEEKABLE), resize = bindService(fd, PX_IFACE_RESIZABLE),
       item = bindService(fd, PX_IFACE_FS_ITEM);
  auto pipeRead = bindService(fds[0], PX_IFACE_STREAM), status = bindService(fds[0], PX_IFACE_FIFO_STATUS);
  auto socket = bindService(px_socket(), PX_IFACE_SOCKET);
  ASSERT_TRUE(seek && resize && item && pipeRead && status && socket);
  const struct {
    RawLink* link;
    uint32_t code;
    std::vector<uint8_t> data;
    uint32_t result;
    size_t replyBytes;
  } requests[] = {
      {stream.get(), PX_STREAM_READ, std::vector<uint8_t>(11), PX_RESULT_SHORT_REQUEST, 0},
      {stream.get(), PX_STREAM_WRITE, std::vector<uint8_t>(3), PX_RESULT_SHORT_REQUEST, 0},
      {stream.get(), 3, {}, PX_RESULT_FAILED, 0},
      {seek.get(), PX_SEEK_CMD_SEEK, std::vector<uint8_t>(7), PX_ITEM_RESULT_SHORT, 0},
      {resize.get(), PX_RESIZE_CMD_RESIZE, std::vector<uint8_t>(3), PX_ITEM_RESULT_SHORT, 0},
      {seek.get(), PX_RESIZE_CMD_SIZE, {}, PX_RESULT_FAILED, 0},  // the other's numbering
      {resize.get(), PX_SEEK_CMD_POSITION, {}, PX_RESULT_FAILED, 0},
      {item.get(), 9, {}, PX_RESULT_FAILED, 0},
      {pipeRead.get(), PX_STREAM_WRITE, streamWrite(0, "x"), PX_RESULT_DONE, 8},  // takes nothing...
      {status.get(), 1, {}, 4, 0},                                   // ...as a write on a read end
      {status.get(), 9, {}, 2, 0},
      {socket.get(), 1, std::vector<uint8_t>(12), PX_RESULT_FAILED, 0},  // serves nothing at all
      {socket.get(), ~0u, {}, PX_RESULT_FAILED, 0},
  };
  for (const auto& r : requests) {
    SCOPED_TRACE(id);
    ASSERT_TRUE(r.link->roundTrip(r.code, id++, r.data, &reply));
    EXPECT_EQ(reply.code, r.result);
    EXPECT_EQ(reply.data, std::vector<uint8_t>(r.replyBytes, 0));
  }
  px_item_info info;
  ASSERT_EQ(px_describe(fd, &info), 0);
  EXPECT_EQ(info.size, 70000);
  EXPECT_EQ(px_lseek(fd, 0, SEEK_CUR), 0);
}

// Short requests to the descriptor and diag services. A descriptor request's value that is
// left out or cut short takes its default (dup's newFd -1, out of range, and replace 0,
// getTable's first 0, openItem's empty path); only a short oldFd is refused as such. A diag
// page start cut short is a short request.
TEST_F(RobustnessTest, ShortRequestsTakeTheirDefaultsOrAreRefused) {
  int fds[2];
  ASSERT_EQ(px_pipe(fds), 0);
  const int taken = px_dup(fds[0]);  // the highest number in use: the dup below takes the next
  ASSERT_GE(taken, 0);
  auto i32 = [](int32_t v) {
    std::vector<uint8_t> out;
    putU32(out, static_cast<uint32_t>(v));
    return out;
  };
  std::vector<uint8_t> cutNewFd = i32(fds[0]), noReplace = i32(fds[0]), above = i32(taken);
  cutNewFd.insert(cutNewFd.end(), {9, 0});
  noReplace.insert(noReplace.end(), above.begin(), above.end());
  RawLink fdLink(path("chn/" PX_FD_SERVICE_NAME)), diagLink(path("chn/" PX_DIAG_SERVICE_NAME));
  RawReply reply, table;
  ASSERT_TRUE(fdLink.roundTrip(PX_FD_CMD_GET_TABLE, 1, {}, &table));
  const struct {
    RawLink* link;
    uint32_t code;
    std::vector<uint8_t> data;
    uint32_t result;
    std::vector<uint8_t> answer;
  } cases[] = {
      {&fdLink, PX_FD_CMD_GET_TABLE, {9, 0, 0}, table.code, table.data},
      {&fdLink, PX_FD_CMD_CLOSE, {3, 0}, PX_RESULT_FAILED, {}},
      {&fdLink, PX_FD_CMD_DUP, {3, 0}, PX_FD_RESULT_BAD_FD, {}},
      {&fdLink, PX_FD_CMD_DUP, cutNewFd, PX_RESULT_FAILED, {}},
      {&fdLink, PX_FD_CMD_DUP, noReplace, PX_RESULT_DONE, i32(taken + 1)},
      {&fdLink, PX_FD_CMD_OPEN, {}, PX_FD_RESULT_OPEN_FAILED, i32(ENOENT)},
      {&diagLink, PX_DIAG_CMD_PROCESSES, {1, 0, 0}, PX_RESULT_SHORT_REQUEST, {}},
      {&diagLink, PX_DIAG_CMD_DESCRIPTORS, {}, PX_RESULT_SHORT_REQUEST, {}},
  };
  uint64_t id = 2;
  for (const auto& c : cases) {
    SCOPED_TRACE(id);
    ASSERT_TRUE(c.link->roundTrip(c.code, id++, c.data, &reply));
    EXPECT_EQ(reply.code, c.result);
    EXPECT_EQ(reply.data, c.answer);
  }
}

// A client killed while it holds opened files, a kept signal wait and a blocking wait: its
// requests are dropped, its child's end is still handled, and the server's heap and threads
// come back (every description of an opened file, with its stream, goes with its table).
TEST_F(RobustnessTest, KilledClientWithKeptRequestsLeavesNoTrace) {
  const std::string file = hostFile("held", "x");
  auto scenario = [&] {
    OutputPipe out;
    int64_t holder = spawnProbe({"spawn", helper("px_probe"), "sleep", "30000", "--", "open", file,
                                 "open", file, "open", file, "open", file, "hold", "wait"},
                                &out);
    ASSERT_GT(holder, 0);
    std::string line = out.expect("spawned ");
    ASSERT_FALSE(line.empty());
    int64_t grandchild = std::stoll(line.substr(8));
    ASSERT_EQ(out.expect("holding"), "holding");
    ASSERT_TRUE(awaitKept(static_cast<uint64_t>(holder), 1, true));
    ASSERT_EQ(px_kill(holder, PX_SIGKILL), 0);
    EXPECT_EQ(collect(holder), 128 + 9);
    // The orphan never connected: the host kill is the only signal that reaches it.
    EXPECT_EQ(px_kill(grandchild, PX_SIGKILL), 0);
    int sig = 0;
    while (px_sigtimedwait(&sig, nullptr, 100) == 0) {
    }
  };
  // The stats once every agent of an ended program has finished (they end shortly after).
  auto settled = [&](uint64_t idleThreads, HeapStats* out) {
    return eventually([&] { return heapStats(out) && out->threads == idleThreads; }, 5000, 50);
  };
  HeapStats idle, before, after;
  ASSERT_EQ(px_close(px_open(file.c_str(), O_RDONLY, 0)), 0);  // the close queue's thread starts
  ASSERT_TRUE(heapStats(&idle));
  scenario();  // warm-up: the server's tables grow once
  ASSERT_TRUE(settled(idle.threads, &before));
  for (int round = 0; round < 3; ++round) scenario();
  ASSERT_TRUE(settled(idle.threads, &after)) << idle.threads << " -> " << after.threads;
  EXPECT_EQ(after.threads, before.threads);
  EXPECT_LE(after.blocks, before.blocks + 2) << before.blocks << " -> " << after.blocks;
  EXPECT_LE(after.bytes, before.bytes + 1024) << before.bytes << " -> " << after.bytes;
  EXPECT_TRUE(serverAnswers());
}

}  // namespace
