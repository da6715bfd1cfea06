// Host items as local file descriptions, on real files: reads and writes at the one offset the
// host keeps, which items offer seeking and resizing, the host's refusals, waits that end at
// their time-out, and host descriptors closed with the last holder.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <future>

#include "item_support.h"
#include "platform/error.h"
#include "platform/sync.h"

using namespace itemtest;
using Interfaces::MemDesc;

namespace {

std::string readSome(LocalFileDescriptionFSItem& item, uint64_t size, uint32_t timeoutMs = 0) {
  std::string out(size, '\0');
  out.resize(item.read(MemDesc::direct(out.data(), size), size, timeoutMs));
  return out;
}

uint64_t writeText(LocalFileDescriptionFSItem& item, const std::string& text) {
  return item.write(MemDesc::direct(text.data(), text.size()), text.size(), 0);
}

// Host descriptors of this process open on `path`.
int descriptorsOn(const std::string& path) {
  int count = 0;
  std::error_code error;
  for (const auto& fd : std::filesystem::directory_iterator("/proc/self/fd", error))
    if (std::filesystem::read_symlink(fd.path(), error) == path) ++count;
  return count;
}

TEST(LocalFileItem, ReadsAndWritesMoveTheOneOffsetTheHostKeeps) {
  TempDir tmp;
  std::string path = tmp.file("data", "abcdef");
  Ref<LocalFileDescriptionFSItem> item = openItem(path, O_RDWR);
  ASSERT_TRUE(item);
  EXPECT_EQ(readSome(*item, 2), "ab");
  EXPECT_EQ(item->seek(3), 3u);
  EXPECT_EQ(readSome(*item, 2), "de");
  EXPECT_EQ(writeText(*item, "XYZ"), 3u) << "the write lands where the read stopped";
  EXPECT_EQ(item->position(), 8u);
  EXPECT_EQ(contentOf(path), "abcdeXYZ");
  EXPECT_EQ(readSome(*item, 10), "") << "end of file";
}

TEST(LocalFileItem, SeekAndResizeAreOfferedByWhatTheItemIsAndHowItWasOpened) {
  TempDir tmp;
  std::string path = tmp.file("data", "12345");
  ASSERT_EQ(::mkfifo(tmp.path("fifo").c_str(), 0600), 0);
  struct Case {
    std::string path;
    uint32_t flags;
    int32_t type;
    bool seek, resize;
  } cases[] = {
      {path, O_RDONLY, 1, true, false},      {path, O_WRONLY, 1, true, true},
      {path, O_RDWR | O_APPEND, 1, true, true}, {tmp.dir(), O_RDONLY | O_DIRECTORY, 2, true, false},
      {"/dev/null", O_RDWR, 3, true, false}, {tmp.path("fifo"), O_RDWR, 9, false, false},
  };
  for (const Case& c : cases) {
    Ref<LocalFileDescriptionFSItem> item = openItem(c.path, c.flags);
    ASSERT_TRUE(item) << c.path;
    EXPECT_EQ(item->descriptionType(), c.type) << c.path;
    EXPECT_EQ(item->seekable() != nullptr, c.seek) << c.path << " flags " << c.flags;
    EXPECT_EQ(item->resizable() != nullptr, c.resize) << c.path << " flags " << c.flags;
    EXPECT_EQ(item->openFlags(), c.flags) << "kept as asked, without the close-on-exec flag";
  }
}

TEST(LocalFileItem, RefusalsLeaveTheHostErrorAndNoDescriptorOpen) {
  TempDir tmp;
  std::string existing = tmp.file("there", "x");
  // A zero byte inside the path would have the host open "there" instead.
  std::string cut = existing + std::string("\0.txt", 5);
  for (auto [path, flags, error] : {std::tuple{tmp.path("missing"), O_RDONLY, ENOENT},
                                    std::tuple{tmp.dir(), O_WRONLY, EISDIR}, std::tuple{cut, O_RDONLY, EINVAL}}) {
    Error::set(0);
    EXPECT_FALSE(LocalFileDescriptionFSItem::open(String::create(path.data(), path.size()), flags, 0));
    EXPECT_EQ(Error::get(), static_cast<uint32_t>(error)) << path;
  }
  EXPECT_EQ(descriptorsOn(existing), 0);
  Ref<LocalFileDescriptionFSItem> item = openItem(existing, O_RDWR);
  EXPECT_EQ(descriptorsOn(existing), 1);
  item.reset();
  EXPECT_EQ(descriptorsOn(existing), 0) << "closed with its last holder";
}

TEST(LocalFileItem, AnItemThatCanBlockWaitsOnlyForItsTimeOut) {
  TempDir tmp;
  ASSERT_EQ(::mkfifo(tmp.path("fifo").c_str(), 0600), 0);
  // Opening a FIFO that has no writer does not wait for one.
  auto reader = std::async(std::launch::async, [&] { return openItem(tmp.path("fifo"), O_RDONLY); });
  bool prompt = reader.wait_for(std::chrono::seconds(2)) == std::future_status::ready;
  if (!prompt) ::close(::open(tmp.path("fifo").c_str(), O_WRONLY));  // lets a waiting open end
  EXPECT_TRUE(prompt);
  Ref<LocalFileDescriptionFSItem> readEnd = reader.get();
  ASSERT_TRUE(readEnd);
  EXPECT_EQ(readEnd->descriptionType(), 9);
  Ref<LocalFileDescriptionFSItem> item = openItem(tmp.path("fifo"), O_RDWR);
  ASSERT_TRUE(item);
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(readSome(*item, 10, 50), "");
  auto waited = std::chrono::steady_clock::now() - start;
  EXPECT_GE(waited, std::chrono::milliseconds(45));
  EXPECT_LT(waited, std::chrono::milliseconds(2000));
  EXPECT_EQ(writeText(*item, "ping"), 4u);
  EXPECT_EQ(readSome(*item, 10, kForever), "ping");
}

}  // namespace
