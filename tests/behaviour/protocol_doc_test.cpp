// Every example of docs/protocol.md, sent to a real server: each "frames" block names the link
// it goes on, its request and bind frames are sent as written and the server's answers must be
// its reply frames, byte for byte (a reply byte written `xx` may be any: a random token). So the
// document cannot drift from the server.
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>

#include <cinttypes>
#include <fstream>
#include <sstream>

#include "server_fixture.h"

namespace {

struct Frame {
  bool sent = false;  // request or bind; else an expected reply
  std::vector<int> bytes;  // kAnyByte only in a reply
};

struct Example {
  int line = 0;        // where the block starts in the document
  std::string target;  // the words after "on"
  std::vector<Frame> frames;
};

constexpr int kAnyByte = -1;  // `xx`

// The bytes of a line whose words are all bytes; false for a line of words (an annotation).
bool byteLine(const std::string& line, std::vector<int>* out) {
  std::istringstream words(line);
  std::vector<int> bytes;
  for (std::string w; words >> w;) {
    bool any = w == "xx";
    if (!any && (w.size() != 2 || w.find_first_not_of("0123456789abcdef") != std::string::npos)) return false;
    bytes.push_back(any ? kAnyByte : static_cast<int>(std::stoul(w, nullptr, 16)));
  }
  out->insert(out->end(), bytes.begin(), bytes.end());
  return true;
}

std::vector<Example> examples() {
  std::ifstream doc(PROTOCOL_DOC);
  std::vector<Example> found;
  bool inBlock = false;
  int number = 0;
  for (std::string line; std::getline(doc, line);) {
    ++number;
    if (!inBlock || line == "```") {
      inBlock = line == "```frames";
      if (inBlock) found.push_back({number, "", {}});
      continue;
    }
    Example& ex = found.back();
    std::string first = line.substr(0, line.find(' '));
    if (ex.target.empty() && first == "on") {
      ex.target = line.substr(3);
    } else if (first == "request" || first == "bind" || first == "reply") {
      ex.frames.push_back({first != "reply", {}});
      EXPECT_TRUE(byteLine(line.substr(first.size()), &ex.frames.back().bytes)) << number;
    } else if (ex.frames.empty() || line.empty() || line[0] != ' ') {
      ADD_FAILURE() << "line " << number << " of a frames block: " << line;
    } else {
      byteLine(line, &ex.frames.back().bytes);
    }
  }
  return found;
}

class ProtocolDocTest : public ServerFixture {
 protected:
  // A link for an example's target; null (and a failure) for a target the test does not know.
  std::unique_ptr<RawLink> linkFor(const std::string& target) {
    if (target == "posix.service") return std::make_unique<RawLink>(path("chn/posix.service"));
    int fds[2];
    bool pipe = target.find("pipe's read end") != std::string::npos;
    if (pipe && px_pipe(fds) != 0) return nullptr;
    if (target == "the channel of a pipe's read end") {
      px_fd_record record;
      if (!tableRecord(fds[0], &record)) return nullptr;
      char channel[17];
      std::snprintf(channel, sizeof channel, "%016" PRIx64, record.entries[0].channel);
      return std::make_unique<RawLink>(path(std::string("chn/") + channel));
    }
    if (target == "0x10010 of a pipe's read end holding \"hi\"") {
      if (px_write(fds[1], "hi", 2) != 2) return nullptr;
      return bindService(fds[0], 0x10010);
    }
    if (target == "0x880000 of a pipe's read end") return bindService(fds[0], 0x880000);
    if (target == "0x880003 of a file opened for writing") {
      int fd = px_open(hostFile("resized", "0123456789").c_str(), O_RDWR, 0);
      return fd < 0 ? nullptr : bindService(fd, 0x880003);
    }
    ADD_FAILURE() << "no link for an example on '" << target << "'";
    return nullptr;
  }
};

// The bytes as the document writes them; a byte where `pattern` has kAnyByte as `xx`.
std::string hex(const std::vector<int>& bytes, const std::vector<int>& pattern) {
  std::string text;
  char b[4];
  for (size_t i = 0; i < bytes.size(); ++i) {
    bool any = i < pattern.size() && pattern[i] == kAnyByte;
    std::snprintf(b, sizeof b, "%02x ", static_cast<unsigned>(bytes[i] & 0xFF));
    text += any ? "xx " : b;
  }
  return text;
}

TEST_F(ProtocolDocTest, EveryExampleIsWhatTheServerSays) {
  std::vector<Example> all = examples();
  EXPECT_GE(all.size(), 5u) << "the examples of " << PROTOCOL_DOC;
  for (const Example& ex : all) {
    SCOPED_TRACE("example at line " + std::to_string(ex.line) + " on " + ex.target);
    std::unique_ptr<RawLink> link = linkFor(ex.target);
    ASSERT_TRUE(link && link->connected());
    for (const Frame& frame : ex.frames) {
      if (frame.sent) {
        ASSERT_TRUE(link->send(std::vector<uint8_t>(frame.bytes.begin(), frame.bytes.end())));
        continue;
      }
      struct pollfd pfd = {link->fd(), POLLIN, 0};
      ASSERT_EQ(poll(&pfd, 1, 5000), 1) << "no reply";
      std::vector<uint8_t> got(PX_WIRE_MAX_FRAME);
      ssize_t n = recv(link->fd(), got.data(), got.size(), 0);
      got.resize(n > 0 ? static_cast<size_t>(n) : 0);
      EXPECT_EQ(hex(std::vector<int>(got.begin(), got.end()), frame.bytes), hex(frame.bytes, frame.bytes));
    }
  }
}

}  // namespace
